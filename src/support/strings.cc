#include "support/strings.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr unsigned char FoldByte(unsigned int c) {
  // The two capital runs: ASCII A-Z and the same run with the high bit set.
  return static_cast<unsigned char>(
      ((c >= 0x41 && c <= 0x5A) || (c >= 0xC1 && c <= 0xDA)) ? c + 0x20 : c);
}

inline unsigned char Byte(char c) { return static_cast<unsigned char>(c); }

inline int Upper(char c) { return std::toupper(Byte(c)); }

// Byte under the given case flag for CompareTo/CompareToN.
inline int MapFold(char c, int flag) { return flag ? Byte(c) : charmap[Byte(c)]; }

inline bool IsBlankOrTab(char c) { return c == ' ' || c == '\t'; }
inline bool IsTrailingSpace(char c) { return c == '\n' || c == ' ' || c == '\t'; }
inline bool InSet(const char* set, char c) { return c != '\0' && std::strchr(set, c) != nullptr; }

// The trimming core over a buffer of `len` bytes: returns the kept range
// [*begin, *end). Mode 0 trims the front, 1 the back, 2 both; other modes
// keep everything.
template <typename Front, typename Back>
void TrimRange(const char* text, size_t len, int mode, Front front, Back back, size_t* begin,
               size_t* end) {
  size_t b = 0;
  size_t e = len;
  if (mode == 0 || mode == 2) {
    while (b < e && front(text[b])) {
      ++b;
    }
  }
  if (mode == 1 || mode == 2) {
    // Never steps before the first character: an empty text stays empty.
    while (e > b && back(text[e - 1])) {
      --e;
    }
  }
  *begin = b;
  *end = e;
}

char* TrimInPlace(char* text, size_t b, size_t e) {
  if (b > 0) {
    std::memmove(text, text + b, e - b);
  }
  text[e - b] = '\0';
  return text;
}

std::string& TrimString(std::string& text, size_t b, size_t e) {
  text.erase(e);
  text.erase(0, b);
  return text;
}

enum class ByteClass : unsigned char { kPlain, kDelimiter, kEnd };

// Word extraction shared by GetWord and GetWordKeepDelim. The separator that
// follows each copied word (when another is to come) is a blank, or, with
// keep_delim, the byte that ended the word in the source; at the end of the
// source that byte is the terminator, so nothing is written for it.
std::string ExtractWords(const char* source, const char* delimiters, int first, int last,
                         bool keep_delim) {
  std::string out;
  if (source == nullptr || source[0] == '\0') {
    return out;
  }
  ByteClass cls[256];
  for (auto& c : cls) {
    c = ByteClass::kPlain;
  }
  for (const char* d = delimiters; d != nullptr && *d != '\0'; ++d) {
    cls[Byte(*d)] = ByteClass::kDelimiter;
  }
  cls[0] = ByteClass::kEnd;

  // 64 bits so that counting past INT_MAX words cannot overflow.
  int64_t counter = 1;
  const int64_t lo = first;
  const int64_t hi = last;
  size_t start = 0;
  size_t pos = 0;
  // Whether the last thing written to out is a separator, and its size (0
  // for the terminator written by keep_delim at the source's end).
  bool sep_last = false;
  size_t sep_len = 0;
  while (counter <= hi) {
    const char c = source[pos];
    const ByteClass k = cls[Byte(c)];
    if (k == ByteClass::kPlain) {
      ++pos;
      continue;
    }
    const size_t word_len = pos - start;
    if (word_len > 0) {
      if (counter >= lo) {
        out.append(source + start, word_len);
        sep_last = false;
        if (counter < hi) {
          if (!keep_delim) {
            out.push_back(' ');
            sep_len = 1;
          } else if (c != '\0') {
            out.push_back(c);
            sep_len = 1;
          } else {
            sep_len = 0;
          }
          sep_last = true;
        }
      }
      ++counter;
    }
    if (k == ByteClass::kEnd) {
      break;
    }
    ++pos;
    start = pos;
  }
  // The source ran out of words before `last`: drop the trailing separator.
  if (counter <= hi && !out.empty() && sep_last) {
    out.erase(out.size() - sep_len);
  }
  StripChar(out, delimiters == nullptr ? "" : delimiters, 2);
  return out;
}

