// The ELF inspector: one hand-built file exactly, each damage as a mutation of one valid file, and against readelf.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <tuple>

#include "Elf.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

// A small executable: header, INTERP, LOAD, DYNAMIC and NOTE segments, their data, seven sections; offsets public.
struct Image {
    Image(bool is64, bool big, uint16_t machine) : big(big)
    {
        const uint64_t w = is64 ? 8 : 4, ehsize = is64 ? 64 : 52, phsize = is64 ? 56 : 32, symsize = is64 ? 24 : 16;
        const uint64_t shsize = is64 ? 64 : 40, syms = 2 * symsize;
        interp = Add(ehsize + 4 * phsize, std::string("/lib/ld-vt.so.1\0", 16));
        dynstr = Add(interp + 16, std::string("\0libc.so.6\0libvt.so\0/opt/vt\0", 28));
        const uint64_t dynsym = Add(dynstr + 28, std::string(syms, '\0'));
        dynamic = dynsym + syms;
        const uint64_t tags[] = {1, 1, 14, 11, 29, 20, 5, kBase + dynstr, 10, 28, 0, 0};  // tag, value pairs
        for (uint64_t tag : tags) Put(bytes.size(), tag, w);
        Fields(note = bytes.size(), {{4, 4}, {4, 4}, {3, 4}});
        Add(note + 12, std::string("GNU\0\xde\xad\xbe\xef", 8));
        const char kNames[] = "\0.interp\0.dynstr\0.dynsym\0.dynamic\0.note.gnu.build-id\0.shstrtab";
        names = Add(note + 20, std::string(kNames, sizeof kNames));
        shoff = (names + 63 + 7) / 8 * 8;
        bytes.resize(shoff + 7 * shsize);
        const uint64_t sections[6][8] = {  // name, type, offset, size, link, info, align, entsize
            {1, 1, interp, 16, 0, 0, 1, 0}, {9, 3, dynstr, 28, 0, 0, 1, 0}, {17, 11, dynsym, syms, 2, 1, w, symsize},
            {25, 6, dynamic, 12 * w, 2, 0, w, 2 * w}, {34, 7, note, 20, 0, 0, 4, 0}, {53, 3, names, 63, 0, 0, 1, 0}};
        uint64_t at = shoff + shsize;
        for (const uint64_t* s : sections)
            at = Fields(at, {{s[0], 4}, {s[1], 4}, {2, w}, {kBase + s[2], w}, {s[2], w}, {s[3], w}, {s[4], 4},
                             {s[5], 4}, {s[6], w}, {s[7], w}});
        // type, flags, offset, size, alignment; the flags come second in ELF64, seventh in ELF32
        const uint64_t segments[4][5] = {
            {3, 4, interp, 16, 4}, {1, 5, 0, bytes.size(), 0x1000}, {2, 6, dynamic, 12 * w, 4}, {4, 4, note, 20, 4}};
        at = ehsize;
        for (const uint64_t* s : segments)
            at = Fields(at, {{s[0], 4}, {s[1], is64 ? 4u : 0u}, {s[2], w}, {kBase + s[2], w}, {kBase + s[2], w},
                             {s[3], w}, {s[3], w}, {s[1], is64 ? 0u : 4u}, {s[4], w}});
        Add(0, std::string("\177ELF") + char(is64 ? 2 : 1) + char(big ? 2 : 1) + '\1');
        Fields(16, {{2, 2}, {machine, 2}, {1, 4}, {kBase + 0x80, w}, {ehsize, w}, {shoff, w}, {0, 4}, {ehsize, 2},
                    {phsize, 2}, {4, 2}, {shsize, 2}, {7, 2}, {6, 2}});
    }

    uint64_t Add(uint64_t at, const std::string& data)
    {
        bytes.resize(std::max<uint64_t>(bytes.size(), at + data.size()));
        return bytes.replace(at, data.size(), data), at;
    }
    void Put(uint64_t at, uint64_t value, uint64_t size)
    {
        bytes.resize(std::max<uint64_t>(bytes.size(), at + size));
        for (uint64_t i = 0; i < size; i++) bytes[at + (big ? size - 1 - i : i)] = static_cast<char>(value >> (8 * i));
    }
    // (value, size) pairs one after the other from `at`; returns where they end.
    uint64_t Fields(uint64_t at, std::initializer_list<std::pair<uint64_t, uint64_t>> fields)
    {
        for (const auto& f : fields) Put(at, f.first, f.second), at += f.second;
        return at;
    }

