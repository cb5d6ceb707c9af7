#include "Elf.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstring>

#include "debugger.h"
#include "regular_file.h"
#include "utils.h"

namespace {

const uint16_t kTypeCore = 4;
const uint32_t kSegmentLoad = 1, kSegmentDynamic = 2, kSegmentInterp = 3, kSegmentNote = 4;
const uint32_t kSectionSymtab = 2, kSectionDynamic = 6, kSectionNote = 7, kSectionNobits = 8, kSectionDynsym = 11;
const int64_t kDynNull = 0, kDynNeeded = 1, kDynStrtab = 5, kDynStrsz = 10, kDynSoname = 14, kDynRpath = 15,
              kDynRunpath = 29;
const uint16_t kExtendedPhnum = 0xffff, kExtendedShstrndx = 0xffff;
const uint32_t kNoteGnuBuildId = 3;
const uint64_t kNoteHeaderSize = 12;
// An escaped string: four characters per byte at most, then "[...]".
const size_t kEscapedMax = 4 * kElfStringMax + 6;

struct Named {
    uint32_t value;
    const char* name;
};

const Named kOsAbis[] = {{0, "SYSV"},    {1, "HPUX"},     {2, "NETBSD"},     {3, "GNU"},
                         {6, "SOLARIS"}, {7, "AIX"},      {8, "IRIX"},       {9, "FREEBSD"},
                         {10, "TRU64"},  {11, "MODESTO"}, {12, "OPENBSD"},   {64, "ARM_AEABI"},
                         {97, "ARM"},    {255, "STANDALONE"}};
const Named kFileTypes[] = {{0, "NONE"}, {1, "REL"}, {2, "EXEC"}, {3, "DYN"}, {4, "CORE"}};
const Named kMachines[] = {{0, "NONE"},      {2, "SPARC"},      {3, "386"},      {4, "68K"},
                           {8, "MIPS"},      {10, "MIPS_RS3_LE"}, {15, "PARISC"}, {18, "SPARC32PLUS"},
                           {20, "PPC"},      {21, "PPC64"},     {22, "S390"},    {40, "ARM"},
                           {42, "SH"},       {43, "SPARCV9"},   {50, "IA_64"},   {62, "X86_64"},
                           {83, "AVR"},      {94, "XTENSA"},    {164, "HEXAGON"}, {183, "AARCH64"},
                           {243, "RISCV"},   {247, "BPF"},      {252, "CSKY"},   {258, "LOONGARCH"},
                           {0x9026, "ALPHA"}};
const Named kSegmentTypes[] = {{0, "NULL"},    {1, "LOAD"},  {2, "DYNAMIC"},           {3, "INTERP"},
                               {4, "NOTE"},    {5, "SHLIB"}, {6, "PHDR"},              {7, "TLS"},
                               {0x6474e550, "GNU_EH_FRAME"}, {0x6474e551, "GNU_STACK"}, {0x6474e552, "GNU_RELRO"},
                               {0x6474e553, "GNU_PROPERTY"}};
const Named kSectionTypes[] = {{0, "NULL"},          {1, "PROGBITS"},      {2, "SYMTAB"},
                               {3, "STRTAB"},        {4, "RELA"},          {5, "HASH"},
                               {6, "DYNAMIC"},       {7, "NOTE"},          {8, "NOBITS"},
                               {9, "REL"},           {10, "SHLIB"},        {11, "DYNSYM"},
                               {14, "INIT_ARRAY"},   {15, "FINI_ARRAY"},   {16, "PREINIT_ARRAY"},
                               {17, "GROUP"},        {18, "SYMTAB_SHNDX"}, {19, "RELR"},
                               {0x6ffffff5, "GNU_ATTRIBUTES"}, {0x6ffffff6, "GNU_HASH"},
                               {0x6ffffffd, "VERDEF"}, {0x6ffffffe, "VERNEED"}, {0x6fffffff, "VERSYM"}};

template <size_t N>
const char* NameOf(const Named (&table)[N], uint32_t value)
{
    for (const Named& entry : table)
        if (entry.value == value) return entry.name;
    return nullptr;
}

// A type's name from the table, else "0x%08x" in `buffer`.
template <size_t N>
const char* TypeText(const Named (&table)[N], uint32_t value, char (&buffer)[16])
{
    const char* name = NameOf(table, value);
    if (name) return name;
    snprintf(buffer, sizeof buffer, "0x%08" PRIx32, value);
    return buffer;
}

// "0x3e (X86_64)", or the bare number for a value without a name.
template <size_t N>
const char* CodeText(const Named (&table)[N], uint32_t value, char (&buffer)[32])
{
    const char* name = NameOf(table, value);
    snprintf(buffer, sizeof buffer, name ? "0x%" PRIx32 " (%s)" : "0x%" PRIx32, value, name);
    return buffer;
}

uint64_t AlignUp(uint64_t value, uint64_t align) { return (value + align - 1) / align * align; }

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...)
{
    char text[160];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

// Writes the escaped bytes and a NUL into `out` (kEscapedMax bytes); returns out.
char* EscapeInto(std::string_view bytes, char* out)
{
    static const char kHex[] = "0123456789abcdef";
    char* at = out;
    size_t n = bytes.size() < kElfStringMax ? bytes.size() : kElfStringMax;
    for (size_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(bytes[i]);
        if (c == '\\') {
            *at++ = '\\';
            *at++ = '\\';
        } else if (c >= 0x21 && c <= 0x7e) {
            *at++ = static_cast<char>(c);
        } else {
            *at++ = '\\';
            *at++ = 'x';
            *at++ = kHex[c >> 4];
            *at++ = kHex[c & 15];
        }
    }
    if (bytes.size() > kElfStringMax) at = stpcpy(at, "[...]");
    *at = '\0';
    return out;
}

// ", Version5 EABI, hard-float ABI" for the ARM units; nothing elsewhere.
std::string FlagsText(uint16_t machine, uint32_t flags)
{
    const uint16_t kArm = 40;
    if (machine != kArm) return "";
    std::string text;
    if (flags >> 24) text += Format(", Version%" PRIu32 " EABI", flags >> 24);
    if (flags & 0x400) text += ", hard-float ABI";
    if (flags & 0x200) text += ", soft-float ABI";
    return text;
}

}  // namespace