char* CopyOut(const std::string& text, char* out) {
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return out;
}

// The replacement walk shared by ReplaceStr and ReplaceStr2 over len bytes of
// src. An empty `old` would match everywhere without consuming anything, so it
// replaces nothing.
std::string Replaced(const char* src, size_t len, const char* old, const char* new_text, int flag) {
  const size_t old_len = std::strlen(old);
  if (old_len == 0) {
    return std::string(src, len);
  }
  const size_t new_len = std::strlen(new_text);
  std::string out;
  out.reserve(len);
  size_t i = 0;
  while (i < len) {
    // CompareToN stops at the terminator of src, so it never reads past it.
    if (len - i >= old_len && CompareToN(src + i, old, old_len, flag) == 0) {
      out.append(new_text, new_len);
      i += old_len;
    } else {
      out.push_back(src[i]);
      ++i;
    }
  }
  return out;
}

}  // namespace

#define WL_FOLD4(b) FoldByte(b), FoldByte((b) + 1), FoldByte((b) + 2), FoldByte((b) + 3)
#define WL_FOLD16(b) WL_FOLD4(b), WL_FOLD4((b) + 4), WL_FOLD4((b) + 8), WL_FOLD4((b) + 12)
#define WL_FOLD64(b) WL_FOLD16(b), WL_FOLD16((b) + 16), WL_FOLD16((b) + 32), WL_FOLD16((b) + 48)
const unsigned char charmap[256] = {WL_FOLD64(0x00), WL_FOLD64(0x40), WL_FOLD64(0x80),
                                    WL_FOLD64(0xC0)};
#undef WL_FOLD64
#undef WL_FOLD16
#undef WL_FOLD4

// --- Case and comparison ---

char* StrUpr(char* text) {
  for (char* p = text; *p != '\0'; ++p) {
    *p = static_cast<char>(std::toupper(Byte(*p)));
  }
  return text;
}

char* StrLwr(char* text) {
  for (char* p = text; *p != '\0'; ++p) {
    *p = static_cast<char>(std::tolower(Byte(*p)));
  }
  return text;
}

// Without a limit: the loop always stops at the first difference or the end
// of both strings, long before SIZE_MAX positions.
int32_t CompareTo(const char* a, const char* b, int flag) {
  return CompareToN(a, b, SIZE_MAX, flag);
}

int IsEqual(const char* a, const char* b, int flag) { return CompareTo(a, b, flag) == 0 ? 1 : 0; }

int32_t CompareToN(const char* a, const char* b, size_t n, int flag) {
  for (size_t i = 0; i < n; ++i) {
    const int ca = MapFold(a[i], flag);
    const int cb = MapFold(b[i], flag);
    if (ca != cb) {
      return ca - cb;
    }
    if (a[i] == '\0') {
      return 0;
    }
  }
  return 0;
}

// The old code counted positions in a signed 16-bit integer, which made texts
// beyond 32,767 characters undefined. Here the counter is a size_t: within
// that limit the results are the same, and beyond it the comparison simply
// goes on to the end, never reading outside either string.
int IsNEqual(const char* a, const char* b, size_t n, int flag) {
  const size_t la = std::strlen(a);
  const size_t lb = std::strlen(b);
  if (la == 0 || lb == 0) {
    return 0;
  }
  if (la < lb && la < n) {
    return 0;
  }
  if (la > lb && lb < n) {
    return 0;
  }
  size_t m = n < la ? n : la;
  m = m < lb ? m : lb;
  for (size_t i = 0; i < m; ++i) {
    const bool same = flag ? a[i] == b[i] : Upper(a[i]) == Upper(b[i]);
    if (!same) {
      return 0;
    }
  }
  return 1;
}

