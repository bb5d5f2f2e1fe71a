#include "support/strings.h"
#include "support/shellquote.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>

namespace {

TEST(Charmap, FoldsExactlyTheTwoCapitalRuns) {
  for (unsigned c = 0; c < 256; ++c) {
    const bool folds = (c >= 0x41 && c <= 0x5A) || (c >= 0xC1 && c <= 0xDA);
    EXPECT_EQ(charmap[c], folds ? c + 0x20 : c) << "byte 0x" << std::hex << c;
  }
}

// n == SIZE_MAX rows also go through CompareTo and IsEqual. Bytes compare
// unsigned.
TEST(Compare, DifferenceOfTheFirstDifferingFoldedBytes) {
  const std::tuple<const char*, const char*, size_t, int, int32_t> cases[] = {
      {"svn", "SVN", SIZE_MAX, 0, 0},
      {"svn", "SVN", SIZE_MAX, 1, 's' - 'S'},
      {"ab", "abc", SIZE_MAX, 1, -'c'},
      {"\xE1", "a", SIZE_MAX, 1, 0xE1 - 0x61},
      {"\xC0", "\xE0", SIZE_MAX, 0, 0xC0 - 0xE0},
      {"abc", "xyz", 0, 1, 0},
      {"abcX", "abcY", 4, 1, -1},
      {"ABx", "aby", 2, 1, 'A' - 'a'}};
  for (const auto& [a, b, n, flag, want] : cases) {
    EXPECT_EQ(CompareToN(a, b, n, flag), want) << a << " | " << b << " n " << n << " " << flag;
    if (n == SIZE_MAX) {
      EXPECT_EQ(CompareTo(a, b, flag), want) << a << " | " << b << " flag " << flag;
      EXPECT_EQ(IsEqual(a, b, flag), want == 0 ? 1 : 0) << a << " | " << b << " flag " << flag;
    }
  }
}

// IsNEqual's length rules; rows with n == 0 are EndsWith(a, b) instead.
TEST(Compare, IsNEqualLengthRulesEndsWithAndFindStr) {
  const std::tuple<const char*, const char*, size_t, int, int> cases[] = {
      {"abc", "abc", 5, 1, 1},  {"abc", "abcd", 3, 1, 1}, {"abc", "abcd", 4, 1, 0},
      {"abcd", "abc", 3, 1, 1}, {"abcd", "abc", 4, 1, 0}, {"abcd", "abc", 9, 1, 0},
      {"", "abc", 3, 1, 0},     {"abc", "", 3, 1, 0},     {"ABC", "abc", 3, 0, 1},
      {"ABC", "abc", 3, 1, 0},  {"abx", "aby", 2, 1, 1},  {"abx", "aby", 3, 1, 0},
      {"a.PJ", ".pj", 0, 0, 1}, {"a.PJ", ".pj", 0, 1, 0}, {"a.PJ", "", 0, 0, 0},
      {"pj", "x.pj", 0, 0, 0},  {"abc", "abc", 0, 1, 1},  {"abc", "xbc", 0, 1, 0},
  };
  for (const auto& [a, b, n, flag, want] : cases) {
    const int got = n == 0 ? EndsWith(a, b, flag) : IsNEqual(a, b, n, flag);
    EXPECT_EQ(got, want) << a << " | " << b << " n " << n << " flag " << flag;
  }
  // Beyond the old 16-bit position counter.
  const std::string a(70000, 'x'), b = a.substr(1) + "y";
  EXPECT_EQ(IsNEqual(a.c_str(), a.c_str(), a.size(), 1), 1);
  EXPECT_EQ(IsNEqual(a.c_str(), b.c_str(), b.size(), 1), 0);
  EXPECT_EQ(EndsWith(b.c_str(), a.c_str(), 0), 0);
  const char* hay = "one Two three";  // FindStr points into the caller's text
  EXPECT_EQ(FindStr(hay, "two", 1), nullptr);
  EXPECT_EQ(FindStr(hay, "two", 0), hay + 4);
  EXPECT_EQ(FindStr(hay, "THREE", 0), hay + 8);
}

// A null set means Strip (blanks/tabs, plus newlines at the end).
TEST(Strip, TrimsBlanksOrTheGivenSet) {
  // A NUL is never part of the set.
  const std::tuple<std::string, const char*, int, std::string> cases[] = {
      {" \t a b \t\n", nullptr, 1, " \t a b"},
      {" \t a b \t\n", nullptr, 2, "a b"},
      {"line\r\n", nullptr, 1, "line\r"},
      {"\n line \n\n", nullptr, 2, "\n line"},
      {"//a/b///", "/", 2, "a/b"},
      {",;a;b,;", ",;", 2, "a;b"},
      {std::string("\0a\0", 3), "/", 2, std::string("\0a\0", 3)}};
  for (const auto& [in, set, mode, out] : cases) {
    SCOPED_TRACE("'" + in + "' mode " + std::to_string(mode));
    std::string buf = in, s = in;
    EXPECT_STREQ(set ? StripChar(buf.data(), set, mode) : Strip(buf.data(), mode), out.c_str());
    EXPECT_EQ(set ? StripChar(s, set, mode) : Strip(s, mode), out);
  }
}

TEST(GetWord, NumbersWordsFromOne) {
  const std::tuple<const char*, const char*, int, int, const char*, const char*> cases[] = {
      {"  a  b c ", " ", 2, 2, "b", "b"},  {"  a  b c ", " ", 2, 99, "b c", "b c"},
      {"  a  b c ", " ", 4, 4, "", ""},    {"  a  b c ", " ", 0, 1, "a", "a"},
      {"  a  b c ", " ", 3, 2, "", ""},    {"  a  b c ", " ", 1, INT_MAX, "a b c", "a b c"},
      {"a,b;c", ",;", 2, 3, "b c", "b;c"}, {"a,,;b", ",;", 1, 2, "a b", "a,b"},
      {"a,b,", ",", 1, 9, "a b", "a,b"},   {" ,, ", ", ", 1, 9, "", ""},
      {"a b", "", 1, 1, "a b", "a b"},
  };
  for (const auto& [src, delims, first, last, word, keep] : cases) {
    SCOPED_TRACE(std::string(src) + " " + std::to_string(first) + ".." + std::to_string(last));
    EXPECT_EQ(GetWord(src, delims, first, last), word);
    EXPECT_EQ(GetWordKeepDelim(src, delims, first, last), keep);
    std::string out(src), out2(src);  // out may be the source buffer
    EXPECT_STREQ(GetWord(out.data(), delims, first, last, out.data()), word);
    EXPECT_STREQ(GetWordKeepDelim(out2.data(), delims, first, last, out2.data()), keep);
  }
}

// A null new text means RemoveStr.
TEST(ReplaceStr, LeftToRightWithoutRescanning) {
  const std::tuple<const char*, const char*, const char*, int, const char*> cases[] = {
      {"abAB", "AB", "x", 0, "xx"},  {"abAB", "AB", "x", 1, "abx"},
      {"aaa", "aa", "b", 1, "ba"},   {"ab", "a", "aa", 1, "aab"},
      {"abc", "b", "", 1, "ac"},     {"aXXbXXXc", "XX", nullptr, 1, "abXc"},
      {"XXXX", "XX", nullptr, 1, ""}};
  for (const auto& [in, old_text, new_text, flag, out] : cases) {
    std::string s = in;
    EXPECT_EQ(new_text ? ReplaceStr(s, old_text, new_text, flag) : RemoveStr(s.data(), old_text),
              std::string(out))
        << in << " " << old_text;
  }
  char* s = nullptr;  // the safe-string form regrows to exactly the new length
  safe_cpy(&s, "a|B|");
  EXPECT_EQ(ReplaceStr2(&s, "|b", std::string(60, 'x').c_str(), 0), s);
  EXPECT_EQ(std::string(s), "a" + std::string(60, 'x') + "|");
  EXPECT_EQ(safe_capacity(s), 62u);
  safe_free(&s);
  EXPECT_EQ(ReplaceStr2(&s, "a", "b", 1), nullptr);
}

TEST(Tmalloc, ZeroedBlockOrTheOutOfMemoryExit) {
  auto* p = static_cast<char*>(tmalloc(1000));
  EXPECT_EQ(std::string(p, 1000), std::string(1000, '\0'));
  tfree(p);
  // A size that would wrap; standard output goes to the checked stderr.
  EXPECT_EXIT((dup2(2, 1), tmalloc(SIZE_MAX)), testing::ExitedWithCode(1),
              "^Out of memory \\(tmalloc\\)\n$");
}

TEST(SafeString, CapacityAndGrowth) {
  for (size_t len : {0, 50, 51}) {
    char* s = str_malloc(std::string(len, 'q').c_str());
    const size_t capacity = len < 50 ? 50 : len;
    EXPECT_EQ(safe_capacity(s), capacity);
    EXPECT_EQ(std::string(s, capacity + 1), std::string(capacity + 1, '\0'));  // not copied
    safe_free(&s);
    EXPECT_EQ(s, nullptr);
  }
  char* s = nullptr;
  safe_cpy(&s, nullptr);
  safe_cat(&s, nullptr);
  EXPECT_EQ(s, nullptr);
  safe_cat(&s, std::string(40, 'a').c_str());
  EXPECT_EQ(safe_capacity(s), 50u);
  safe_cat(&s, s);  // regrows to old + new length while reading the old block
  EXPECT_EQ(std::string(s), std::string(80, 'a'));
  EXPECT_EQ(safe_capacity(s), 80u);
  char* before = s;
  safe_cpy(&s, s + 75);
  safe_cat(&s, std::string(75, 'd').c_str());  // 80 exactly: same block
  EXPECT_EQ(std::string(s), std::string(5, 'a') + std::string(75, 'd'));
  EXPECT_EQ(s, before);
  safe_cpy(&s, std::string(81, 'e').c_str());  // too small: exactly the text
  EXPECT_EQ(safe_capacity(s), 81u);
  safe_free(&s);
  safe_free(&s);
  EXPECT_EQ(safe_capacity(nullptr), 0u);
}

// Held texts live until their arena goes; the sanitizer build checks that no
// call below frees one or writes outside it.
TEST(SafeString, ArenaTextsAreWrittenInPlaceOrCopiedOut) {
  TextArena* arena = NewArena();
  char* own = ArenaText(arena, "ab", 4);
  char* const first = own;
  EXPECT_EQ(safe_capacity(own), 4u);
  safe_cat(&own, "cd");  // fits: in place
  EXPECT_EQ(own, first);
  safe_cpy(&own, "abcde");  // does not: a heap block of exactly the text
  EXPECT_NE(own, first);
  EXPECT_EQ(safe_capacity(own), 5u);
  EXPECT_STREQ(first, "abcd");
  safe_free(&own);

  char* shared = ArenaSharedText(arena, "/root");
  EXPECT_EQ(ArenaSharedText(arena, "/root"), shared);
  EXPECT_EQ(safe_capacity(shared), 5u);
  char* field = shared;
  safe_cpy(&field, "/root");  // the same text: nothing to do
  safe_cat(&field, "");
  EXPECT_EQ(field, shared);
  safe_cpy(&field, "/r");  // never written in place
  EXPECT_STREQ(shared, "/root");
  EXPECT_STREQ(field, "/r");
  safe_free(&field);
  field = shared;
  safe_cat(&field, "/x");
  EXPECT_STREQ(shared, "/root");
  EXPECT_STREQ(field, "/root/x");
  safe_free(&field);
  field = shared;
  safe_free(&field);  // forgets it only
  EXPECT_EQ(field, nullptr);

  auto* block = static_cast<char*>(ArenaBlock(arena, 100000));  // beyond a chunk
  EXPECT_EQ(std::string(block, 100000), std::string(100000, '\0'));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(void*), 0u);
  tfree(block);
  FreeArena(arena);
  FreeArena(nullptr);
}

