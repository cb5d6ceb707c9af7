#!/usr/bin/env python3
"""Holds vtest-elf's report to readelf, field by field: `readelf -W -h -l -t
-d -n`, the symbol counts of `readelf -s`, and the raw type, machine and flag
numbers readelf prints as names, from `llvm-readobj --elf-output-style=JSON`.
For each file `vtest elf` run with argv[0] set to the file must print the
same report as vtest-elf.

  elf-compare.py --vtest-elf BIN --vtest BIN [--runner CMD] [--system]
                 [--generate DIR [--quick]] [FILE...]

--system adds every ELF file under /usr/lib/x86_64-linux-gnu and /usr/bin;
--generate builds objects, executables, libraries, stripped and section-less
copies for ten targets with clang and lld, a `gcc -m32 -c` object, an object
above 0xff00 sections, and core dumps (gcore, and the kernel's where
core_pattern names a plain file) into DIR; --quick only clang's objects
for five targets. --runner prefixes the programs (an emulator). Prints each
disagreement and a summary; exit status 0 when all agree, 1 when not, 77
when a tool is missing.
"""
import argparse
import concurrent.futures
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

TARGETS = ["i386-linux-gnu", "x86_64-linux-gnu", "armv7a-linux-gnueabihf", "aarch64-linux-gnu",
           "mips-linux-gnu", "mips64-linux-gnuabi64", "mips64el-linux-gnuabi64", "powerpc-linux-gnu",
           "powerpc64-linux-gnu", "riscv64-linux-gnu"]
QUICK_TARGETS = ["x86_64-linux-gnu", "i386-linux-gnu", "armv7a-linux-gnueabihf", "mips-linux-gnu",
                 "powerpc64-linux-gnu"]

# readelf's note descriptions by their first word, for the numbers they stand for.
NOTE_TYPES = {
    "NT_GNU_ABI_TAG": 1, "NT_GNU_HWCAP": 2, "NT_GNU_BUILD_ID": 3, "NT_GNU_GOLD_VERSION": 4,
    "NT_GNU_PROPERTY_TYPE_0": 5, "NT_GNU_BUILD_ATTRIBUTE_OPEN": 0x100, "NT_GNU_BUILD_ATTRIBUTE_FUNC": 0x101,
    "NT_PRSTATUS": 1, "NT_FPREGSET": 2, "NT_PRPSINFO": 3, "NT_TASKSTRUCT": 4, "NT_AUXV": 6,
    "NT_PSTATUS": 10, "NT_FPREGS": 12, "NT_PSINFO": 13, "NT_LWPSTATUS": 16, "NT_LWPSINFO": 17,
    "NT_WIN32PSTATUS": 18, "NT_PRXFPREG": 0x46e62b7f, "NT_X86_XSTATE": 0x202, "NT_SIGINFO": 0x53494749,
    "NT_FILE": 0x46494c45, "NT_STAPSDT": 3, "GO": 4, "FDO_PACKAGING_METADATA": 0xcafe1a7e,
    "NT_VERSION": 1, "NT_ARCH": 2, "NT_ARM_VFP": 0x400, "NT_ARM_TLS": 0x401, "NT_ARM_HW_BREAK": 0x402,
    "NT_ARM_HW_WATCH": 0x403, "NT_ARM_SYSTEM_CALL": 0x404, "NT_ARM_SVE": 0x405, "NT_GDB_TDESC": 0xff000000,
    "OPEN": 0x100, "FUNC": 0x101, "func": 0x101,
}


def escape(text):
    """The tool's escaping of a string read from a file."""
    data = text.encode("latin-1")
    out = "".join("\\\\" if b == 0x5c else chr(b) if 0x21 <= b <= 0x7e else "\\x%02x" % b for b in data[:1024])
    return out + ("[...]" if len(data) > 1024 else "")