std::string elf_escape(std::string_view bytes)
{
    char text[kEscapedMax];
    return EscapeInto(bytes, text);
}

// The report's output: one line at a time through a fixed buffer, the stream
// locked once for the whole report, and an empty line before a block that
// prints anything.
class Elf::Out {
public:
    explicit Out(FILE* file) : m_file(file) { flockfile(file); }
    ~Out() { funlockfile(m_file); }
    Out(const Out&) = delete;
    Out& operator=(const Out&) = delete;

    void NextBlock() { m_gap = true; }
    void Line(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        if (m_gap) fputc_unlocked('\n', m_file);
        m_gap = false;
        va_list args;
        va_start(args, format);
        int n = vsnprintf(m_line, sizeof m_line, format, args);
        va_end(args);
        if (n > 0) fwrite_unlocked(m_line, 1, static_cast<size_t>(n) < sizeof m_line ? n : sizeof m_line - 1, m_file);
    }

private:
    FILE* m_file;
    bool m_gap = false;
    char m_line[3 * kEscapedMax];
};

Elf::Elf() { safe_mem_object(__FILE__, __LINE__, "Elf", this); }

Elf::~Elf()
{
    Close();
    safe_mem_object(__FILE__, __LINE__, "~Elf", this);
}

void Elf::Close()
{
    if (m_data) munmap(const_cast<unsigned char*>(m_data), static_cast<size_t>(m_size));
    m_data = nullptr;
    m_size = 0;
}

bool Elf::Fail(const char* path, int err, const std::string& reason)
{
    if (err) {
        syslog_safe(4, "<Elf> Unable to open %s (%d).", elf_escape(path).c_str(), err);
        m_error = strerror(err);
    } else {
        syslog_safe(4, "<Elf> Unable to read %s: %s.", elf_escape(path).c_str(), reason.c_str());
        m_error = reason;
    }
    return false;
}

