#!/usr/bin/env python3
"""Generates the vtest(1) man page and the bash completion from the sources
that define the command line, so neither can drift from the tool:

  vtest/main.cpp     the dispatch table: every command word
  vtest/*.cpp        the handlers: one that only calls command_unavailable()
                     is a placeholder, and the man page and the package
                     description say so (nothing to update when it lands)
  vtest/usage.cpp    the usage text: synopsis and one-line description
  docs/commands.md   the command reference: one "## " section per command
  docs/man/vtest.1.md  the man page's own sections (@USAGE@, @COMMANDS@,
                     @AVAILABILITY@, @STATUSES@: the command reference's
                     "### Exit statuses", which ends its intro)

With --package-description it prints the package's description instead.

Markdown is read in the subset the docs use: headings, paragraphs, "- "
lists, "|" tables, four-space code blocks, `code`, *emphasis*, **strong**.
Exits 1 with a message when a source is not in the expected shape.
"""
import argparse
import glob
import re
import sys
import textwrap


def fail(message):
    sys.exit("gen-cli-docs: " + message)


def c_string_literals(text):
    """The C string literals of `text`, adjacent ones joined, unescaped."""
    escapes = {"n": "\n", "t": "\t", '"': '"', "\\": "\\"}
    entries, current, joined = [], None, False
    for m in re.finditer(r'"((?:[^"\\]|\\.)*)"|(,)|(\S)', text):
        if m.group(1) is not None:
            value = re.sub(r"\\(.)", lambda e: escapes.get(e.group(1), e.group(1)), m.group(1))
            current = (current or "") + value if joined else value
            joined = True
            continue
        if current is not None:
            entries.append(current)
        current, joined = None, False
    if current is not None:
        entries.append(current)
    return entries


def read_table(path, name):
    """The text between the braces of the C array `name` in `path`."""
    source = open(path, encoding="utf-8").read()
    m = re.search(name + r"\[\]\s*=\s*\{(.*?)\};", source, re.S)
    if not m:
        fail(f"{path}: no {name} table")
    return m.group(1)


def read_usage(path):
    """[(word, synopsis after the program name, description)] in usage order."""
    usage = []
    for entry in c_string_literals(read_table(path, "kEntries")):
        parts = re.fullmatch(r"%s ?(.*)\n\t(.*)\n", entry)
        if not parts:
            fail(f"{path}: usage entry not '%s ...\\n\\t...\\n': {entry!r}")
        synopsis = parts.group(1)
        word = synopsis.split(" ")[0] if synopsis and not synopsis.startswith("[") else ""
        usage.append((word, synopsis, parts.group(2)))
    return usage


def read_command_words(path):
    return re.findall(r'\{\s*"([^"]+)"\s*,', read_table(path, "kCommands"))


def placeholder_words(src):
    """Command words whose handler only reports that it is not built."""
    handlers = dict(re.findall(r'\{\s*"([^"]+)"\s*,\s*(\w+)\s*\}', read_table(f"{src}/vtest/main.cpp", "kCommands")))
    bodies = {}
    for path in sorted(glob.glob(f"{src}/vtest/*.cpp")):
        text = open(path, encoding="utf-8").read()
        for m in re.finditer(r"^int (\w+)\(int argc, char\*\* argv\)\n\{\n(.*?)^\}", text, re.S | re.M):
            bodies[m.group(1)] = m.group(2)
    return [w for w, h in handlers.items() if "command_unavailable(" in bodies.get(h, "")]


def availability(words, placeholders):
    """One sentence: which commands this build has, and which not yet."""
    built = [w for w in words if w not in placeholders]
    text = "Commands in this build: " + ", ".join(built) + ", and the self-test."
    if placeholders:
        text += (" Not in this build yet (each says so on standard error and exits 1): "
                 + ", ".join(placeholders) + ".")
    return text


def read_sections(path):
    """The command reference's intro and its "## " sections: [(title, lines)]."""
    intro, sections = [], []
    for line in open(path, encoding="utf-8").read().splitlines():
        if line.startswith("## "):
            sections.append((line[3:].strip(), []))
        elif sections:
            sections[-1][1].append(line)
        elif not line.startswith("# "):
            intro.append(line)
    return intro, sections


def section_words(title):
    """Command words a section heading names: "sql, sql_file" -> [sql, sql_file]."""
    tokens = re.split(r"[\s,]+", title.split("(")[0])
    return [t for t in tokens if re.fullmatch(r"[a-z][a-z0-9_-]*", t)]


# ---- roff output