def run(argv, executable=None):
    done = subprocess.run(argv, executable=executable, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    return done.returncode, done.stdout.decode("latin-1")


def number(text):
    return int(text, 0)


# ---- parsers: each returns the same shape for the tool and for readelf ----

HEADER_FIELDS = ["Class", "Data", "Version", "ABI Version", "Entry point address", "Start of program headers",
                 "Start of section headers", "Size of this header", "Size of program headers",
                 "Number of program headers", "Size of section headers", "Number of section headers",
                 "Section header string table index"]


def header_lines(text):
    """Header fields by label; the second "Version" is "Version2"."""
    fields = {}
    for line in text.split("\n"):
        m = re.match(r"  (Magic|[A-Za-z/ ]+):\s+(.*?)\s*$", line)
        if m:
            key = m.group(1)
            fields[key + "2" if key == "Version" and key in fields else key] = m.group(2)
        if line.startswith("  Section header string table index"):
            break
    return fields


def segment_row(g):
    """A program header row from its matched fields: type, five numbers, flags, alignment."""
    return {"offset": int(g[1], 16), "vaddr": int(g[2], 16), "paddr": int(g[3], 16), "filesz": int(g[4], 16),
            "memsz": int(g[5], 16), "flg": g[6], "align": int(g[7], 16)}


def empty_report(text):
    """What both parsers fill: the header lines, then one list per part."""
    return {"header": header_lines(text), "segments": [], "interp": [], "sections": [], "symtabs": [],
            "dynamic": None, "needed": [], "notes": []}


def parse_ours(text):
    r = empty_report(text)
    for line in text.split("\n"):
        m = re.match(r"  \[\s*\d+\] (\S+) +0x(\w+) 0x(\w+) 0x(\w+) 0x(\w+) 0x(\w+) (\S+) 0x(\w+)$", line)
        if m:
            r["segments"].append(segment_row(m.groups()))
            continue
        m = re.match(r"  \[\s*\d+\] (\S+) +0x(\w+) 0x(\w+) 0x(\w+) 0x(\w+) 0x(\w+) (\d+) (\d+) (\d+)(?: (.*))?$", line)
        if m:
            g = m.groups()
            r["sections"].append({"name": g[9] or "", "addr": int(g[1], 16), "offset": int(g[2], 16),
                                  "size": int(g[3], 16), "entsize": int(g[4], 16), "flags": int(g[5], 16),
                                  "link": int(g[6]), "info": int(g[7]), "align": int(g[8])})
            continue
        m = re.match(r"      \[Requesting program interpreter: (.*)\]$", line)
        if m:
            r["interp"].append(m.group(1))
        m = re.match(r"Symbol table '(.*)' contains (\d+) entries$", line)
        if m:
            r["symtabs"].append((m.group(1), int(m.group(2))))
        m = re.match(r"Dynamic section at offset 0x(\w+) contains (\d+) entries:$", line)
        if m:
            r["dynamic"] = (int(m.group(1), 16), int(m.group(2)))
        m = re.match(r"  (Shared library|Library soname|Library rpath|Library runpath): \[(.*)\]$", line)
        if m:
            r["needed"].append((m.group(1), m.group(2)))
        m = re.match(r"Notes in section '(.*)':$", line)
        if m:
            r["notes"].append({"source": ("section", m.group(1)), "rows": []})
        m = re.match(r"Notes at offset 0x(\w+) with length 0x(\w+):$", line)
        if m:
            r["notes"].append({"source": ("segment", int(m.group(1), 16), int(m.group(2), 16)), "rows": []})
        m = re.match(r"  Owner: (.*)  Type: 0x(\w+)  Data size: 0x(\w+)$", line)
        if m:
            r["notes"][-1]["rows"].append([m.group(1), int(m.group(2), 16), int(m.group(3), 16), None])
        m = re.match(r"  Build ID: (\w+)$", line)
        if m:
            r["notes"][-1]["rows"][-1][3] = m.group(1)
    return r


def note_type(description):
    m = re.match(r"Unknown note type: \(0x(\w+)\)", description)
    if m:
        return int(m.group(1), 16)
    return NOTE_TYPES.get(description.split(" ")[0].rstrip(":"), description)


def parse_readelf(text, symbols):
    r = empty_report(text)
    lines = text.split("\n")
    labels = {"NEEDED": "Shared library", "SONAME": "Library soname", "RPATH": "Library rpath",
              "RUNPATH": "Library runpath"}
    in_sections = False
    for i, line in enumerate(lines):
        m = re.match(r"  (\S+)\s+0x(\w+) 0x(\w+) 0x(\w+) 0x(\w+) 0x(\w+) (.{3}) (?:0x)?(\w+)$", line)
        if m:
            r["segments"].append(segment_row(m.groups()))
            continue
        m = re.match(r"      \[Requesting program interpreter: (.*)\]$", line)
        if m:
            r["interp"].append(escape(m.group(1)))
        if line == "Section Headers:":
            in_sections = True
        elif in_sections and not line.startswith(" "):
            in_sections = False
        m = re.match(r"  \[\s*(\d+)\] (.*)$", line) if in_sections else None
        if m and i + 2 < len(lines):
            t = lines[i + 1].split()[-7:]  # a type name may have blanks
            f = re.match(r"\s+\[(\w+)\]", lines[i + 2])
            r["sections"].append({"name": escape(m.group(2)), "addr": int(t[0], 16), "offset": int(t[1], 16),
                                  "size": int(t[2], 16), "entsize": int(t[3], 16), "flags": int(f.group(1), 16),
                                  "link": int(t[4]), "info": int(t[5]), "align": int(t[6])})
        m = re.match(r"Dynamic section at offset 0x(\w+) contains (\d+) entr", line)
        if m:
            r["dynamic"] = (int(m.group(1), 16), int(m.group(2)))
        m = re.match(r" 0x\w+ \((NEEDED|SONAME|RPATH|RUNPATH)\)\s+[^:]*: \[(.*)\]$", line)
        if m:
            r["needed"].append((labels[m.group(1)], escape(m.group(2))))
        m = re.match(r"Displaying notes found in: (.*)$", line)
        if m:
            r["notes"].append({"source": ("section", escape(m.group(1))), "rows": []})
        m = re.match(r"Displaying notes found at file offset 0x(\w+) with length 0x(\w+):$", line)
        if m:
            r["notes"].append({"source": ("segment", int(m.group(1), 16), int(m.group(2), 16)), "rows": []})
        m = re.match(r"  (.*?)\s+0x(\w{8})\t([^\t]*)(.*)$", line)
        if m and r["notes"]:
            build = re.search(r"Build ID: (\w+)", m.group(4))
            r["notes"][-1]["rows"].append([escape(m.group(1)), note_type(m.group(3)), int(m.group(2), 16),
                                           build.group(1) if build else None])
    for m in re.finditer(r"^Symbol table '(.*)' contains (\d+) entr(?:y|ies):$", symbols, re.M):
        r["symtabs"].append((escape(m.group(1)), int(m.group(2))))
    return r


def parse_llvm(text):
    """The numbers readelf shows as names: OS/ABI, type, machine, segment and section types, segment flags."""
    data = list(json.loads(text)[0].values())[0]
    h = data["ElfHeader"]
    return {"OS/ABI": h["Ident"]["OS/ABI"]["RawValue"], "Type": int(re.search(r"\((0x\w+)\)", h["Type"]).group(1), 16),
            "Machine": h["Machine"]["RawValue"],
            "segment_types": [p["ProgramHeader"]["Type"]["RawValue"] for p in data.get("ProgramHeaders", [])],
            "segment_flags": [p["ProgramHeader"]["Flags"]["RawFlags"] for p in data.get("ProgramHeaders", [])],
            "section_types": [s["Section"]["Type"]["RawValue"] for s in data.get("Sections", [])]}


# ---- comparison ----

SEGMENT_TYPES = {"NULL": 0, "LOAD": 1, "DYNAMIC": 2, "INTERP": 3, "NOTE": 4, "SHLIB": 5, "PHDR": 6, "TLS": 7,
                 "GNU_EH_FRAME": 0x6474e550, "GNU_STACK": 0x6474e551, "GNU_RELRO": 0x6474e552,
                 "GNU_PROPERTY": 0x6474e553}
SECTION_TYPES = {"NULL": 0, "PROGBITS": 1, "SYMTAB": 2, "STRTAB": 3, "RELA": 4, "HASH": 5, "DYNAMIC": 6,
                 "NOTE": 7, "NOBITS": 8, "REL": 9, "SHLIB": 10, "DYNSYM": 11, "INIT_ARRAY": 14,
                 "FINI_ARRAY": 15, "PREINIT_ARRAY": 16, "GROUP": 17, "SYMTAB_SHNDX": 18, "RELR": 19,
                 "GNU_ATTRIBUTES": 0x6ffffff5, "GNU_HASH": 0x6ffffff6, "VERDEF": 0x6ffffffd,
                 "VERNEED": 0x6ffffffe, "VERSYM": 0x6fffffff}


def raw_types(text, names, row):
    """The type numbers of the tool's rows (names or 0x%08x)."""
    types = []
    for line in text.split("\n"):
        m = re.match(row, line)
        if m:
            types.append(names[m.group(1)] if m.group(1) in names else int(m.group(1), 16))
    return types


def differences(text, ours, theirs, llvm):
    diff = []
    oh, th = ours["header"], theirs["header"]
    if oh.get("Magic") != th.get("Magic"):
        diff.append("Magic: %r != %r" % (oh.get("Magic"), th.get("Magic")))
    for key in HEADER_FIELDS + ["Version2"]:
        if oh.get(key) != th.get(key):
            diff.append("%s: %r != %r" % (key, oh.get(key), th.get(key)))
    if oh.get("Flags", "").split(",")[0] != th.get("Flags", "").split(",")[0]:
        diff.append("Flags: %r != %r" % (oh.get("Flags"), th.get("Flags")))
    for key in ["OS/ABI", "Type", "Machine"]:
        if number(oh.get(key, "-1").split(" ")[0]) != llvm[key]:
            diff.append("%s: %r, llvm-readobj %#x" % (key, oh.get(key), llvm[key]))
    for kind in ["segments", "sections"]:
        if len(ours[kind]) != len(theirs[kind]):
            diff.append("%s: %d != %d rows" % (kind, len(ours[kind]), len(theirs[kind])))
        else:
            for i, (a, b) in enumerate(zip(ours[kind], theirs[kind])):
                for key in a:
                    if key != "flg" and a[key] != b[key]:
                        diff.append("%s[%d].%s: %r != %r" % (kind, i, key, a[key], b[key]))
    seg = raw_types(text, SEGMENT_TYPES, r"  \[\s*\d+\] (\S+) +0x\w+ 0x\w+ 0x\w+ 0x\w+ 0x\w+ \S+ 0x\w+$")
    if seg != llvm["segment_types"]:
        diff.append("segment types %s != llvm-readobj %s" % (seg, llvm["segment_types"]))
    flags = [("R" if f & 4 else "-") + ("W" if f & 2 else "-") + ("E" if f & 1 else "-") +
             ("+%#x" % (f & ~7) if f & ~7 else "") for f in llvm["segment_flags"]]
    if [s["flg"] for s in ours["segments"]] != flags:
        diff.append("segment flags %s != llvm-readobj %s" % ([s["flg"] for s in ours["segments"]], flags))
    sec = raw_types(text, SECTION_TYPES, r"  \[\s*\d+\] (\S+) +0x\w+ 0x\w+ 0x\w+ 0x\w+ 0x\w+ \d+ \d+ \d+")
    if sec != llvm["section_types"]:
        diff.append("section types differ from llvm-readobj")
    for key in ["interp", "symtabs", "dynamic", "needed"]:
        if ours[key] != theirs[key]:
            diff.append("%s: %s != %s" % (key, ours[key], theirs[key]))
    # readelf decodes the binary owners of GNU build attribute notes
    # ("GA$<version>3p1113" for the bytes "GA$\x013p1113"); those owners are
    # left out on both sides.
    for a, b in zip(ours["notes"], theirs["notes"]):
        for row_a, row_b in zip(a["rows"], b["rows"]):
            if row_b[0][:3] in ("GA$", "GA*", "GA+", "GA!") and row_a[0][:3] == row_b[0][:3]:
                row_a[0] = row_b[0] = "GA"
    if ours["notes"] != theirs["notes"]:
        diff.append("notes: %s != %s" % (ours["notes"], theirs["notes"]))
    return diff


def check(path, args):
    """None when the file is not ELF, else a list of disagreements."""
    with open(path, "rb") as f:
        if f.read(4) != b"\x7fELF":
            return None
    status, report = run(args.runner + [args.vtest_elf, path])
    if status != 0 or not report.startswith("File: "):
        return ["vtest-elf exited %d" % status]
    report = report.split("\n", 1)[1]
    problems = []
    argv0 = path if "/" in path else "./" + path
    self_argv = args.runner + ["-0", argv0, args.vtest, "elf"] if args.runner else [argv0, "elf"]
    status, own = run(self_argv, executable=None if args.runner else args.vtest)
    if status != 0 or own != report:
        problems.append("vtest elf with argv[0] = the file printed another report (status %d)" % status)
    _, readelf = run(["readelf", "-W", "-h", "-l", "-t", "-d", "-n", path])
    _, symbols = run(["readelf", "-W", "-s", path])
    _, llvm = run(["llvm-readobj", "--elf-output-style=JSON", "--file-headers", "--sections", "--program-headers",
                   path])
    try:
        problems += differences(report, parse_ours(report), parse_readelf(readelf, symbols), parse_llvm(llvm))
    except (ValueError, KeyError, IndexError, AttributeError) as e:
        problems.append("could not compare: %r" % e)
    return problems


# ---- the generated files ----

NOTE_C = r"""
/* An 8-aligned note section: GNU owner, type 0x1234, 8 bytes of data. */
struct note { unsigned namesz, descsz, type; char name[4]; unsigned char desc[8]; };
__attribute__((section(".note.vtest"), aligned(8), used))
static const struct note vtest_note = {4, 8, 0x1234, "GNU", {1, 2, 3, 4, 5, 6, 7, 8}};
"""
LIB_C = "int lib_value(int x) { return x * 42; }\n"
MAIN_C = "extern int lib_value(int);\nint counter;\nvoid _start(void) { counter = lib_value(counter); for (;;) {} }\n"


def step(built, skipped, what, argv, cwd):
    """Runs one generating command; records its output file or why it was skipped."""
    try:
        done = subprocess.run(argv, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600)
    except (OSError, subprocess.TimeoutExpired) as e:
        skipped.append("%s: %s" % (what, e))
        return False
    if done.returncode != 0:
        skipped.append("%s: %s" % (what, done.stdout.decode(errors="replace").strip().splitlines()[-1:]))
        return False
    built.append(os.path.join(cwd, what))
    return True


def generate_target(target, out, quick, built, skipped):
    d = os.path.join(out, target)
    os.makedirs(d, exist_ok=True)
    for name, text in [("lib.c", LIB_C), ("main.c", MAIN_C), ("note.c", NOTE_C)]:
        with open(os.path.join(d, name), "w") as f:
            f.write(text)
    cc = ["clang", "--target=" + target, "-ffreestanding", "-nostdlib", "-fPIC", "-O1"]
    step(built, skipped, "main.o", cc + ["-c", "main.c", "-o", "main.o"], d)
    step(built, skipped, "note.o", cc + ["-c", "note.c", "-o", "note.o"], d)
    if quick:
        return
    ld = cc + ["-fuse-ld=lld"]
    step(built, skipped, "libvt.so", ld + ["-shared", "-Wl,-soname,libvt.so", "lib.c", "-o", "libvt.so"], d)
    step(built, skipped, "static", ld + ["-static", "main.c", "lib.c", "note.c", "-o", "static"], d)
    if step(built, skipped, "dynamic", ld + ["main.c", "note.c", "-L.", "-lvt", "-Wl,-rpath,/opt/vt",
                                             "-Wl,--dynamic-linker,/lib/ld-vt.so.1", "-o", "dynamic"], d):
        step(built, skipped, "rpath", ld + ["main.c", "-L.", "-lvt", "-Wl,-rpath,/opt/vt", "-Wl,--disable-new-dtags",
                                            "-o", "rpath"], d)
        step(built, skipped, "stripped", ["llvm-strip", "-o", "stripped", "dynamic"], d)
        step(built, skipped, "sectionless", ["llvm-objcopy", "--strip-sections", "dynamic", "sectionless"], d)


def many_sections(out, built, skipped):
    """A -ffunction-sections object with 70,010 sections (extended numbering)."""
    d = os.path.join(out, "sections")
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, "many.c"), "w") as f:
        for i in range(69990):
            f.write("int f%d(void) { return %d; }\n" % (i, i))
    step(built, skipped, "many.o", ["gcc", "-O0", "-ffunction-sections", "-fno-asynchronous-unwind-tables", "-c",
                                    "many.c", "-o", "many.o"], d)