bool Elf::Open(const char* path)
{
    Close();
    struct stat st;
    int fd = regular_file_open(path, &st);
    if (fd == -EISDIR || fd == -EINVAL) return Fail(path, 0, "not a regular file");
    if (fd < 0) return Fail(path, -fd, "");
    int err = st.st_size == 0 ? 0 : Map(fd, static_cast<uint64_t>(st.st_size));
    close(fd);
    if (st.st_size == 0) return Fail(path, 0, "empty");
    if (err) return Fail(path, err, "");
    std::string fault = IdentFault();
    if (!fault.empty()) {
        Close();
        return Fail(path, 0, fault);
    }
    m_error.clear();
    ReadHeader();
    ReadTables();
    return true;
}

int Elf::Map(int fd, uint64_t size)
{
    if (size > SIZE_MAX) return EFBIG;
    void* map = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, fd, 0);
    if (map == MAP_FAILED) return errno;
    m_data = static_cast<const unsigned char*>(map);
    m_size = size;
    return 0;
}

std::string Elf::IdentFault() const
{
    if (m_size < 4 || memcmp(m_data, "\177ELF", 4) != 0) return "not ELF";
    if (m_size < 6) return "shorter than its header";
    if (m_data[4] != 1 && m_data[4] != 2) return Format("bad class %u", m_data[4]);
    if (m_data[5] != 1 && m_data[5] != 2) return Format("bad byte order %u", m_data[5]);
    if (m_size < (m_data[4] == 2 ? 64u : 52u)) return "shorter than its header";
    return "";
}

uint16_t Elf::U16(uint64_t at) const
{
    uint16_t v;
    memcpy(&v, m_data + at, sizeof v);
    return m_swap ? __builtin_bswap16(v) : v;
}

uint32_t Elf::U32(uint64_t at) const
{
    uint32_t v;
    memcpy(&v, m_data + at, sizeof v);
    return m_swap ? __builtin_bswap32(v) : v;
}

uint64_t Elf::U64(uint64_t at) const
{
    uint64_t v;
    memcpy(&v, m_data + at, sizeof v);
    return m_swap ? __builtin_bswap64(v) : v;
}

void Elf::ReadHeader()
{
    m_is64 = m_data[4] == 2;
    m_big = m_data[5] == 2;
    m_swap = m_big != (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__);
    ElfHeader& h = m_header;
    memcpy(h.ident, m_data, sizeof h.ident);
    h.type = U16(16);
    h.machine = U16(18);
    h.version = U32(20);
    uint64_t w = m_is64 ? 8 : 4;
    h.entry = Word(24);
    h.phoff = Word(24 + w);
    h.shoff = Word(24 + 2 * w);
    uint64_t at = 24 + 3 * w;
    h.flags = U32(at);
    h.ehsize = U16(at + 4);
    h.phentsize = U16(at + 6);
    h.phnum = U16(at + 8);
    h.shentsize = U16(at + 10);
    h.shnum = U16(at + 12);
    h.shstrndx = U16(at + 14);
}

std::string Elf::TableDamage(uint64_t offset, uint64_t count, uint64_t entsize, uint64_t expected) const
{
    if (count == 0) return "";
    if (entsize != expected)
        return Format("entry size %" PRIu64 ", expected %" PRIu64, entsize, expected);
    if (offset > m_size || count > (m_size - offset) / entsize)
        return Format("%" PRIu64 " entries at 0x%" PRIx64 " pass the end of the file", count, offset);
    return "";
}

std::string Elf::ExtentDamage(uint64_t offset, uint64_t size) const
{
    if (Inside(offset, size)) return "";
    return Format("0x%" PRIx64 " bytes at 0x%" PRIx64 " pass the end of the file", size, offset);
}

