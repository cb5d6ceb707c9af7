#include "utils.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "debugger.h"

const char strPrompt[] = "#> ";
const int strlenPrompt = static_cast<int>(strlen(strPrompt));

namespace {

// Block layout: [Header][user bytes][kTail guard]. The header is padded to
// 16 bytes so user memory keeps malloc's alignment on 32- and 64-bit units.
struct alignas(16) Header {
    uint32_t magic;
    uint32_t line;
    size_t size;
    const char* file;
};
const uint32_t kHeadMagic = 0x5AFE3E3Du;
const uint32_t kFreedMagic = 0xDEADF4EEu;
const unsigned char kTail[4] = {0xFD, 0xFD, 0xFD, 0xFD};

std::atomic<size_t> g_liveBlocks{0};

Header* HeaderOf(void* user) { return static_cast<Header*>(user) - 1; }
unsigned char* TailOf(Header* h) { return reinterpret_cast<unsigned char*>(h + 1) + h->size; }

// Checks both guards; logs once at level 3 and returns false when damaged.
bool GuardsIntact(Header* h, const char* file, int line)
{
    if (h->magic != kHeadMagic) {
        syslog_safe(3, "<safe_mem> %s:%d: bad or freed block %p (head guard %08x).", file, line,
                    static_cast<void*>(h + 1), h->magic);
        return false;
    }
    if (memcmp(TailOf(h), kTail, sizeof kTail) != 0) {
        syslog_safe(3, "<safe_mem> %s:%d: overrun past %zu bytes of block from %s:%u.", file, line,
                    h->size, h->file, h->line);
        return false;
    }
    return true;
}

void* Wrap(void* raw, size_t size, const char* file, int line)
{
    Header* h = static_cast<Header*>(raw);
    h->magic = kHeadMagic;
    h->line = static_cast<uint32_t>(line);
    h->size = size;
    h->file = file;
    memcpy(TailOf(h), kTail, sizeof kTail);
    return h + 1;
}

bool TooLarge(size_t size) { return size > SIZE_MAX - sizeof(Header) - sizeof kTail; }

// The census lock is a plain pthread mutex: the reporting Mutex class itself
// reports to the census. Held across fork so a child never inherits it taken.
pthread_mutex_t g_censusLock = PTHREAD_MUTEX_INITIALIZER;
std::map<std::string, long>* g_census = nullptr;

void CensusPrepare() { pthread_mutex_lock(&g_censusLock); }
void CensusRelease() { pthread_mutex_unlock(&g_censusLock); }
pthread_once_t g_censusOnce = PTHREAD_ONCE_INIT;
void CensusInit()
{
    g_census = new std::map<std::string, long>;
    pthread_atfork(CensusPrepare, CensusRelease, CensusRelease);
}

}  // namespace

void* safe_mem_malloc(size_t size, const char* file, int line)
{
    void* raw = TooLarge(size) ? nullptr : malloc(sizeof(Header) + size + sizeof kTail);
    if (!raw) {
        syslog_safe(3, "<safe_mem> %s:%d: out of memory for %zu bytes.", file, line, size);
        return nullptr;
    }
    g_liveBlocks++;
    return Wrap(raw, size, file, line);
}

void* safe_mem_zalloc(size_t size, const char* file, int line)
{
    void* p = safe_mem_malloc(size, file, line);
    if (p) memset(p, 0, size);
    return p;
}

void* safe_mem_realloc(void* ptr, size_t size, const char* file, int line)
{
    if (!ptr) return safe_mem_malloc(size, file, line);
    Header* h = HeaderOf(ptr);
    if (!GuardsIntact(h, file, line)) return nullptr;
    void* raw = TooLarge(size) ? nullptr : realloc(h, sizeof(Header) + size + sizeof kTail);
    if (!raw) {
        syslog_safe(3, "<safe_mem> %s:%d: out of memory for %zu bytes.", file, line, size);
        return nullptr;
    }
    return Wrap(raw, size, file, line);
}

void safe_mem_free(void* ptr, const char* file, int line)
{
    if (!ptr) return;
    Header* h = HeaderOf(ptr);
    // A damaged block is leaked rather than handed back to malloc.
    if (!GuardsIntact(h, file, line)) return;
    h->magic = kFreedMagic;
    g_liveBlocks--;
    free(h);
}