TEST(StringHolder, RegrowsWhenCapacityIsNotGreater) {
  StringHolder h{nullptr, 0};
  std::string trace;
  auto step = [&](const char* result) { trace += result + std::to_string(h.capacity) + " "; };
  step(StringCopy(&h, "abc"));
  step(StringCopy(&h, "ab"));   // 3 > 2: kept
  step(StringCopy(&h, "xyz"));  // 3 is not > 3: regrown
  step(StringConcat(&h, "de"));
  step(StringCopy(&h, "1"));
  step(StringConcat(&h, "2"));
  const std::string chunk(10000, 'k');  // far beyond the old working buffer
  step(StringConcat(&h, chunk.c_str()));
  EXPECT_TRUE(trace == "abc3 ab3 xyz3 xyzde5 15 125 12" + chunk + "10002 ") << trace.substr(0, 60);
  std::free(h.buf);
}

TEST(ShellQuote, PlacesAndOperands) {
  constexpr ShellPlace kBare = ShellPlace::kBare, kQuoted = ShellPlace::kInDoubleQuotes;
  struct Case {
    std::string value;
    ShellPlace place;
    bool operand;
    std::string text;
  } cases[] = {
      {"src/a_b-1.2,+=@%:c", kBare, true, "src/a_b-1.2,+=@%:c"},
      {"", kBare, false, ""},
      {"a b", kBare, false, "'a b'"},
      {"it's", kBare, false, "'it'\\''s'"},
      {"$(x)`y`\n", kBare, false, "'$(x)`y`\n'"},
      {"-rf", kBare, true, "./-rf"},
      {"-rf", kBare, false, "-rf"},
      {"--a b", kBare, true, "'./--a b'"},
      {"a b;c|d&e'f", kQuoted, false, "a b;c|d&e'f"},
      {"q\"$`\\", kQuoted, false, "q\\\"\\$\\`\\\\"},
      {"-x y", kQuoted, true, "./-x y"},
      {"x-", kQuoted, true, "x-"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ShellQuote(c.value, c.place, c.operand), c.text) << c.value;
  // Bare, a single byte stays as it is exactly when the shell takes it
  // literally everywhere in an argument.
  for (int b = 1; b < 256; ++b) {
    const std::string v(1, static_cast<char>(b));
    const bool literal = std::isalnum(b) || std::strchr("_-./,+=@%:", b);
    EXPECT_EQ(ShellQuote(v, ShellPlace::kBare, false), literal ? v : "'" + (b == '\'' ? "'\\''" : v) + "'")
        << b;
  }
}

}  // namespace
