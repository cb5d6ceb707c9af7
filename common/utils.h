// Shared helpers: the guarded allocator with its object census, string
// helpers, checksum, base64 and the line services' prompt.
#pragma once

#include <cstddef>
#include <string>

// The prompt of the database shell and of the daemon command channel.
extern const char strPrompt[];
extern const int strlenPrompt;
// The port of the database shell, the command channel and discovery, on
// every unit; the default wherever an address gives none.
constexpr unsigned short kServicePort = 3543;

// Guarded allocator. Each block carries a guard before and after it and
// the call site that made it; a damaged guard is logged (level 3) when the
// block is freed or reallocated. They behave like their C counterparts:
// null on failure (logged at level 3), safe_mem_free(nullptr) does nothing.
void* safe_mem_malloc(size_t size, const char* file, int line);
void* safe_mem_zalloc(size_t size, const char* file, int line);
void* safe_mem_realloc(void* ptr, size_t size, const char* file, int line);
void safe_mem_free(void* ptr, const char* file, int line);
char* safe_mem_strdup(const char* text, const char* file, int line);
char* safe_mem_strndup(const char* text, size_t max, const char* file, int line);
void* safe_mem_memdup(const void* data, size_t size, const char* file, int line);

// Blocks handed out and not yet freed.
size_t safe_mem_live_blocks();

// Object census: `function` is the class name for a construction and
// "~" followed by it for a destruction.
void safe_mem_object(const char* file, int line, const char* function, const void* pointer);
// Live objects of a class: constructions minus destructions seen so far.
long safe_mem_object_count(const char* className);

// strncpy that always terminates (size > 0); returns dst.
char* safe_strncpy(char* dst, const char* src, size_t size);

// Plain unsigned sum of the bytes.
unsigned checksum(const void* bytes, size_t length);

// Base64 through OpenSSL's BIO filter, without line breaks. base64 returns a
// block from the guarded allocator (caller frees) or null on failure.
char* base64(const void* bytes, size_t length);
// Decodes `text` into `out`; false (out untouched) when it is not base64.
bool decode64(const char* text, std::string& out);