// Same choice as IsNEqual for the old 16-bit position counter: any length is
// compared fully and safely.
int EndsWith(const char* text, const char* suffix, int flag) {
  const size_t lt = std::strlen(text);
  const size_t ls = std::strlen(suffix);
  if (lt == 0 || ls == 0 || ls > lt) {
    return 0;
  }
  const char* tail = text + (lt - ls);
  for (size_t i = 0; i < ls; ++i) {
    const bool same = flag ? tail[i] == suffix[i] : Upper(tail[i]) == Upper(suffix[i]);
    if (!same) {
      return 0;
    }
  }
  return 1;
}

const char* FindStr(const char* haystack, const char* needle, int flag) {
  if (flag) {
    return std::strstr(haystack, needle);
  }
  std::string h(haystack);
  std::string n(needle);
  StrUpr(h.data());
  StrUpr(n.data());
  const size_t at = h.find(n);
  return at == std::string::npos ? nullptr : haystack + at;
}

char* FindStr(char* haystack, const char* needle, int flag) {
  return const_cast<char*>(FindStr(static_cast<const char*>(haystack), needle, flag));
}

// --- Trimming ---

char* Strip(char* text, int mode) {
  size_t b = 0;
  size_t e = 0;
  TrimRange(text, std::strlen(text), mode, IsBlankOrTab, IsTrailingSpace, &b, &e);
  return TrimInPlace(text, b, e);
}

char* StripChar(char* text, const char* set, int mode) {
  size_t b = 0;
  size_t e = 0;
  auto in_set = [set](char c) { return InSet(set, c); };
  TrimRange(text, std::strlen(text), mode, in_set, in_set, &b, &e);
  return TrimInPlace(text, b, e);
}

std::string& Strip(std::string& text, int mode) {
  size_t b = 0;
  size_t e = 0;
  TrimRange(text.data(), text.size(), mode, IsBlankOrTab, IsTrailingSpace, &b, &e);
  return TrimString(text, b, e);
}

std::string& StripChar(std::string& text, const char* set, int mode) {
  size_t b = 0;
  size_t e = 0;
  auto in_set = [set](char c) { return InSet(set, c); };
  TrimRange(text.data(), text.size(), mode, in_set, in_set, &b, &e);
  return TrimString(text, b, e);
}

// --- Words ---

// The result is never longer than the source, and it is computed before out
// is written, so out may be the source buffer itself.
char* GetWord(const char* source, const char* delimiters, int first, int last, char* out) {
  return CopyOut(ExtractWords(source, delimiters, first, last, false), out);
}

char* GetWordKeepDelim(const char* source, const char* delimiters, int first, int last, char* out) {
  return CopyOut(ExtractWords(source, delimiters, first, last, true), out);
}

std::string GetWord(const char* source, const char* delimiters, int first, int last) {
  return ExtractWords(source, delimiters, first, last, false);
}

std::string GetWordKeepDelim(const char* source, const char* delimiters, int first, int last) {
  return ExtractWords(source, delimiters, first, last, true);
}

// --- Replacement ---

// Works in place with a trailing write cursor: the result is never longer
// than the text, so no working buffer (and no length limit) is needed. An
// empty sub removes nothing.
char* RemoveStr(char* text, const char* sub) {
  const size_t sub_len = std::strlen(sub);
  if (sub_len == 0) {
    return text;
  }
  char* write = text;
  const char* read = text;
  while (*read != '\0') {
    if (std::strncmp(read, sub, sub_len) == 0) {
      read += sub_len;
    } else {
      *write++ = *read++;
    }
  }
  *write = '\0';
  return text;
}

std::string& ReplaceStr(std::string& text, const char* old, const char* new_text, int flag) {
  text = Replaced(text.c_str(), text.size(), old, new_text, flag);
  return text;
}

char* ReplaceStr2(char** text_ref, const char* old, const char* new_text, int flag) {
  if (*text_ref == nullptr) {
    return nullptr;
  }
  std::string result = Replaced(*text_ref, std::strlen(*text_ref), old, new_text, flag);
  safe_cpy(text_ref, result.c_str());
  return *text_ref;
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

std::optional<uint64_t> DecimalValue(std::string_view text, size_t max_digits) {
  if (text.empty() || text.size() > max_digits)
    return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9')
      return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return value;
}
