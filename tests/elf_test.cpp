// The ELF inspector: exact reports of hand-built files, each kind of damage as a mutation of one small valid
// file, files that must not open, the elf command and vtest-elf, and the same files against readelf.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "Elf.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

// A small executable: header, four program headers (INTERP, LOAD, DYNAMIC,
// NOTE), their data, then seven section headers. All offsets are public so
// that tests can damage any field.
struct Image {
    Image(bool is64, bool big, uint16_t machine) : is64(is64), big(big)
    {
        const uint64_t w = is64 ? 8 : 4, ehsize = is64 ? 64 : 52, phsize = is64 ? 56 : 32, symsize = is64 ? 24 : 16;
        interp = ehsize + 4 * phsize;
        Add(interp, std::string("/lib/ld-vt.so.1\0", 16));
        dynstr = Add(interp + 16, std::string("\0libc.so.6\0libvt.so\0/opt/vt\0", 28));
        dynsym = Add(dynstr + 28, std::string(2 * symsize, '\0'));
        dynamic = dynsym + 2 * symsize;
        const uint64_t tags[][2] = {{1, 1}, {14, 11}, {29, 20}, {5, kBase + dynstr}, {10, 28}, {0, 0}};
        for (int i = 0; i < 6; i++) Put(dynamic + 2 * w * i, tags[i][0], w), Put(dynamic + 2 * w * i + w, tags[i][1], w);
        note = dynamic + 12 * w;
        Put(note, 4, 4), Put(note + 4, 4, 4), Put(note + 8, 3, 4), Add(note + 12, std::string("GNU\0\xde\xad\xbe\xef", 8));
        names = Add(note + 20, std::string("\0.interp\0.dynstr\0.dynsym\0.dynamic\0.note.gnu.build-id\0.shstrtab\0", 63));
        shoff = (names + 63 + 7) / 8 * 8;
        bytes.resize(shoff + 7 * (is64 ? 64 : 40));
        Section(1, 1, 1, interp, 16, 0, 0, 1, 0);
        Section(2, 9, 3, dynstr, 28, 0, 0, 1, 0);
        Section(3, 17, 11, dynsym, 2 * symsize, 2, 1, w, symsize);
        Section(4, 25, 6, dynamic, 12 * w, 2, 0, w, 2 * w);
        Section(5, 34, 7, note, 20, 0, 0, 4, 0);
        Section(6, 53, 3, names, 63, 0, 0, 1, 0);
        const uint32_t types[] = {3, 1, 2, 4}, flags[] = {4, 5, 6, 4};
        const uint64_t offsets[] = {interp, 0, dynamic, note}, sizes[] = {16, bytes.size(), 12 * w, 20};
        for (int i = 0; i < 4; i++) Segment(i, types[i], flags[i], offsets[i], sizes[i], i == 1 ? 0x1000 : 4);
        memcpy(&bytes[0], "\177ELF", 4);
        bytes[4] = is64 ? 2 : 1, bytes[5] = big ? 2 : 1, bytes[6] = 1;
        Put(16, 2, 2), Put(18, machine, 2), Put(20, 1, 4), Put(24, kBase + 0x80, w), Put(24 + w, ehsize, w);
        Put(24 + 2 * w, shoff, w);
        const uint64_t halves[] = {ehsize, phsize, 4, is64 ? 64u : 40u, 7, 6};
        for (int i = 0; i < 6; i++) Put(28 + 3 * w + 2 * i, halves[i], 2);
    }

    uint64_t Add(uint64_t at, const std::string& data)
    {
        if (bytes.size() < at + data.size()) bytes.resize(at + data.size());
        bytes.replace(at, data.size(), data);
        return at;
    }
    void Put(uint64_t at, uint64_t value, uint64_t size)
    {
        if (bytes.size() < at + size) bytes.resize(at + size);
        for (uint64_t i = 0; i < size; i++) bytes[at + (big ? size - 1 - i : i)] = static_cast<char>(value >> (8 * i));
    }
    void Segment(int i, uint32_t type, uint32_t flags, uint64_t offset, uint64_t size, uint64_t align)
    {
        uint64_t at = (is64 ? 64 : 52) + i * (is64 ? 56 : 32), w = is64 ? 8 : 4;
        Put(at, type, 4), Put(is64 ? at + 4 : at + 24, flags, 4), Put(at + w, offset, w);
        Put(at + 2 * w, kBase + offset, w), Put(at + 3 * w, kBase + offset, w), Put(at + 4 * w, size, w);
        Put(at + 5 * w, size, w), Put(is64 ? at + 48 : at + 28, align, w);
    }
    void Section(int i, uint32_t name, uint32_t type, uint64_t offset, uint64_t size, uint32_t link, uint32_t info,
                 uint64_t align, uint64_t entsize)
    {
        uint64_t at = shoff + i * (is64 ? 64 : 40), w = is64 ? 8 : 4;
        Put(at, name, 4), Put(at + 4, type, 4), Put(at + 8, 2, w), Put(at + 8 + w, kBase + offset, w);
        Put(at + 8 + 2 * w, offset, w), Put(at + 8 + 3 * w, size, w), Put(at + 8 + 4 * w, link, 4);
        Put(at + 12 + 4 * w, info, 4), Put(at + 16 + 4 * w, align, w), Put(at + 16 + 5 * w, entsize, w);
    }