void Elf::ReadTables()
{
    const ElfHeader& h = m_header;
    const uint64_t sectionSize = m_is64 ? 64 : 40, segmentSize = m_is64 ? 56 : 32;
    m_sectionCount = h.shnum;
    m_sectionDamage.clear();
    // Section 0 holds the counts that do not fit the header.
    m_haveSection0 = h.shoff != 0 && TableDamage(h.shoff, 1, h.shentsize, sectionSize).empty();
    ElfSection zero = m_haveSection0 ? Section(0) : ElfSection{};
    if (h.shnum == 0 && h.shoff != 0) {
        m_sectionCount = zero.size;
        if (!m_haveSection0) m_sectionDamage = TableDamage(h.shoff, 1, h.shentsize, sectionSize);
    }
    if (m_sectionDamage.empty()) m_sectionDamage = TableDamage(h.shoff, m_sectionCount, h.shentsize, sectionSize);
    m_segmentCount = h.phnum == kExtendedPhnum && m_haveSection0 ? zero.info : h.phnum;
    m_segmentDamage = TableDamage(h.phoff, m_segmentCount, h.phentsize, segmentSize);
    m_nameIndex = h.shstrndx == kExtendedShstrndx && m_haveSection0 ? zero.link : h.shstrndx;

    m_namesUsable = false;
    if (m_sectionDamage.empty() && m_nameIndex != 0 && m_nameIndex < m_sectionCount) {
        ElfSection names = Section(m_nameIndex);
        if (names.type != kSectionNobits && Inside(names.offset, names.size)) {
            m_namesUsable = true;
            m_namesOffset = names.offset;
            m_namesEnd = StringsEnd(names.offset, names.size);
        }
    }
}

ElfSegment Elf::Segment(uint64_t i) const
{
    // Where each field sits: ELF64 moved p_flags up to keep the words aligned.
    struct Layout {
        uint64_t flags, offset, vaddr, paddr, filesz, memsz, align;
    };
    static const Layout k32 = {24, 4, 8, 12, 16, 20, 28}, k64 = {4, 8, 16, 24, 32, 40, 48};
    const Layout& l = m_is64 ? k64 : k32;
    uint64_t at = m_header.phoff + i * m_header.phentsize;
    ElfSegment s;
    s.type = U32(at);
    s.flags = U32(at + l.flags);
    s.offset = Word(at + l.offset);
    s.vaddr = Word(at + l.vaddr);
    s.paddr = Word(at + l.paddr);
    s.filesz = Word(at + l.filesz);
    s.memsz = Word(at + l.memsz);
    s.align = Word(at + l.align);
    return s;
}

ElfSection Elf::Section(uint64_t i) const
{
    uint64_t at = m_header.shoff + i * m_header.shentsize, w = m_is64 ? 8 : 4;
    ElfSection s;
    s.name = U32(at);
    s.type = U32(at + 4);
    s.flags = Word(at + 8);
    s.addr = Word(at + 8 + w);
    s.offset = Word(at + 8 + 2 * w);
    s.size = Word(at + 8 + 3 * w);
    s.link = U32(at + 8 + 4 * w);
    s.info = U32(at + 12 + 4 * w);
    s.addralign = Word(at + 16 + 4 * w);
    s.entsize = Word(at + 16 + 5 * w);
    return s;
}

uint64_t Elf::StringsEnd(uint64_t offset, uint64_t size) const
{
    if (size == 0) return 0;
    const void* last = memrchr(m_data + offset, 0, static_cast<size_t>(size));
    return last ? static_cast<uint64_t>(static_cast<const unsigned char*>(last) - (m_data + offset)) + 1 : 0;
}

bool Elf::StringAt(uint64_t tableOffset, uint64_t end, uint64_t index, std::string_view& text) const
{
    if (index >= end) return false;
    const char* start = reinterpret_cast<const char*>(m_data + tableOffset + index);
    uint64_t room = end - index < kElfStringMax + 1 ? end - index : kElfStringMax + 1;
    text = std::string_view(start, strnlen(start, static_cast<size_t>(room)));
    return true;
}

Elf::Name Elf::SectionName(const ElfSection& section, std::string_view& name) const
{
    if (!m_namesUsable) return Name::kNoStrings;
    return StringAt(m_namesOffset, m_namesEnd, section.name, name) ? Name::kOk : Name::kCorrupt;
}