def core_dumps(out, built, skipped):
    d = os.path.join(out, "cores")
    os.makedirs(d, exist_ok=True)
    sleeper = subprocess.Popen(["sleep", "60"])
    step(built, skipped, "gcore.%d" % sleeper.pid, ["gcore", "-o", "gcore", str(sleeper.pid)], d)
    sleeper.kill()
    sleeper.wait()
    pattern = open("/proc/sys/kernel/core_pattern").read().strip()
    if pattern.startswith("|") or "/" in pattern or "%" in pattern.replace("%p", ""):
        skipped.append("kernel core: core_pattern is %r, not a plain file name (containers often pipe it)" % pattern)
        return
    child = subprocess.Popen(["sh", "-c", "ulimit -c unlimited && exec sleep 60"], cwd=d)
    time.sleep(0.2)
    child.send_signal(signal.SIGSEGV)
    child.wait()
    cores = [n for n in os.listdir(d) if n.startswith(pattern.replace("%p", "")) and not n.startswith("gcore")]
    if cores:
        built.append(os.path.join(d, cores[0]))
    else:
        skipped.append("kernel core: none written (core_pattern %r)" % pattern)


def generate(out, quick):
    built, skipped = [], []
    for target in (QUICK_TARGETS if quick else TARGETS):
        generate_target(target, out, quick, built, skipped)
    if not quick:
        d = os.path.join(out, "m32")
        os.makedirs(d, exist_ok=True)
        with open(os.path.join(d, "m32.c"), "w") as f:
            f.write(LIB_C)
        step(built, skipped, "m32.o", ["gcc", "-m32", "-c", "m32.c", "-o", "m32.o"], d)
        many_sections(out, built, skipped)
        core_dumps(out, built, skipped)
    return built, skipped


