#include "support/strings.h"
// TODO(support): stub; the real implementation replaces this file.
#include <cstdlib>
#include <cstring>
const unsigned char charmap[256] = {};
void* tmalloc(size_t size) { return std::calloc(1, size); }
void tfree(void* block) { std::free(block); }
void safe_cpy(char** s, const char* text) { if (text) { std::free(*s); *s = strdup(text); } }
void safe_cat(char**, const char*) {}
void safe_free(char** s) { std::free(*s); *s = nullptr; }
int32_t CompareTo(const char* a, const char* b, int) { return std::strcmp(a, b); }
int IsEqual(const char* a, const char* b, int) { return std::strcmp(a, b) == 0; }