const char* Elf::NameText(const ElfSection& section, char* buffer) const
{
    std::string_view name;
    switch (SectionName(section, name)) {
    case Name::kOk:
        return EscapeInto(name, buffer);
    case Name::kNoStrings:
        return "<no-strings>";
    case Name::kCorrupt:
        break;
    }
    return "<corrupt>";
}

bool Elf::Interpreter(const ElfSegment& segment, std::string_view& path) const
{
    if (!Inside(segment.offset, segment.filesz)) return false;
    const char* start = reinterpret_cast<const char*>(m_data + segment.offset);
    uint64_t room = segment.filesz < kElfStringMax + 1 ? segment.filesz : kElfStringMax + 1;
    path = std::string_view(start, strnlen(start, static_cast<size_t>(room)));
    return true;
}

bool Elf::SymbolCount(const ElfSection& section, uint64_t& count, std::string& damage) const
{
    const uint64_t symbolSize = m_is64 ? 24 : 16;
    if (section.size == 0) {
        count = 0;
        return true;
    }
    damage = section.entsize != symbolSize
                 ? Format("entry size %" PRIu64 ", expected %" PRIu64, section.entsize, symbolSize)
                 : ExtentDamage(section.offset, section.size);
    if (!damage.empty()) return false;
    count = section.size / section.entsize;
    return true;
}

bool Elf::DynamicArray(Dynamic& dynamic) const
{
    const uint64_t entrySize = m_is64 ? 16 : 8;
    bool found = false;
    uint64_t offset = 0, size = 0;
    std::string damage;
    for (uint64_t i = 0; m_segmentDamage.empty() && i < m_segmentCount && !found; i++) {
        ElfSegment s = Segment(i);
        if (s.type != kSegmentDynamic) continue;
        found = true;
        offset = s.offset;
        size = s.filesz;
    }
    for (uint64_t i = 0; m_sectionDamage.empty() && i < m_sectionCount && !found; i++) {
        ElfSection s = Section(i);
        if (s.type != kSectionDynamic) continue;
        found = true;
        offset = s.offset;
        size = s.size;
        if (size != 0 && s.entsize != entrySize)
            damage = Format("entry size %" PRIu64 ", expected %" PRIu64, s.entsize, entrySize);
    }
    if (!found) return false;
    Dynamic d;
    d.offset = offset;
    if (damage.empty()) {
        uint64_t inFile = offset > m_size ? 0 : (size < m_size - offset ? size : m_size - offset);
        uint64_t n = inFile / entrySize;
        bool ended = false;
        while (d.count < n && !ended) ended = static_cast<int64_t>(Word(offset + d.count++ * entrySize)) == kDynNull;
        if (!ended && inFile < size) damage = Format("runs past the end of the file at 0x%" PRIx64, m_size);
    }
    d.damage = damage;
    FindDynamicStrings(d);
    dynamic = d;
    return true;
}

void Elf::DynamicEntry(const Dynamic& dynamic, uint64_t i, int64_t& tag, uint64_t& value) const
{
    uint64_t w = m_is64 ? 8 : 4, at = dynamic.offset + i * 2 * w;
    tag = m_is64 ? static_cast<int64_t>(U64(at)) : static_cast<int32_t>(U32(at));
    value = Word(at + w);
}

bool Elf::FileOffset(uint64_t vaddr, uint64_t& offset) const
{
    for (uint64_t i = 0; m_segmentDamage.empty() && i < m_segmentCount; i++) {
        ElfSegment s = Segment(i);
        if (s.type != kSegmentLoad || vaddr < s.vaddr || vaddr - s.vaddr >= s.filesz) continue;
        if (s.offset > UINT64_MAX - (vaddr - s.vaddr)) return false;
        offset = s.offset + (vaddr - s.vaddr);
        return true;
    }
    return false;
}

