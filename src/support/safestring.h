#pragma once
// The safe-string allocator: sized heap blocks (tmalloc/tfree) and the
// growable heap "safe string".
//
// Safe strings: a `char*` that points just past a 64-bit capacity word. The
// capacity counts the characters the block holds without its terminator; one
// more byte always follows for the terminator, so the text is always
// NUL-terminated. A safe string is handled through the address of the owner's
// pointer variable; a null pointer variable means "no string yet". Only
// safe_free may release one. Every grow checks for size_t wrap-around; if an
// allocation fails, "Out of memory (tmalloc)" is printed and the process ends
// with status 1. Nothing here takes a lock; blocks may be made and freed on
// any thread.

#include <cstddef>
#include <cstdint>

// --- Memory ---

// size bytes, zero-filled, preceded by a capacity word holding size, aligned
// for any fundamental type. Release with tfree. Prints "Out of memory
// (tmalloc)" and exits 1 on failure (also when size + header would wrap).
void* tmalloc(size_t size);
// Release a block from tmalloc. Null is ignored.
void tfree(void* block);
// A zero-filled safe string block of capacity max(strlen(text), 50); the text
// is not copied.
char* str_malloc(const char* text);
// Capacity word of a safe string (0 for null).
size_t safe_capacity(const char* s);
// Copy text into *s: null text does nothing; a null *s is made with
// str_malloc(text); a block smaller than the text is replaced by one of
// capacity exactly strlen(text). text may point into *s.
void safe_cpy(char** s, const char* text);
// Append text to *s: null text does nothing; a null *s is made with
// str_malloc(text); a block too small is replaced by one of capacity
// strlen(*s) + strlen(text) (with one spare byte beyond the terminator).
// text may point into *s.
void safe_cat(char** s, const char* text);
// Free *s (if not null) and set it to null.
void safe_free(char** s);

// Growable string holder for StringCopy / StringConcat. `buf` is owned (free
// with std::free), `capacity` counts characters without the terminator; start
// from {nullptr, 0}. Both functions regrow when capacity is not greater than
// the length needed, to a zeroed buffer of that length + 2 bytes with
// capacity = that length, and return buf. Any length works.
struct StringHolder {
  char* buf;
  int32_t capacity;
};
char* StringCopy(StringHolder* holder, const char* text);
char* StringConcat(StringHolder* holder, const char* text);