char* safe_mem_strdup(const char* text, const char* file, int line)
{
    return static_cast<char*>(safe_mem_memdup(text, strlen(text) + 1, file, line));
}

char* safe_mem_strndup(const char* text, size_t max, const char* file, int line)
{
    size_t n = strnlen(text, max);
    char* p = static_cast<char*>(safe_mem_malloc(n + 1, file, line));
    if (!p) return nullptr;
    memcpy(p, text, n);
    p[n] = '\0';
    return p;
}

void* safe_mem_memdup(const void* data, size_t size, const char* file, int line)
{
    void* p = safe_mem_malloc(size, file, line);
    if (p && size) memcpy(p, data, size);
    return p;
}

size_t safe_mem_live_blocks() { return g_liveBlocks.load(); }

void safe_mem_object(const char* /*file*/, int /*line*/, const char* function, const void* /*pointer*/)
{
    pthread_once(&g_censusOnce, CensusInit);
    bool gone = function[0] == '~';
    pthread_mutex_lock(&g_censusLock);
    (*g_census)[gone ? function + 1 : function] += gone ? -1 : 1;
    pthread_mutex_unlock(&g_censusLock);
}

long safe_mem_object_count(const char* className)
{
    pthread_once(&g_censusOnce, CensusInit);
    pthread_mutex_lock(&g_censusLock);
    auto it = g_census->find(className);
    long n = it == g_census->end() ? 0 : it->second;
    pthread_mutex_unlock(&g_censusLock);
    return n;
}

char* safe_strncpy(char* dst, const char* src, size_t size)
{
    if (size == 0) return dst;
    strncpy(dst, src, size - 1);
    dst[size - 1] = '\0';
    return dst;
}

unsigned checksum(const void* bytes, size_t length)
{
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    unsigned sum = 0;
    for (size_t i = 0; i < length; i++) sum += p[i];
    return sum;
}

char* base64(const void* bytes, size_t length)
{
    if (length > INT32_MAX / 2) return nullptr;
    BIO* b64 = BIO_new(BIO_f_base64());
    BIO* mem = BIO_new(BIO_s_mem());
    if (!b64 || !mem) {
        BIO_free(b64);
        BIO_free(mem);
        return nullptr;
    }
    BIO_set_flags(b64, BIO_FLAGS_BASE64_NO_NL);
    BIO* chain = BIO_push(b64, mem);
    char* result = nullptr;
    if ((length == 0 || BIO_write(chain, bytes, static_cast<int>(length)) == static_cast<int>(length)) &&
        BIO_flush(chain) == 1) {
        char* data = nullptr;
        long n = BIO_get_mem_data(mem, &data);
        result = safe_mem_strndup(n > 0 ? data : "", n > 0 ? static_cast<size_t>(n) : 0, __FILE__, __LINE__);
    }
    BIO_free_all(chain);
    return result;
}

bool decode64(const char* text, std::string& out)
{
    size_t len = strlen(text);
    if (len % 4 != 0 || len > INT32_MAX) return false;
    // Padding only at the very end, at most two characters of it.
    size_t data = strspn(text, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
    if (data + strspn(text + data, "=") != len || len - data > 2) return false;
    BIO* b64 = BIO_new(BIO_f_base64());
    BIO* mem = BIO_new_mem_buf(text, static_cast<int>(len));
    if (!b64 || !mem) {
        BIO_free(b64);
        BIO_free(mem);
        return false;
    }
    BIO_set_flags(b64, BIO_FLAGS_BASE64_NO_NL);
    BIO* chain = BIO_push(b64, mem);
    std::string decoded;
    char buf[512];
    int n;
    while ((n = BIO_read(chain, buf, sizeof buf)) > 0) decoded.append(buf, static_cast<size_t>(n));
    BIO_free_all(chain);
    // The filter stops silently at damaged input: accept only a full decode.
    if (n < 0 || decoded.size() != len / 4 * 3 - (len - data)) return false;
    out.swap(decoded);
    return true;
}