    static const uint64_t kBase = 0x10000;
    bool big;
    std::string bytes;
    uint64_t interp, dynstr, dynamic, note, names, shoff;
};

// ELF64 header and section header fields the damage table touches.
enum : uint64_t { kPhoff = 32, kShoff = 40, kPhentsize = 54, kPhnum = 56, kShnum = 60, kShstrndx = 62 };
enum : uint64_t { kShName = 0, kShSize = 32, kShLink = 40, kShInfo = 44, kShAlign = 48, kShEntsize = 56 };

// The whole report of `path`, or "<not opened>".
std::string Report(const std::string& path)
{
    StderrCapture capture;
    Elf elf;
    char* buf = nullptr;
    size_t len = 0;
    FILE* out = elf.Open(path.c_str()) ? open_memstream(&buf, &len) : nullptr;
    if (!out) return "<not opened>";
    elf.PrintAll(out), fclose(out);
    std::string text(buf, len);
    return free(buf), text;
}

class ElfTest : public ::testing::Test {
protected:
    void TearDown() override { RunProgram({"/bin/rm", "-rf", dir}); }
    std::string Save(const std::string& bytes, const std::string& name = "file")
    {
        EXPECT_TRUE(WriteFile(dir + "/" + name, bytes));
        return dir + "/" + name;
    }
    std::string dir = MakeTempDir();
};

TEST_F(ElfTest, PrintsBigEndianElf32Exactly)
{
    EXPECT_EQ(Report(Save(Image(false, true, 20).bytes)),
              "ELF Header:\n"
              "  Magic:   7f 45 4c 46 01 02 01 00 00 00 00 00 00 00 00 00\n"
              "  Class:                             ELF32\n"
              "  Data:                              2's complement, big endian\n"
              "  Version:                           1 (current)\n"
              "  OS/ABI:                            0x0 (SYSV)\n"
              "  ABI Version:                       0\n"
              "  Type:                              0x2 (EXEC)\n"
              "  Machine:                           0x14 (PPC)\n"
              "  Version:                           0x1\n"
              "  Entry point address:               0x10080\n"
              "  Start of program headers:          52 (bytes into file)\n"
              "  Start of section headers:          392 (bytes into file)\n"
              "  Flags:                             0x0\n"
              "  Size of this header:               52 (bytes)\n"
              "  Size of program headers:           32 (bytes)\n"
              "  Number of program headers:         4\n"
              "  Size of section headers:           40 (bytes)\n"
              "  Number of section headers:         7\n"
              "  Section header string table index: 6\n"
              "\n"
              "Program Headers:\n"
              "  [Nr] Type           Offset   VirtAddr   PhysAddr   FileSiz  MemSiz   Flg Align\n"
              "  [ 0] INTERP         0x0000b4 0x000100b4 0x000100b4 0x000010 0x000010 R-- 0x4\n"
              "      [Requesting program interpreter: /lib/ld-vt.so.1]\n"
              "  [ 1] LOAD           0x000000 0x00010000 0x00010000 0x0002a0 0x0002a0 R-E 0x1000\n"
              "  [ 2] DYNAMIC        0x000100 0x00010100 0x00010100 0x000030 0x000030 RW- 0x4\n"
              "  [ 3] NOTE           0x000130 0x00010130 0x00010130 0x000014 0x000014 R-- 0x4\n"
              "\n"
              "Section Headers:\n"
              "  [Nr] Type            Address    Offset   Size     ES   Flags Lk Inf Al Name\n"
              "  [ 0] NULL            0x00000000 0x000000 0x000000 0x00 0x0 0 0 0\n"
              "  [ 1] PROGBITS        0x000100b4 0x0000b4 0x000010 0x00 0x2 0 0 1 .interp\n"
              "  [ 2] STRTAB          0x000100c4 0x0000c4 0x00001c 0x00 0x2 0 0 1 .dynstr\n"
              "  [ 3] DYNSYM          0x000100e0 0x0000e0 0x000020 0x10 0x2 2 1 4 .dynsym\n"
              "  [ 4] DYNAMIC         0x00010100 0x000100 0x000030 0x08 0x2 2 0 4 .dynamic\n"
              "  [ 5] NOTE            0x00010130 0x000130 0x000014 0x00 0x2 0 0 4 .note.gnu.build-id\n"
              "  [ 6] STRTAB          0x00010144 0x000144 0x00003f 0x00 0x2 0 0 1 .shstrtab\n"
              "\n"
              "Symbol table '.dynsym' contains 2 entries\n"
              "\n"
              "Dynamic section at offset 0x100 contains 6 entries:\n"
              "  Shared library: [libc.so.6]\n"
              "  Library soname: [libvt.so]\n"
              "  Library runpath: [/opt/vt]\n"
              "\n"
              "Notes in section '.note.gnu.build-id':\n"
              "  Owner: GNU  Type: 0x3  Data size: 0x4\n"
              "  Build ID: deadbeef\n");
}