def system_files():
    for top in ["/usr/lib/x86_64-linux-gnu", "/usr/bin"]:
        for root, _, names in os.walk(top):
            for name in sorted(names):
                path = os.path.join(root, name)
                if not os.path.islink(path) and os.path.isfile(path):
                    yield path


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--vtest-elf", required=True)
    p.add_argument("--vtest", required=True)
    p.add_argument("--runner", default="", help="command that runs the programs (an emulator)")
    p.add_argument("--system", action="store_true")
    p.add_argument("--generate", metavar="DIR")
    p.add_argument("--quick", action="store_true")
    p.add_argument("files", nargs="*")
    args = p.parse_args()
    args.runner = args.runner.split()
    tools = ["readelf", "llvm-readobj"] + (["clang"] if args.generate else [])
    missing = [t for t in tools if not shutil.which(t)]
    if missing:
        print("elf-compare: skipped: %s not installed" % ", ".join(missing))
        return 77
    files = list(args.files)
    skipped = []
    if args.generate:
        built, skipped = generate(args.generate, args.quick)
        files += built
    if args.system:
        files += list(system_files())
    start = time.time()
    counts = {"files": len(files), "elf": 0, "agree": 0, "disagree": 0, "not elf": 0}
    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        for path, problems in zip(files, pool.map(lambda f: check(f, args), files)):
            if problems is None:
                counts["not elf"] += 1
                continue
            counts["elf"] += 1
            counts["disagree" if problems else "agree"] += 1
            for problem in problems[:5]:
                print("%s: %s" % (path, problem[:400]))
    for why in skipped:
        print("not generated: %s" % why)
    print("elf-compare: %d files, %d ELF: %d agree, %d disagree; %d not ELF; %d not generated; %.0f s" %
          (counts["files"], counts["elf"], counts["agree"], counts["disagree"], counts["not elf"], len(skipped),
           time.time() - start))
    return 1 if counts["disagree"] else 0


if __name__ == "__main__":
    sys.exit(main())
