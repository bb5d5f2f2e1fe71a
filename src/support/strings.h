#pragma once
// String helpers: case folding, comparison with a case switch, word
// extraction, trimming and replacement.
//
// Case flag, everywhere in this header: nonzero means case-sensitive (bytes
// compared as they are), 0 means case-insensitive. CompareTo, IsEqual and
// CompareToN fold through `charmap`; EndsWith, IsNEqual and FindStr fold
// through toupper.
//
// The safe-string allocator (tmalloc, safe_cpy, ...) lives in
// support/safestring.h, included here for the helpers that grow safe strings.
//
// None of these functions takes a lock.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "support/safestring.h"

// The 256-entry folding table: every byte maps to itself except 0x41-0x5A and
// 0xC1-0xDA, which map to the byte plus 0x20.
extern const unsigned char charmap[256];

// text, or "" for a null pointer.
inline const char* OrEmpty(const char* text) { return text ? text : ""; }

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

// `text` without the blanks and tabs at either end.
std::string_view TrimBlanks(std::string_view text);
// The value of `text` when it is 1 to `max_digits` decimal digits and nothing
// else (no sign, no blank); nullopt otherwise. max_digits of at most 19 can
// never overflow.
std::optional<uint64_t> DecimalValue(std::string_view text, size_t max_digits);

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