void Elf::FindDynamicStrings(Dynamic& dynamic) const
{
    bool haveTable = false, haveSize = false;
    uint64_t table = 0, size = 0;
    for (uint64_t i = 0; i < dynamic.count && !(haveTable && haveSize); i++) {
        int64_t tag;
        uint64_t value;
        DynamicEntry(dynamic, i, tag, value);
        if (tag == kDynStrtab && !haveTable) {
            haveTable = true;
            table = value;
        } else if (tag == kDynStrsz && !haveSize) {
            haveSize = true;
            size = value;
        }
    }
    uint64_t offset;
    if (!haveTable || !haveSize || !FileOffset(table, offset) || !Inside(offset, size)) return;
    dynamic.strings = true;
    dynamic.stringsOffset = offset;
    dynamic.stringsEnd = StringsEnd(offset, size);
}

bool Elf::DynamicString(const Dynamic& dynamic, uint64_t index, std::string_view& text) const
{
    return dynamic.strings && StringAt(dynamic.stringsOffset, dynamic.stringsEnd, index, text);
}

void Elf::NoteSources(const std::function<void(const NoteSource&)>& each) const
{
    bool segments = m_segmentDamage.empty() && m_segmentCount > 0;
    auto fromSegments = [&]() {
        for (uint64_t i = 0; i < m_segmentCount; i++) {
            ElfSegment s = Segment(i);
            if (s.type == kSegmentNote) each(NoteSource{-1, s.offset, s.filesz, s.align});
        }
    };
    if (m_header.type == kTypeCore && segments) return fromSegments();
    bool any = false;
    for (uint64_t i = 0; m_sectionDamage.empty() && i < m_sectionCount; i++) {
        ElfSection s = Section(i);
        if (s.type != kSectionNote) continue;
        any = true;
        each(NoteSource{static_cast<int64_t>(i), s.offset, s.size, s.addralign});
    }
    if (!any && segments) fromSegments();
}

std::string Elf::Notes(const NoteSource& source, const std::function<void(const ElfNote&)>& each) const
{
    uint64_t align = source.align <= 4 ? 4 : source.align;
    if (align != 4 && align != 8) return Format("note alignment %" PRIu64, source.align);
    std::string damage = ExtentDamage(source.offset, source.size);
    if (!damage.empty()) return damage;
    for (uint64_t pos = 0; pos < source.size;) {
        uint64_t at = source.offset + pos, left = source.size - pos;
        uint64_t descAt = left < kNoteHeaderSize ? 0 : AlignUp(kNoteHeaderSize + U32(at), align);
        if (left < kNoteHeaderSize || descAt > left || U32(at + 4) > left - descAt)
            return Format("note at 0x%" PRIx64 " runs past the end", at);
        ElfNote note;
        note.offset = at;
        note.type = U32(at + 8);
        const char* name = reinterpret_cast<const char*>(m_data + at + kNoteHeaderSize);
        uint64_t nameRoom = U32(at) < kElfStringMax + 1 ? U32(at) : kElfStringMax + 1;
        note.owner = std::string_view(name, strnlen(name, static_cast<size_t>(nameRoom)));
        note.desc = std::string_view(reinterpret_cast<const char*>(m_data + at + descAt), U32(at + 4));
        each(note);
        pos += AlignUp(descAt + note.desc.size(), align);
    }
    return "";
}

void Elf::PrintAll(FILE* file) const
{
    if (!m_data) return;
    Out out(file);
    PrintHeader(out);
    out.NextBlock();
    PrintSegments(out);
    out.NextBlock();
    PrintSections(out);
    out.NextBlock();
    PrintSymbolTables(out);
    out.NextBlock();
    PrintDynamic(out);
    out.NextBlock();
    PrintNotes(out);
}