// Each mutation and each cut still opens and prints, a mutation's fault shown in its block; the sanitizers watch
// for over-reads.
TEST_F(ElfTest, ShowsEachDamageInItsBlockAndSurvivesEveryCut)
{
    const Image good(true, false, 62);
    const uint64_t s0 = good.shoff, s3 = s0 + 3 * 64, s5 = s0 + 5 * 64;
    const std::string kPast = " pass the end of the file>\n";
    const struct { const char* label; std::function<void(Image&)> damage; std::string shows; } cases[] = {
        {"offset that wraps", [](Image& i) { i.Put(kShoff, ~0ull - 8, 8); }, "7 entries at 0xfffffffffffffff7" + kPast},
        {"wrong entry size", [](Image& i) { i.Put(kPhentsize, 40, 2); }, "  <damaged: entry size 40, expected 56>\n"},
        {"no program headers, garbage size and offset",
         [](Image& i) { i.Put(kPhnum, 0, 2), i.Put(kPhentsize, 0, 2), i.Put(kPhoff, 0xdead, 8); },
         "\nThere are no program headers in this file.\n"},
        {"no sections, garbage entry size", [](Image& i) { i.Put(kShoff, 0, 8), i.Put(kShnum, 0, 2), i.Put(58, 7, 2); },
         "\nThere are no sections in this file.\n"},
        {"count times size wraps", [&](Image& i) { i.Put(kShnum, 0, 2), i.Put(s0 + kShSize, 1ull << 58, 8); },
         "288230376151711744 entries at 0x230" + kPast},
        {"hand-made extended numbering", [&](Image& i) {
             i.Put(kShnum, 0, 2), i.Put(kPhnum, 0xffff, 2), i.Put(kShstrndx, 0xffff, 2);
             i.Put(s0 + kShSize, 7, 8), i.Put(s0 + kShInfo, 4, 4), i.Put(s0 + kShLink, 6, 4);
         }, "  Number of program headers:         65535 (4)\n  Size of section headers:           64 (bytes)\n"
            "  Number of section headers:         0 (7)\n  Section header string table index: 65535 (6)\n"},
        {"name table index out of range", [](Image& i) { i.Put(kShstrndx, 99, 2); }, "99 <corrupt: out of range>\n"},
        {"name table unusable", [](Image& i) { i.Put(kShstrndx, 0, 2); }, " 0x2 0 0 1 <no-strings>\n"},
        {"name past its table", [&](Image& i) { i.Put(s3 + kShName, 63, 4); }, " 0x2 2 1 8 <corrupt>\n"},
        {"name table without its last NUL", [&](Image& i) { i.bytes[i.names + 62] = 'x'; }, " 0x2 0 0 1 <corrupt>\n"},
        {"dynamic strings without NUL", [](Image& i) { i.Put(i.dynamic + 72, 27, 8); }, "runpath: [<corrupt>]\n"},
        {"symbols of the wrong size", [&](Image& i) { i.Put(s3 + kShEntsize, 7, 8); },
         "Symbol table '.dynsym' is damaged: entry size 7, expected 24\n"},
        {"note past the end", [](Image& i) { i.Put(i.note + 4, 0x1000, 4); }, "note at 0x1dc runs past the end>\n"},
        {"notes aligned to 16", [&](Image& i) { i.Put(s5 + kShAlign, 16, 8); }, "  <damaged: note alignment 16>\n"},
        {"notes outside the file", [&](Image& i) { i.Put(s5 + kShSize, 1ull << 40, 8); },
         "  <damaged: 0x10000000000 bytes at 0x1dc" + kPast},
        {"interpreter outside the file", [](Image& i) { i.Put(96, 1ull << 40, 8); }, "interpreter: <damaged>]\n"},
        {"dynamic array cut", [](Image& i) { i.bytes.resize(i.dynamic + 40); }, "past the end of the file at 0x1a4>\n"},
        {"odd bytes in a name", [&](Image& i) { i.Add(i.names + 1, "in\\t p\xff"); }, "1 in\\\\t\\x20p\\xff\n"},
        {"table at an odd offset", [&](Image& i) {
             i.Add(i.bytes.size() + 1, i.bytes.substr(s0, 7 * 64)), i.Put(kShoff, i.bytes.size() - 7 * 64, 8);
         }, "  [ 6] STRTAB          0x00000000000101f0 0x0001f0 0x00003f 0x00 0x2 0 0 1 .shstrtab\n"},
    };
    for (const auto& c : cases) {
        Image image = good;
        c.damage(image);
        const std::string report = Report(Save(image.bytes));
        EXPECT_NE(report.find(c.shows), std::string::npos) << c.label << "\n" << report;
    }
    FILE* sink = fopen("/dev/null", "w");  // cut at every length past the header, each still opens and prints
    for (const Image& image : {good, Image(false, true, 40)}) {
        const std::string path = Save(image.bytes);
        for (size_t len = image.bytes.size(); len-- > (image.bytes[4] == 2 ? 64u : 52u);) {
            Elf elf;
            ASSERT_TRUE(truncate(path.c_str(), static_cast<off_t>(len)) == 0 && elf.Open(path.c_str())) << len;
            elf.PrintAll(sink);
        }
    }
    fclose(sink);
}