    static const uint64_t kBase = 0x10000;
    bool is64, big;
    std::string bytes;
    uint64_t interp, dynstr, dynsym, dynamic, note, names, shoff;
};

// ELF64 header and section header fields the damage table touches.
enum : uint64_t { kPhoff = 32, kShoff = 40, kPhentsize = 54, kPhnum = 56, kShnum = 60, kShstrndx = 62 };
enum : uint64_t { kShName = 0, kShSize = 32, kShLink = 40, kShInfo = 44, kShAlign = 48, kShEntsize = 56 };

class ElfTest : public ::testing::Test {
protected:
    void SetUp() override { dir = MakeTempDir(); }
    void TearDown() override { EXPECT_EQ(0, system(("rm -rf " + dir).c_str())); }

    std::string Save(const std::string& bytes, const std::string& name = "file")
    {
        std::string path = dir + "/" + name;
        EXPECT_TRUE(WriteFile(path, bytes));
        return path;
    }
    // PrintAll of the file, or "<not opened>".
    std::string Report(const std::string& path)
    {
        StderrCapture capture;
        Elf elf;
        if (!elf.Open(path.c_str())) return "<not opened>";
        char* buf = nullptr;
        size_t len = 0;
        FILE* out = open_memstream(&buf, &len);
        elf.PrintAll(out);
        fclose(out);
        std::string text(buf, len);
        free(buf);
        return text;
    }

    std::string dir;
};

