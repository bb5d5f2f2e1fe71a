#pragma once
// String helpers: case folding, comparison with a case switch, word
// extraction, trimming, replacement, and the growable heap "safe string".
//
// Case flag, everywhere in this header: nonzero means case-sensitive (bytes
// compared as they are), 0 means case-insensitive. CompareTo, IsEqual and
// CompareToN fold through `charmap`; EndsWith, IsNEqual and FindStr fold
// through toupper.
//
// Safe strings: a `char*` that points just past a 64-bit capacity word. The
// capacity counts the characters the block holds without its terminator; one
// more byte always follows for the terminator, so the text is always
// NUL-terminated. A safe string is handled through the address of the owner's
// pointer variable; a null pointer variable means "no string yet". Only
// safe_free may release one. Every grow checks for size_t wrap-around; if an
// allocation fails, "Out of memory (tmalloc)" is printed and the process ends
// with status 1.
//
// None of these functions takes a lock.

#include <cstddef>
#include <cstdint>
#include <string>

// The 256-entry folding table: every byte maps to itself except 0x41-0x5A and
// 0xC1-0xDA, which map to the byte plus 0x20.
extern const unsigned char charmap[256];

// Upper-/lower-case every byte in place with toupper/tolower. Return text.
char* StrUpr(char* text);
char* StrLwr(char* text);

// Difference of the first differing (folded) bytes as unsigned values, or 0
// when both strings end together.
int32_t CompareTo(const char* a, const char* b, int flag);
// 1 when CompareTo(a, b, flag) is 0, else 0.
int IsEqual(const char* a, const char* b, int flag);
// CompareTo over at most n positions; n == 0 always yields 0.
int32_t CompareToN(const char* a, const char* b, size_t n, int flag);
// Prefix test with the length rules of the old code: 0 if a or b is empty;
// 0 if a is shorter than b and than n; 0 if a is longer than b and b shorter
// than n; otherwise 1 when the first min(n, len a, len b) characters match
// (flag 0: through toupper). The old 16-bit position counter is not kept:
// texts of any length are compared in full and safely.
int IsNEqual(const char* a, const char* b, size_t n, int flag);
// 1 when text ends with suffix (neither empty, suffix not longer), else 0.
// Flag 0 compares through toupper. Any length is handled (see IsNEqual).
int EndsWith(const char* text, const char* suffix, int flag);
// Pointer into haystack at the first occurrence of needle, or null. Flag 0
// searches upper-cased copies and maps the offset back to haystack.
const char* FindStr(const char* haystack, const char* needle, int flag);
char* FindStr(char* haystack, const char* needle, int flag);

// Trimming in place. Strip: mode 0 leading blanks/tabs, 1 trailing
// newlines/blanks/tabs, 2 both, other modes nothing. StripChar: the same
// modes over exactly the characters of `set`. Both return text.
char* Strip(char* text, int mode);
char* StripChar(char* text, const char* set, int mode);
std::string& Strip(std::string& text, int mode);
std::string& StripChar(std::string& text, const char* set, int mode);

// Words `first` to `last` (numbered from 1) of source, split at any byte of
// `delimiters` (runs of delimiters separate as one), joined by single blanks
// (GetWord) or by the delimiter that ended each word (GetWordKeepDelim).
// Words before `first` are skipped, a run of delimiters separates as one,
// and the result is trimmed of delimiters at both ends. `out` must hold
// strlen(source) + 1 bytes (the result is never longer than the source) and
// may be the source buffer itself; it is returned. The std::string forms
// return the same text.
char* GetWord(const char* source, const char* delimiters, int first, int last, char* out);
char* GetWordKeepDelim(const char* source, const char* delimiters, int first, int last, char* out);
std::string GetWord(const char* source, const char* delimiters, int first, int last);
std::string GetWordKeepDelim(const char* source, const char* delimiters, int first, int last);

// Delete every occurrence of sub (case-sensitive), left to right without
// overlap, in place; any text length. An empty sub removes nothing.
char* RemoveStr(char* text, const char* sub);
// Replace every occurrence of old by new_text, left to right without
// rescanning what was inserted; matching uses CompareToN with flag. An empty
// old replaces nothing (it would match everywhere without advancing).
std::string& ReplaceStr(std::string& text, const char* old, const char* new_text, int flag);
// The same on a safe string, regrown as needed; returns the (possibly new)
// pointer, which is also stored through `text_ref` (safe_cpy's growth rule
// applies). A null *text_ref is left alone and null is returned.
char* ReplaceStr2(char** text_ref, const char* old, const char* new_text, int flag);

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