def roff_inline(text):
    text = text.replace("\\", "\\e")
    out, pos = [], 0
    for m in re.finditer(r"`([^`]+)`|\*\*([^*]+)\*\*|\*([^*]+)\*", text):
        out.append(text[pos:m.start()])
        if m.group(1) is not None:
            # \% keeps roff from hyphenating names and paths.
            out.append("\\fB\\%" + m.group(1).replace(" ", " \\%") + "\\fR")
        elif m.group(2) is not None:
            out.append("\\fB" + m.group(2) + "\\fR")
        else:
            out.append("\\fI" + m.group(3) + "\\fR")
        pos = m.end()
    out.append(text[pos:])
    return "".join(out).replace("-", "\\-")


def roff_line(text):
    """A text line that roff will not take for a request."""
    return "\\&" + text if text[:1] in (".", "'") else text


def roff_blocks(lines):
    """Markdown lines (no headings above "###") to roff lines."""
    out, para, mode = [], [], None

    def flush():
        nonlocal para
        if para:
            out.append(roff_line(roff_inline(" ".join(para))))
        para = []

    for line in lines + [""]:
        code = line.startswith("    ")
        if mode == "code" and not code:
            out += [".fi", ".RE"]
            mode = None
        if code:
            flush()
            if mode != "code":
                out += [".PP", ".RS 4", ".nf"]
                mode = "code"
            out.append(roff_line(line[4:].replace("\\", "\\e").replace("-", "\\-")))
        elif not line.strip():
            flush()
            mode = None
        elif line.startswith("### "):
            flush()
            out += [".TP", "\\fB" + roff_inline(line[4:].strip()) + "\\fR"]
            mode = None
        elif line.startswith("- "):
            flush()
            out += [".IP \\(bu 2"]
            para = [line[2:].strip()]
            mode = "list"
        elif line.startswith("|"):
            flush()
            cells = [c.strip() for c in line.strip().strip("|").split("|")]
            if all(re.fullmatch(r":?-+:?", c) for c in cells):
                continue
            if mode != "table":
                out.append(".PP")
                mode = "table"
            out += [roff_line(roff_inline(" \u2014 ".join(cells))), ".br"]
        else:
            if mode is None:
                out.append(".PP")
                mode = "para"
            para.append(line.strip())
    flush()
    return out


def synopsis_roff(usage, template):
    lines = [".nf"]
    for _, rest, _ in usage + extra_synopses(template):
        lines.append(roff_line("\\fBvtest\\fR " + roff_inline(rest)).rstrip())
    return lines + [".fi"]


STATUSES_HEADING = "### Exit statuses"


def split_statuses(intro):
    """The intro before its exit statuses subsection, and that subsection's lines."""
    if STATUSES_HEADING not in intro:
        fail("docs/commands.md has no " + STATUSES_HEADING)
    at = intro.index(STATUSES_HEADING)
    return intro[:at], intro[at + 1:]


def statuses_roff(lines):
    """The statuses subsection with its table as one tagged paragraph per
    status: the table's columns are commands, and most cells are empty."""
    text = [l for l in lines if not l.startswith("|")]
    rows = [[c.strip() for c in l.strip().strip("|").split("|")] for l in lines if l.startswith("|")]
    out = roff_blocks(text)
    header = rows[0][1:]
    for row in rows[2:]:
        said = ["%s: %s" % (name, cell) for name, cell in zip(header, row[1:]) if cell]
        if not any(row[1:-1]):  # the last column's cells name their commands themselves
            said = [row[-1]]
        out += [".TP", "\\fB%s\\fR" % roff_inline(row[0]), roff_line(roff_inline("; ".join(said) + "."))]
    return out


def commands_roff(usage, intro, sections):
    out = roff_blocks(intro)
    described = {word: text for word, _, text in usage}
    for title, lines in sections:
        out.append(".SS " + roff_inline(title))
        if any(line.strip() for line in lines):
            out += roff_blocks(lines)
            continue
        # A section not written yet says what the usage text says; one that
        # names no command word is the run without one.
        said = [described[w] for w in section_words(title) or [""] if w in described]
        out += [".PP", roff_inline(" ".join(dict.fromkeys(said)) or "Not described yet.")]
    return out


