// Reads an ELF file (32 or 64 bits, either byte order, any machine) through
// one read-only mapping and prints its header, program headers, sections,
// symbol table sizes, dynamic libraries and notes. However damaged the file,
// nothing is read outside it: every offset, count and size is checked first,
// and no table is copied or sized from a count in the file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include "ListedObj.hpp"

struct ElfHeader {
    unsigned char ident[16];
    uint16_t type, machine;
    uint32_t version;
    uint64_t entry, phoff, shoff;
    uint32_t flags;
    uint16_t ehsize, phentsize, phnum, shentsize, shnum, shstrndx;
};

struct ElfSegment {
    uint32_t type, flags;
    uint64_t offset, vaddr, paddr, filesz, memsz, align;
};

struct ElfSection {
    uint32_t name, type;
    uint64_t flags, addr, offset, size;
    uint32_t link, info;
    uint64_t addralign, entsize;
};

struct ElfNote {
    uint64_t offset;         // of its header, in the file
    std::string_view owner;  // the name up to its first NUL
    uint32_t type;
    std::string_view desc;
};

// Strings from a file print at most this many bytes, then "[...]". The
// accessors hand out longer strings cut at kElfStringMax + 1 bytes, so a
// name is never searched for its end further than that.
constexpr size_t kElfStringMax = 1024;

// Bytes 0x21-0x7e as they are, "\" as "\\", every other byte as "\xNN";
// at most kElfStringMax bytes, then "[...]". So a string from a file prints
// as one word of ASCII.
std::string elf_escape(std::string_view bytes);

class Elf : public ListedObj<Elf> {
public:
    Elf();
    ~Elf() override;
    Elf(const Elf&) = delete;
    Elf& operator=(const Elf&) = delete;

    // Maps the file read-only; a file opened before is let go first. Never
    // opens anything but a regular file. False, with one warning logged and
    // OpenError() set, when the file cannot be opened or mapped, is empty,
    // lacks the magic, has a class or byte order other than 1 or 2, or is
    // shorter than its header; any other file opens, however damaged.
    // A file that shrinks while mapped ends the process with SIGBUS.
    bool Open(const char* path);
    // Why the last Open failed: a reason or the system call's error text;
    // empty while a file is open.
    const std::string& OpenError() const { return m_error; }
    bool IsOpen() const { return m_data != nullptr; }

    // The report of the open file (nothing when none is); every string from
    // the file escaped, blocks separated by an empty line.
    void PrintAll(FILE* out = stdout) const;

    // Everything below describes the open file; call only while IsOpen().
    bool Is64() const { return m_is64; }
    bool BigEndian() const { return m_big; }
    uint64_t FileSize() const { return m_size; }
    const ElfHeader& Header() const { return m_header; }

    // Counts and the name table's index with extended numbering applied
    // (e_shnum 0, e_phnum 0xffff, e_shstrndx 0xffff defer to section 0).
    uint64_t SegmentCount() const { return m_segmentCount; }
    uint64_t SectionCount() const { return m_sectionCount; }
    uint64_t NameTableIndex() const { return m_nameIndex; }
    // Empty when the table's rows can be read, else why not (wrong entry
    // size, rows outside the file). Always empty for a count of 0.
    const std::string& SegmentTableDamage() const { return m_segmentDamage; }
    const std::string& SectionTableDamage() const { return m_sectionDamage; }
    // Row i: only for i below the count of a table without damage.
    ElfSegment Segment(uint64_t i) const;
    ElfSection Section(uint64_t i) const;

    enum class Name { kOk, kNoStrings, kCorrupt };
    // kNoStrings: the name table is unusable (index 0 or out of range,
    // NOBITS, outside the file); kCorrupt: sh_name is past its end or no NUL
    // follows inside it. `name` is set only for kOk.
    Name SectionName(const ElfSection& section, std::string_view& name) const;

    // A PT_INTERP segment's path: its bytes up to the first NUL, or all of
    // them. False when the segment is not inside the file.
    bool Interpreter(const ElfSegment& segment, std::string_view& path) const;
    // Entries of a SYMTAB or DYNSYM section (size / entry size), or false
    // and `damage` (wrong entry size, outside the file).
    bool SymbolCount(const ElfSection& section, uint64_t& count, std::string& damage) const;