void Elf::PrintHeader(Out& out) const
{
    const ElfHeader& h = m_header;
    char magic[16 * 3 + 1], code[32];
    for (int i = 0; i < 16; i++) snprintf(magic + 3 * i, 4, " %02x", h.ident[i]);
    out.Line("ELF Header:\n  Magic:  %s\n", magic);
    out.Line("  %-35s%s\n", "Class:", m_is64 ? "ELF64" : "ELF32");
    out.Line("  %-35s2's complement, %s endian\n", "Data:", m_big ? "big" : "little");
    out.Line("  %-35s%u%s\n", "Version:", h.ident[6], h.ident[6] == 1 ? " (current)" : h.ident[6] ? " <unknown>" : "");
    out.Line("  %-35s%s\n", "OS/ABI:", CodeText(kOsAbis, h.ident[7], code));
    out.Line("  %-35s%u\n", "ABI Version:", h.ident[8]);
    out.Line("  %-35s%s\n", "Type:", CodeText(kFileTypes, h.type, code));
    out.Line("  %-35s%s\n", "Machine:", CodeText(kMachines, h.machine, code));
    out.Line("  %-35s0x%" PRIx32 "\n", "Version:", h.version);
    out.Line("  %-35s0x%" PRIx64 "\n", "Entry point address:", h.entry);
    out.Line("  %-35s%" PRIu64 " (bytes into file)\n", "Start of program headers:", h.phoff);
    out.Line("  %-35s%" PRIu64 " (bytes into file)\n", "Start of section headers:", h.shoff);
    out.Line("  %-35s0x%" PRIx32 "%s\n", "Flags:", h.flags, FlagsText(h.machine, h.flags).c_str());
    out.Line("  %-35s%u (bytes)\n", "Size of this header:", h.ehsize);
    out.Line("  %-35s%u (bytes)\n", "Size of program headers:", h.phentsize);
    // Extended numbering shows the header's value, then section 0's.
    auto count = [&](uint16_t raw, bool extended, uint64_t real) {
        return extended ? std::to_string(raw) + " (" + std::to_string(real) + ")" : std::to_string(raw);
    };
    out.Line("  %-35s%s\n", "Number of program headers:",
             count(h.phnum, h.phnum == kExtendedPhnum && m_haveSection0, m_segmentCount).c_str());
    out.Line("  %-35s%u (bytes)\n", "Size of section headers:", h.shentsize);
    out.Line("  %-35s%s\n", "Number of section headers:",
             count(h.shnum, h.shnum == 0 && m_haveSection0, m_sectionCount).c_str());
    std::string index = count(h.shstrndx, h.shstrndx == kExtendedShstrndx && m_haveSection0, m_nameIndex);
    if (m_nameIndex != 0 && m_nameIndex >= m_sectionCount) index += " <corrupt: out of range>";
    out.Line("  %-35s%s\n", "Section header string table index:", index.c_str());
}

void Elf::PrintSegments(Out& out) const
{
    if (m_segmentCount == 0) return out.Line("There are no program headers in this file.\n");
    int w = m_is64 ? 18 : 10;
    out.Line("Program Headers:\n  [Nr] Type           Offset   %-*s %-*s FileSiz  MemSiz   Flg Align\n", w, "VirtAddr",
             w, "PhysAddr");
    if (!m_segmentDamage.empty()) return out.Line("  <damaged: %s>\n", m_segmentDamage.c_str());
    char type[16], flags[24];
    for (uint64_t i = 0; i < m_segmentCount; i++) {
        ElfSegment s = Segment(i);
        snprintf(flags, sizeof flags, "%c%c%c", s.flags & 4 ? 'R' : '-', s.flags & 2 ? 'W' : '-', s.flags & 1 ? 'E' : '-');
        if (s.flags & ~7u) snprintf(flags + 3, sizeof flags - 3, "+0x%" PRIx32, s.flags & ~7u);
        out.Line("  [%2" PRIu64 "] %-14s 0x%06" PRIx64 " 0x%0*" PRIx64 " 0x%0*" PRIx64 " 0x%06" PRIx64 " 0x%06" PRIx64
                 " %s 0x%" PRIx64 "\n",
                 i, TypeText(kSegmentTypes, s.type, type), s.offset, w - 2, s.vaddr, w - 2, s.paddr, s.filesz, s.memsz,
                 flags, s.align);
        std::string_view path;
        char text[kEscapedMax];
        if (s.type == kSegmentInterp)
            out.Line("      [Requesting program interpreter: %s]\n",
                     Interpreter(s, path) ? EscapeInto(path, text) : "<damaged>");
    }
}