TEST_F(ElfTest, PrintsBigEndianElf32Exactly)
{
    Image image(false, true, 20);
    EXPECT_EQ(Report(Save(image.bytes)),
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

// The report line(s) that show each fault; every mutation opens, prints
// and leaves the rest of the report intact.
TEST_F(ElfTest, ShowsEachDamageInItsBlock)
{
    const Image good(true, false, 62);
    const uint64_t s0 = good.shoff, s3 = s0 + 3 * 64, s5 = s0 + 5 * 64;
    struct Case {
        const char* label; std::function<void(Image&)> damage; std::string shows;
    } cases[] = {
        {"cut in the section table", [&](Image& i) { i.bytes.resize(s0 + 100); },
         "  <damaged: 7 entries at 0x230 pass the end of the file>\n"},
        {"program headers past the end", [](Image& i) { i.Put(kPhoff, 0xfffffffffffff000, 8); },
         "  <damaged: 4 entries at 0xfffffffffffff000 pass the end of the file>\n"},
        {"section table offset that wraps", [](Image& i) { i.Put(kShoff, ~0ull - 8, 8); },
         "  <damaged: 7 entries at 0xfffffffffffffff7 pass the end of the file>\n"},
        {"wrong program header entry size", [](Image& i) { i.Put(kPhentsize, 40, 2); },
         "  <damaged: entry size 40, expected 56>\n"},
        {"no program headers, garbage size and offset",
         [](Image& i) { i.Put(kPhnum, 0, 2), i.Put(kPhentsize, 0, 2), i.Put(kPhoff, 0xdead, 8); },
         "\nThere are no program headers in this file.\n"},
        {"no sections, garbage entry size", [](Image& i) { i.Put(kShoff, 0, 8), i.Put(kShnum, 0, 2), i.Put(58, 7, 2); },
         "\nThere are no sections in this file.\n"},
        {"huge extended count", [&](Image& i) { i.Put(kPhnum, 0xffff, 2), i.Put(s0 + kShInfo, ~0u, 4); },
         "  <damaged: 4294967295 entries at 0x40 pass the end of the file>\n"},
        {"count times entry size wraps", [&](Image& i) { i.Put(kShnum, 0, 2), i.Put(s0 + kShSize, 1ull << 58, 8); },
         "  <damaged: 288230376151711744 entries at 0x230 pass the end of the file>\n"},
        {"hand-made extended numbering", [&](Image& i) {
             i.Put(kShnum, 0, 2), i.Put(kPhnum, 0xffff, 2), i.Put(kShstrndx, 0xffff, 2);
             i.Put(s0 + kShSize, 7, 8), i.Put(s0 + kShInfo, 4, 4), i.Put(s0 + kShLink, 6, 4);
         }, "  Number of program headers:         65535 (4)\n  Size of section headers:           64 (bytes)\n"
            "  Number of section headers:         0 (7)\n  Section header string table index: 65535 (6)\n"},
        {"name table index out of range", [](Image& i) { i.Put(kShstrndx, 99, 2); },
         "99 <corrupt: out of range>\n"},
        {"name table unusable", [](Image& i) { i.Put(kShstrndx, 0, 2); }, " 0x2 0 0 1 <no-strings>\n"},
        {"name past its table", [&](Image& i) { i.Put(s3 + kShName, 63, 4); }, " 0x2 2 1 8 <corrupt>\n"},
        {"name table without its last NUL", [&](Image& i) { i.bytes[i.names + 62] = 'x'; }, " 0x2 0 0 1 <corrupt>\n"},
        {"dynamic strings without NUL", [](Image& i) { i.Put(i.dynamic + 4 * 16 + 8, 27, 8); },
         "  Library runpath: [<corrupt>]\n"},
        {"symbols of the wrong size", [&](Image& i) { i.Put(s3 + kShEntsize, 7, 8); },
         "Symbol table '.dynsym' is damaged: entry size 7, expected 24\n"},
        {"note past the end", [](Image& i) { i.Put(i.note + 4, 0x1000, 4); },
         "  <damaged: note at 0x1dc runs past the end>\n"},
        {"notes aligned to 16", [&](Image& i) { i.Put(s5 + kShAlign, 16, 8); }, "  <damaged: note alignment 16>\n"},
        {"notes outside the file", [&](Image& i) { i.Put(s5 + kShSize, 1ull << 40, 8); },
         "  <damaged: 0x10000000000 bytes at 0x1dc pass the end of the file>\n"},
        {"interpreter outside the file", [](Image& i) { i.Put(64 + 32, 1ull << 40, 8); },
         "      [Requesting program interpreter: <damaged>]\n"},
        {"dynamic array cut by the end of the file", [](Image& i) { i.bytes.resize(i.dynamic + 40); },
         "  <damaged: runs past the end of the file at 0x1a4>\n"},
        {"odd, unescaped bytes in a name", [&](Image& i) { i.Add(i.names + 1, "in\\t p\xff"); },
         "0x2 0 0 1 in\\\\t\\x20p\\xff\n"},
        {"table at an odd offset", [&](Image& i) {
             i.Add(i.bytes.size() + 1, i.bytes.substr(s0, 7 * 64)), i.Put(kShoff, i.bytes.size() - 7 * 64, 8);
         }, "  [ 6] STRTAB          0x00000000000101f0 0x0001f0 0x00003f 0x00 0x2 0 0 1 .shstrtab\n"},
    };
    for (const auto& c : cases) {
        Image image = good;
        c.damage(image);
        std::string report = Report(Save(image.bytes));
        EXPECT_NE(report.find(c.shows), std::string::npos) << c.label << "\n" << report;
        EXPECT_EQ(report.rfind("ELF Header:\n", 0), 0u) << c.label;
    }
}

// Cut at every length from the header on: each opens and prints, reading
// nothing past the new end (the sanitizers watch).
TEST_F(ElfTest, TruncatedAnywhereStillReports)
{
    FILE* sink = fopen("/dev/null", "w");
    ASSERT_NE(sink, nullptr);
    for (bool is64 : {false, true}) {
        Image image(is64, !is64, 40);
        std::string path = Save(image.bytes);
        for (size_t len = image.bytes.size(); len-- > (is64 ? 64u : 52u);) {
            ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(len)));
            Elf elf;
            ASSERT_TRUE(elf.Open(path.c_str())) << len;
            elf.PrintAll(sink);
        }
    }
    fclose(sink);
}