    // The dynamic array: the first PT_DYNAMIC segment, else the first
    // DYNAMIC section. False when there is none. Its `count` ends at and
    // includes the first DT_NULL, within the file; `damage` tells when the
    // array runs past the file's end or has the wrong entry size.
    struct Dynamic {
        uint64_t offset = 0, count = 0;
        std::string damage;
        // Its string table (DT_STRTAB, DT_STRSZ) when `strings` is set;
        // `stringsEnd` is one past the table's last NUL (0: none).
        bool strings = false;
        uint64_t stringsOffset = 0, stringsEnd = 0;
    };
    bool DynamicArray(Dynamic& dynamic) const;
    // Entry i (below Dynamic::count) as tag and value.
    void DynamicEntry(const Dynamic& dynamic, uint64_t i, int64_t& tag, uint64_t& value) const;
    // The string at `index` in the DT_STRTAB table (found through the LOAD
    // segments, bounded by DT_STRSZ); false when it cannot be read.
    bool DynamicString(const Dynamic& dynamic, uint64_t index, std::string_view& text) const;

    // Where the notes are read from, in order: for a core file with program
    // headers its PT_NOTE segments; otherwise the NOTE sections, else the
    // PT_NOTE segments. `section` is the section's index, or -1 for a segment.
    struct NoteSource {
        int64_t section;
        uint64_t offset, size, align;
    };
    void NoteSources(const std::function<void(const NoteSource&)>& each) const;
    // Calls `each` per note of a source. Returns empty, or why the notes end
    // early: an alignment other than 0-4 or 8 (then no note is read), a note
    // that runs past the source's end, a source outside the file.
    std::string Notes(const NoteSource& source, const std::function<void(const ElfNote&)>& each) const;

private:
    class Out;
    void Close();
    // Maps `size` bytes of fd: 0 or an errno.
    int Map(int fd, uint64_t size);
    // Why the mapped bytes cannot be read as ELF, or empty.
    std::string IdentFault() const;
    // Logs the failure of Open (err: a system call's errno, else `reason`).
    bool Fail(const char* path, int err, const std::string& reason);
    void ReadHeader();
    void ReadTables();
    void FindDynamicStrings(Dynamic& dynamic) const;
    bool FileOffset(uint64_t vaddr, uint64_t& offset) const;
    // Empty when `count` rows of `entsize` bytes at `offset` can be read.
    std::string TableDamage(uint64_t offset, uint64_t count, uint64_t entsize, uint64_t expected) const;
    // Empty when `size` bytes at `offset` lie inside the file.
    std::string ExtentDamage(uint64_t offset, uint64_t size) const;
    // One past the last NUL of the table (0: it has none).
    uint64_t StringsEnd(uint64_t offset, uint64_t size) const;
    // The string at `index` of a table whose strings end before `end`.
    bool StringAt(uint64_t tableOffset, uint64_t end, uint64_t index, std::string_view& text) const;

    uint16_t U16(uint64_t at) const;
    uint32_t U32(uint64_t at) const;
    uint64_t U64(uint64_t at) const;
    // A 4-byte field in ELF32, an 8-byte one in ELF64.
    uint64_t Word(uint64_t at) const { return m_is64 ? U64(at) : U32(at); }
    bool Inside(uint64_t offset, uint64_t size) const { return offset <= m_size && size <= m_size - offset; }

    void PrintHeader(Out& out) const;
    void PrintSegments(Out& out) const;
    void PrintSections(Out& out) const;
    void PrintSymbolTables(Out& out) const;
    void PrintDynamic(Out& out) const;
    void PrintNotes(Out& out) const;
    // The section's name escaped, or "<no-strings>" or "<corrupt>".
    const char* NameText(const ElfSection& section, char* buffer) const;

    const unsigned char* m_data = nullptr;
    uint64_t m_size = 0;
    bool m_swap = false;  // the file's byte order is not the host's
    std::string m_error;
    bool m_is64 = false, m_big = false;
    ElfHeader m_header = {};
    bool m_haveSection0 = false;  // section 0 readable: extended numbering applies
    uint64_t m_segmentCount = 0, m_sectionCount = 0, m_nameIndex = 0;
    std::string m_segmentDamage, m_sectionDamage;
    // The section name table when usable; m_namesEnd is one past its last
    // NUL, so whether a name ends inside it is known without a scan.
    bool m_namesUsable = false;
    uint64_t m_namesOffset = 0, m_namesEnd = 0;
};