def man_page(template, usage, intro, sections, version, available):
    """The template's sections in roff, with @USAGE@, @COMMANDS@,
    @AVAILABILITY@ and @STATUSES@ filled in."""
    rules, statuses = split_statuses(intro)
    fills = {"@USAGE@": synopsis_roff(usage, template), "@COMMANDS@": commands_roff(usage, rules, sections),
             "@AVAILABILITY@": [".PP", roff_line(roff_inline(available))], "@STATUSES@": statuses_roff(statuses)}
    out, pending = ['.TH VTEST 1 "" "vtest %s" "User Commands"' % version], []
    for line in template.splitlines() + ["# "]:
        if line.startswith("# ") or line.strip() in fills:
            out += roff_blocks(pending)
            pending = []
            out += fills.get(line.strip(), [".SH " + line[2:].strip().upper()] if line[2:].strip() else [])
        elif not extra_synopses(line):
            pending.append(line)
    # A paragraph break right after a heading is redundant (and NAME must
    # stay the plain line "vtest \- summary" for whatis).
    kept = [l for i, l in enumerate(out) if not (l == ".PP" and out[i - 1].startswith((".SH", ".SS")))]
    # roff input is ASCII: other characters as \[uXXXX] escapes.
    return re.sub(r"[^\x00-\x7f]", lambda m: "\\[u%04X]" % ord(m.group()), "\n".join(kept) + "\n")


# ---- bash completion

def completion_words(synopsis):
    """Options (with their "=") and literal keywords of one synopsis."""
    bare = re.sub(r"<[^>]*>", " ", synopsis)
    options = re.findall(r"(?<![\w-])--?[a-z][a-z-]*=?", bare)
    keywords = [w for w in re.findall(r"(?<![\w=-])[a-z][a-z_]*(?![\w-])", bare)]
    return list(dict.fromkeys(options)), list(dict.fromkeys(keywords))


def completion(words, usage, extra):
    cases = []
    for word, rest, _ in usage + extra:
        if not word:
            continue
        options, keywords = completion_words(rest[len(word):])
        cases.append(f'        {word}) options="{" ".join(options)}" keywords="{" ".join(keywords)}" ;;')
    first = " ".join(words + ["--server="])
    return f"""# bash completion for vtest(1); generated from its usage text by
# scripts/gen-cli-docs.py. Completes command words, then each command's
# options and keywords; anything else falls back to file names.
_vtest()
{{
    local cur=${{COMP_WORDS[COMP_CWORD]}} options="" keywords=""
    if [ "$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=($(compgen -W "{first}" -- "$cur"))
    else
        case ${{COMP_WORDS[1]}} in
{chr(10).join(cases)}
        esac
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "$options" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$keywords" -- "$cur"))
        fi
    fi
    # An option that takes its value after "=" goes on without a space.
    if [[ ${{#COMPREPLY[@]}} -eq 1 && ${{COMPREPLY[0]}} == *= ]]; then
        compopt -o nospace 2>/dev/null
    fi
}}
complete -o default -F _vtest vtest
"""


def extra_synopses(template):
    """Synopsis lines the usage text deliberately lacks ("    vtest ...")."""
    extra = []
    for line in template.splitlines():
        m = re.fullmatch(r"    vtest (\S+)(.*)", line)
        if m:
            extra.append((m.group(1), m.group(1) + m.group(2), ""))
    return extra


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--source", required=True, help="top of the source tree")
    ap.add_argument("--version", required=True)
    ap.add_argument("--man", help="man page to write")
    ap.add_argument("--completion", help="bash completion to write")
    ap.add_argument("--package-description", action="store_true", help="print the package's description")
    args = ap.parse_args()
    src = args.source
    words = read_command_words(f"{src}/vtest/main.cpp")
    available = availability(words, placeholder_words(src))
    if args.package_description:
        print(textwrap.fill("Runs SQL against a vantor unit's database and watches its tables, among other "
                            "diagnostic and maintenance commands. " + available, 72))
        return
    if not args.man or not args.completion:
        fail("--man and --completion are needed")
    usage = read_usage(f"{src}/vtest/usage.cpp")
    intro, sections = read_sections(f"{src}/docs/commands.md")
    template = open(f"{src}/docs/man/vtest.1.md", encoding="utf-8").read()
    extra = extra_synopses(template)

    covered = {w for title, _ in sections for w in section_words(title)}
    missing = [w for w in words if w not in covered]
    if missing:
        fail("docs/commands.md has no section for: " + ", ".join(missing))
    unknown = [u[0] for u in usage + extra if u[0] and u[0] not in words]
    if unknown:
        fail("synopsis for a word the dispatch does not know: " + ", ".join(unknown))

    with open(args.man, "w", encoding="utf-8") as f:
        f.write(man_page(template, usage, intro, sections, args.version, available))
    with open(args.completion, "w", encoding="utf-8") as f:
        f.write(completion(words, usage, extra))


if __name__ == "__main__":
    main()