// One warning and OpenError() set; a FIFO or device is never opened (it could block, or act).
TEST_F(ElfTest, RefusesWhatIsNotAReadableElfFileWithOneWarning)
{
    ASSERT_EQ(0, mkfifo((dir + "/fifo").c_str(), 0600));
    bool node = mknod((dir + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
    const std::string elf32 = std::string("\177ELF\1\1\1", 7) + std::string(45, '\0'), kNot = "not a regular file";
    const struct { std::string path, error; int err; } cases[] = {  // err: errno of a failed call, else 0
        {dir + "/fifo", kNot, 0}, {dir, kNot, 0}, {node ? dir + "/null" : "/dev/null", kNot, 0},
        {dir + "/none", "No such file or directory", 2}, {"/sys/devices/system/cpu/online", "No such device", 19},
        {Save("", "empty"), "empty", 0}, {Save("\177EL", "3"), "not ELF", 0},
        {Save("\177ELF\3\1", "c"), "bad class 3", 0}, {Save(std::string("\177ELF\1\0", 6), "o"), "bad byte order 0", 0},
        {Save(elf32.substr(0, 51), "cut"), "shorter than its header", 0}, {Save(elf32, "a b\\"), "", 0},
    };
    int watch = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(watch, (dir + "/fifo").c_str(), IN_OPEN), 0);
    if (node) { ASSERT_GE(inotify_add_watch(watch, (dir + "/null").c_str(), IN_OPEN), 0); }
    for (const auto& c : cases) {
        if (access(c.path.c_str(), F_OK) != 0 && c.path.rfind("/sys/", 0) == 0) continue;  // no sysfs here
        std::string log = c.err ? "Unable to open " + c.path + " (" + std::to_string(c.err) + ")."
                                : "Unable to read " + c.path + ": " + c.error + ".";
        StderrCapture capture;
        Elf elf;
        EXPECT_EQ(elf.Open(c.path.c_str()), c.error.empty()) << c.path;
        EXPECT_EQ(LogLines(capture.Take()), c.error.empty() ? "" : "warn <Elf> " + log + "\n") << c.path;
        EXPECT_EQ(elf.OpenError(), c.error) << c.path;
    }
    char events[4096];
    EXPECT_EQ(read(watch, events, sizeof events), -1) << "a FIFO or device node was opened";
    close(watch);
}

// vtest-elf frames each file's report and fails for any it cannot read or write. `vtest elf` reads the file argv[0]
// names and ignores its arguments; a bare name was found through PATH, so the tool reads itself, not ./vtest.
TEST_F(ElfTest, ProgramsFrameTheReport)
{
    std::string a = Save(Image(true, true, 21).bytes, "a"), b = Save(Image(false, false, 3).bytes, "b c");
    std::string none = dir + "/none", junk = Save("#!/bin/sh\n", "junk");
    Save(Image(false, false, 40).bytes, "vtest");
    auto elf = [&](const std::string& argv0) -> std::vector<std::string> {  // run in `dir`
        return {"/bin/bash", "-c", "cd \"$1\" && exec -a \"$2\" \"$3\" elf x --server=x", "bash", dir, argv0,
                VTEST_BINARY};
    };
    const struct { const char* label; std::vector<std::string> argv; int status; std::string out, log; } cases[] = {
        {"files", TargetArgv(VTEST_ELF_BINARY, {a, none, b}), 1,
         "File: " + a + "\n" + Report(a) + "\nFile: " + dir + "/b\\x20c\n" + Report(b),
         "warn <Elf> Unable to open " + none + " (2).\nvtest-elf: " + none + ": No such file or directory\n"},
        {"full", InShell("exec \"$@\" >/dev/full", TargetArgv(VTEST_ELF_BINARY, {a})), 74, "",
         "vtest-elf: cannot write the report: No space left on device\n"},
        {"usage", TargetArgv(VTEST_ELF_BINARY), 255, "", std::string("Usage: ") + VTEST_ELF_BINARY + " FILE...\n"},
        {"elf junk", elf(junk), 0, "", "warn <Elf> Unable to read " + junk + ": not ELF.\n"},
        {"elf vtest", elf("vtest"), 0, Report(VTEST_BINARY), ""},
    };
    // Emulated, the tool cannot run without its emulator, nor find itself through /proc/self/exe.
    const std::string emulated = EmulationSkipReason(EmulationGap::ProcSelfExe);
    for (const auto& c : cases) {
        if (c.argv[0] == "/bin/bash" && !emulated.empty()) continue;
        RunResult r = RunProgram(c.argv);
        EXPECT_EQ(std::make_tuple(r.status, r.out, LogLines(r.err)), std::tie(c.status, c.out, c.log)) << c.label;
    }
    if (!emulated.empty()) GTEST_SKIP() << "the `vtest elf` rows: " << emulated;
}

// This build's programs, the exact report's file and clang's objects of five machines (both classes and byte
// orders), field for field; the full sweep over the system runs in scripts/elf-compare.py.
TEST_F(ElfTest, AgreesWithReadelf)
{
    std::vector<std::string> argv = {"/usr/bin/python3", VTEST_SOURCE_DIR "/scripts/elf-compare.py", "--vtest-elf",
                                     VTEST_ELF_BINARY, "--vtest", VTEST_BINARY, "--generate", dir + "/gen", "--quick",
                                     VTEST_BINARY, VTEST_ELF_BINARY, Save(Image(false, true, 20).bytes)};
#ifdef VTEST_EMULATOR
    argv.insert(argv.begin() + 2, {"--runner", VTEST_EMULATOR});
#endif
    RunResult r = RunProgram(argv, "", 120000);
    if (r.status == 77) GTEST_SKIP() << r.out;
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find(" 0 disagree; 0 not ELF; 0 not generated"), std::string::npos) << r.out;
}

}  // namespace