void Elf::PrintSections(Out& out) const
{
    if (m_sectionCount == 0 && m_sectionDamage.empty()) return out.Line("There are no sections in this file.\n");
    int w = m_is64 ? 18 : 10;
    out.Line("Section Headers:\n  [Nr] Type            %-*s Offset   Size     ES   Flags Lk Inf Al Name\n", w,
             "Address");
    if (!m_sectionDamage.empty()) return out.Line("  <damaged: %s>\n", m_sectionDamage.c_str());
    char type[16], name[kEscapedMax];
    for (uint64_t i = 0; i < m_sectionCount; i++) {
        ElfSection s = Section(i);
        const char* text = NameText(s, name);
        out.Line("  [%2" PRIu64 "] %-15s 0x%0*" PRIx64 " 0x%06" PRIx64 " 0x%06" PRIx64 " 0x%02" PRIx64 " 0x%" PRIx64
                 " %" PRIu32 " %" PRIu32 " %" PRIu64 "%s%s\n",
                 i, TypeText(kSectionTypes, s.type, type), w - 2, s.addr, s.offset, s.size, s.entsize, s.flags, s.link,
                 s.info, s.addralign, *text ? " " : "", text);
    }
}

void Elf::PrintSymbolTables(Out& out) const
{
    char name[kEscapedMax];
    for (uint64_t i = 0; m_sectionDamage.empty() && i < m_sectionCount; i++) {
        ElfSection s = Section(i);
        if (s.type != kSectionSymtab && s.type != kSectionDynsym) continue;
        uint64_t count = 0;
        std::string damage;
        if (SymbolCount(s, count, damage))
            out.Line("Symbol table '%s' contains %" PRIu64 " entries\n", NameText(s, name), count);
        else
            out.Line("Symbol table '%s' is damaged: %s\n", NameText(s, name), damage.c_str());
    }
}

void Elf::PrintDynamic(Out& out) const
{
    Dynamic dynamic;
    if (!DynamicArray(dynamic)) return;
    out.Line("Dynamic section at offset 0x%" PRIx64 " contains %" PRIu64 " entries:\n", dynamic.offset, dynamic.count);
    char text[kEscapedMax];
    for (uint64_t i = 0; i < dynamic.count; i++) {
        int64_t tag;
        uint64_t value;
        DynamicEntry(dynamic, i, tag, value);
        const char* label = tag == kDynNeeded    ? "Shared library"
                            : tag == kDynSoname  ? "Library soname"
                            : tag == kDynRpath   ? "Library rpath"
                            : tag == kDynRunpath ? "Library runpath"
                                                 : nullptr;
        std::string_view string;
        if (label)
            out.Line("  %s: [%s]\n", label, DynamicString(dynamic, value, string) ? EscapeInto(string, text) : "<corrupt>");
    }
    if (!dynamic.damage.empty()) out.Line("  <damaged: %s>\n", dynamic.damage.c_str());
}

void Elf::PrintNotes(Out& out) const
{
    char text[kEscapedMax];
    NoteSources([&](const NoteSource& source) {
        if (source.section >= 0)
            out.Line("Notes in section '%s':\n", NameText(Section(static_cast<uint64_t>(source.section)), text));
        else
            out.Line("Notes at offset 0x%" PRIx64 " with length 0x%" PRIx64 ":\n", source.offset, source.size);
        std::string damage = Notes(source, [&](const ElfNote& note) {
            out.Line("  Owner: %s  Type: 0x%" PRIx32 "  Data size: 0x%zx\n", EscapeInto(note.owner, text), note.type,
                     note.desc.size());
            if (note.owner != "GNU" || note.type != kNoteGnuBuildId) return;
            size_t n = note.desc.size() < kElfStringMax ? note.desc.size() : kElfStringMax;
            for (size_t i = 0; i < n; i++) snprintf(text + 2 * i, 3, "%02x", static_cast<unsigned char>(note.desc[i]));
            text[2 * n] = '\0';
            out.Line("  Build ID: %s%s\n", text, note.desc.size() > n ? "[...]" : "");
        });
        if (!damage.empty()) out.Line("  <damaged: %s>\n", damage.c_str());
    });
}