// What must not open: nothing printed, exactly one warning, and OpenError.
TEST_F(ElfTest, RefusesWhatIsNotAReadableElfFileWithOneWarning)
{
    ASSERT_EQ(0, mkfifo((dir + "/fifo").c_str(), 0600));
    bool node = mknod((dir + "/null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
    const std::string elf32 = std::string("\177ELF\1\1\1", 7) + std::string(45, '\0');
    // error: OpenError(), empty when it opens; err: the errno of a failed system call, or 0.
    const struct { std::string path, error; int err; } cases[] = {
        {dir + "/fifo", "not a regular file", 0}, {dir, "not a regular file", 0},
        {node ? dir + "/null" : "/dev/null", "not a regular file", 0}, {dir + "/none", "No such file or directory", 2},
        {"/sys/devices/system/cpu/online", "No such device", 19}, {Save("", "empty"), "empty", 0},
        {Save("\177EL", "short"), "not ELF", 0}, {Save("MZ\x90\0\3\0\0\0", "exe"), "not ELF", 0},
        {Save("\177ELF\3\1", "class"), "bad class 3", 0}, {Save(std::string("\177ELF\1\0", 6), "order"), "bad byte order 0", 0},
        {Save(elf32.substr(0, 51), "cut"), "shorter than its header", 0}, {Save(elf32, "a b\\"), "", 0},
    };
    int watch = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(watch, 0);
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

// `vtest elf` started with `argv0` in `cwd` (qemu's -0 when emulated), with
// arguments it must ignore.
RunResult VtestElfAs(const std::string& argv0, const std::string& cwd)
{
    std::vector<std::string> argv = TargetArgv(VTEST_BINARY, {"elf", "ignored", "--server=x"});
    std::string command = "cd \"$1\" && shift && ";
#ifdef VTEST_EMULATOR
    argv.insert(argv.end() - 4, {"-0", argv0});
    command += "exec \"$@\"";
#else
    argv.insert(argv.begin(), argv0);
    command += "argv0=$1 && shift && exec -a \"$argv0\" \"$@\"";
#endif
    argv.insert(argv.begin(), {"/bin/bash", "-c", command, "bash", cwd});
    return RunProgram(argv);
}

// A bare name was found through PATH: the tool, not ./vtest, is reported
// (not under emulation, where /proc/self/exe is the emulator).
TEST_F(ElfTest, ElfCommandReadsArgv0AndIgnoresItsArguments)
{
    std::string good = Save(Image(false, false, 40).bytes, "vtest"), junk = Save("#!/bin/sh\n", "junk");
    const struct { std::string argv0, out, log; } cases[] = {
        {good, Report(good), ""}, {junk, "", "warn <Elf> Unable to read " + junk + ": not ELF.\n"},
        {"./vtest", Report(good), ""}, {"vtest", Report(VTEST_BINARY), ""},
    };
    for (const auto& c : cases) {
        if (c.argv0 == "vtest" && !EmulationSkipReason(EmulationGap::ProcSelfExe).empty()) continue;
        RunResult r = VtestElfAs(c.argv0, dir);
        EXPECT_EQ(r.status, 0) << c.argv0;
        EXPECT_EQ(r.out, c.out) << c.argv0;
        EXPECT_EQ(LogLines(r.err), c.log) << c.argv0;
    }
}

TEST_F(ElfTest, VtestElfReportsEachFileAndFailsForAnyItCannotRead)
{
    std::string a = Save(Image(true, true, 21).bytes, "a"), b = Save(Image(false, false, 3).bytes, "b c");
    RunResult r = RunProgram(TargetArgv(VTEST_ELF_BINARY, {a, dir + "/none", b}));
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "File: " + a + "\n" + Report(a) + "\nFile: " + dir + "/b\\x20c\n" + Report(b));
    EXPECT_EQ(LogLines(r.err), "warn <Elf> Unable to open " + dir + "/none (2).\nvtest-elf: " + dir +
                                   "/none: No such file or directory\n");
    EXPECT_EQ(RunProgram(TargetArgv(VTEST_ELF_BINARY, {a, b})).status, 0);
    r = RunProgram(InShell("exec \"$@\" >/dev/full", TargetArgv(VTEST_ELF_BINARY, {a})));
    EXPECT_EQ(r.status, 74);
    EXPECT_EQ(r.err, "vtest-elf: cannot write the report: No space left on device\n");
    r = RunProgram(TargetArgv(VTEST_ELF_BINARY));
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, std::string("Usage: ") + VTEST_ELF_BINARY + " FILE...\n");
}

// The hand-built files of every class and byte order, this build's own
// programs and objects of several machines agree with readelf field for
// field (scripts/elf-compare.py; the full sweep over the system runs there).
TEST_F(ElfTest, AgreesWithReadelf)
{
    std::vector<std::string> argv = {"/usr/bin/python3", VTEST_SOURCE_DIR "/scripts/elf-compare.py", "--vtest-elf",
                                     VTEST_ELF_BINARY, "--vtest", VTEST_BINARY, "--generate", dir + "/gen", "--quick",
                                     VTEST_BINARY, VTEST_ELF_BINARY};
#ifdef VTEST_EMULATOR
    argv.insert(argv.begin() + 2, {"--runner", VTEST_EMULATOR});
#endif
    for (bool is64 : {false, true})
        for (bool big : {false, true}) argv.push_back(Save(Image(is64, big, is64 ? 183 : 8).bytes, std::to_string(argv.size())));
    RunResult r = RunProgram(argv, "", 120000);
    if (r.status == 77) GTEST_SKIP() << r.out;
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find(" 0 disagree; 0 not ELF; 0 not generated"), std::string::npos) << r.out;
}

}  // namespace
