#include "support/strings.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The capacity word read straight from memory, independent of safe_capacity.
uint64_t RawCapacity(const void* p) {
  uint64_t word = 0;
  std::memcpy(&word, static_cast<const char*>(p) - sizeof word, sizeof word);
  return word;
}

TEST(Charmap, FoldsExactlyTheTwoCapitalRuns) {
  for (unsigned c = 0; c < 256; ++c) {
    const bool folds = (c >= 0x41 && c <= 0x5A) || (c >= 0xC1 && c <= 0xDA);
    EXPECT_EQ(charmap[c], folds ? c + 0x20 : c) << "byte 0x" << std::hex << c;
  }
  EXPECT_EQ(charmap[0x41], 0x61);
  EXPECT_EQ(charmap[0xC1], 0xE1);
  EXPECT_EQ(charmap[0xD7], 0xF7);
  EXPECT_EQ(charmap[0xC0], 0xC0);
  EXPECT_EQ(charmap[0xDB], 0xDB);
  EXPECT_EQ(charmap[0xDE], 0xDE);
}

TEST(CaseConversion, UsesTheCLibraryTables) {
  std::string s = "abc-XYZ_09\xE1\xC1";
  StrUpr(s.data());
  EXPECT_EQ(s, "ABC-XYZ_09\xE1\xC1");
  StrLwr(s.data());
  EXPECT_EQ(s, "abc-xyz_09\xE1\xC1");
}

struct CompareCase {
  const char* a;
  const char* b;
  int flag;
  int32_t expected;
};

TEST(CompareTo, ReturnsTheDifferenceOfTheFirstDifferingBytes) {
  const CompareCase cases[] = {
      {"abc", "abc", 1, 0},
      {"abc", "abd", 1, -1},
      {"abd", "abc", 0, 1},
      {"svn", "SVN", 0, 0},
      {"svn", "SVN", 1, 's' - 'S'},
      {"a", "B", 0, 'a' - 'b'},
      {"a", "B", 1, 'a' - 'B'},
      {"ab", "abc", 1, -'c'},
      {"abc", "ab", 0, 'c'},
      {"", "", 0, 0},
      {"\xE1", "a", 1, 0xE1 - 0x61},  // bytes compare unsigned
      {"\xC1", "\xE1", 0, 0},
      {"\xC1", "\xE1", 1, 0xC1 - 0xE1},
      {"\xC0", "\xE0", 0, 0xC0 - 0xE0},
      {"[", "{", 0, '[' - '{'},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CompareTo(c.a, c.b, c.flag), c.expected) << c.a << " | " << c.b << " flag " << c.flag;
    EXPECT_EQ(IsEqual(c.a, c.b, c.flag), c.expected == 0 ? 1 : 0) << c.a << " | " << c.b;
  }
}

TEST(CompareToN, ComparesAtMostNPositions) {
  struct Case {
    const char* a;
    const char* b;
    size_t n;
    int flag;
    int32_t expected;
  };
  const Case cases[] = {
      {"abc", "xyz", 0, 0, 0},         {"abc", "xyz", 0, 1, 0},    {"", "xyz", 0, 1, 0},
      {"abcX", "abcY", 3, 1, 0},       {"abcX", "abcY", 4, 1, -1}, {"ab", "ab", 10, 1, 0},
      {"ab", "abc", 3, 1, -'c'},       {"abc", "ab", 5, 1, 'c'},   {"ABx", "aby", 2, 0, 0},
      {"ABx", "aby", 2, 1, 'A' - 'a'},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CompareToN(c.a, c.b, c.n, c.flag), c.expected)
        << c.a << " | " << c.b << " n " << c.n << " flag " << c.flag;
  }
}

TEST(IsNEqual, FollowsTheLengthRules) {
  struct Case {
    const char* a;
    const char* b;
    size_t n;
    int flag;
    int expected;
  };
  const Case cases[] = {
      {"abc", "abc", 5, 1, 1},   // equal strings shorter than n
      {"abc", "abcd", 3, 1, 1},  // a not shorter than n
      {"abc", "abcd", 4, 1, 0},  // a shorter than b and n: only a prefix
      {"abcd", "abc", 3, 1, 1}, {"abcd", "abc", 4, 1, 0}, {"abcd", "abc", 9, 1, 0},
      {"", "abc", 3, 1, 0},     {"abc", "", 3, 1, 0},     {"", "", 0, 1, 0},
      {"ABC", "abc", 3, 0, 1},  {"ABC", "abc", 3, 1, 0},  {"abx", "aby", 2, 1, 1},
      {"abx", "aby", 3, 1, 0},  {"abc", "abd", 0, 1, 1},  {"a", "b", 0, 1, 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(IsNEqual(c.a, c.b, c.n, c.flag), c.expected)
        << c.a << " | " << c.b << " n " << c.n << " flag " << c.flag;
  }
}

TEST(EndsWith, ComparesTheTail) {
  struct Case {
    const char* text;
    const char* suffix;
    int flag;
    int expected;
  };
  const Case cases[] = {
      {"name.PJ", ".pj", 0, 1}, {"name.PJ", ".pj", 1, 0}, {"name.PJ", ".PJ", 1, 1},
      {"name.PJ", "", 0, 0},    {"", "", 0, 0},           {"", "x", 0, 0},
      {"pj", "x.pj", 0, 0},     {"abc", "abc", 1, 1},     {"abc", "xbc", 1, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(EndsWith(c.text, c.suffix, c.flag), c.expected)
        << c.text << " | " << c.suffix << " flag " << c.flag;
  }
}

TEST(LongTexts, CompareBeyondTheOldSixteenBitCounter) {
  std::string a(70000, 'x');
  std::string b = a;
  b.back() = 'y';
  EXPECT_EQ(IsNEqual(a.c_str(), a.c_str(), a.size(), 1), 1);
  EXPECT_EQ(IsNEqual(a.c_str(), b.c_str(), b.size(), 1), 0);
  EXPECT_EQ(EndsWith(a.c_str(), a.c_str(), 0), 1);
  EXPECT_EQ(EndsWith(b.c_str(), a.c_str(), 0), 0);
}

TEST(FindStr, ReturnsAPointerIntoTheCallersText) {
  const char* hay = "one Two three";
  EXPECT_EQ(FindStr(hay, "Two", 1), hay + 4);
  EXPECT_EQ(FindStr(hay, "two", 1), nullptr);
  EXPECT_EQ(FindStr(hay, "two", 0), hay + 4);
  EXPECT_EQ(FindStr(hay, "THREE", 0), hay + 8);
  EXPECT_EQ(FindStr(hay, "four", 0), nullptr);
  char buf[] = "aXb";
  char* found = FindStr(buf, "xB", 0);
  ASSERT_EQ(found, buf + 1);
  *found = '-';
  EXPECT_STREQ(buf, "a-b");
}

struct StripCase {
  std::string in;
  int mode;
  std::string out;
};

TEST(Strip, TrimsBlanksTabsAndTrailingNewlines) {
  const std::vector<StripCase> cases = {
      {" \t a b \t\n", 0, "a b \t\n"},
      {" \t a b \t\n", 1, " \t a b"},
      {" \t a b \t\n", 2, "a b"},
      {" \t a b \t\n", 3, " \t a b \t\n"},
      {" \t a b \t\n", -1, " \t a b \t\n"},
      {"line\r\n", 1, "line\r"},  // carriage returns stay
      {"\r line", 0, "\r line"},
      {"\n line", 0, "\n line"},  // a leading newline stays
      {"\n line \n\n", 2, "\n line"},
      {"   ", 0, ""},
      {"   ", 1, ""},
      {"   ", 2, ""},
      {"", 0, ""},
      {"", 1, ""},
      {"", 2, ""},
      {"x", 2, "x"},
  };
  for (const auto& c : cases) {
    std::vector<char> buf(c.in.begin(), c.in.end());
    buf.push_back('\0');
    EXPECT_EQ(std::string(Strip(buf.data(), c.mode)), c.out) << "'" << c.in << "' mode " << c.mode;
    std::string s = c.in;
    EXPECT_EQ(Strip(s, c.mode), c.out) << "'" << c.in << "' mode " << c.mode << " (std::string)";
  }
}

TEST(StripChar, TrimsExactlyTheGivenSet) {
  const std::vector<StripCase> cases = {
      {"//a/b///", 1, "//a/b"}, {"//a/b///", 0, "a/b///"},
      {"//a/b///", 2, "a/b"},   {"//a/b///", 5, "//a/b///"},
      {"///", 1, ""},           {"", 2, ""},
      {" a/ ", 2, " a/ "},
  };
  for (const auto& c : cases) {
    std::vector<char> buf(c.in.begin(), c.in.end());
    buf.push_back('\0');
    EXPECT_EQ(std::string(StripChar(buf.data(), "/", c.mode)), c.out)
        << "'" << c.in << "' mode " << c.mode;
    std::string s = c.in;
    EXPECT_EQ(StripChar(s, "/", c.mode), c.out) << "'" << c.in << "' mode " << c.mode;
  }
  std::string with_nul("\0a\0", 3);  // a NUL is never part of the set
  EXPECT_EQ(StripChar(with_nul, "/", 2), with_nul);
  char several[] = ",;a;b,;";
  EXPECT_STREQ(StripChar(several, ",;", 2), "a;b");
}

struct WordCase {
  const char* source;
  const char* delims;
  int first;
  int last;
  const char* word;
  const char* keep_delim;
};

TEST(GetWord, NumbersWordsAndRemovesSeparators) {
  const char* abc = "  a  b c ";
  const WordCase cases[] = {
      {abc, " ", 2, 2, "b", "b"},
      {abc, " ", 2, 99, "b c", "b c"},
      {abc, " ", 4, 4, "", ""},
      {abc, " ", 1, 1, "a", "a"},
      {abc, " ", 1, 3, "a b c", "a b c"},
      {abc, " ", 0, 1, "a", "a"},
      {abc, " ", 3, 2, "", ""},
      {abc, " ", 1, INT_MAX, "a b c", "a b c"},
      {"a,b;c", ",;", 1, 2, "a b", "a,b"},
      {"a,b;c", ",;", 2, 3, "b c", "b;c"},
      {"a,b;c", ",;", 1, 9, "a b c", "a,b;c"},
      {"a,,;b", ",;", 1, 2, "a b", "a,b"},
      {"a,b,", ",", 1, 9, "a b", "a,b"},
      {"", " ", 1, 9, "", ""},
      {" ,, ", ", ", 1, 9, "", ""},
      {"word", " ", 1, 1, "word", "word"},
      {"word", " ", 2, 2, "", ""},
      {"a\tb", " \t", 2, 2, "b", "b"},
      {"a b", "", 1, 1, "a b", "a b"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(GetWord(c.source, c.delims, c.first, c.last), c.word)
        << "'" << c.source << "' " << c.first << ".." << c.last;
    EXPECT_EQ(GetWordKeepDelim(c.source, c.delims, c.first, c.last), c.keep_delim)
        << "'" << c.source << "' " << c.first << ".." << c.last << " (keep delimiters)";
    std::vector<char> out(std::strlen(c.source) + 1, 'Z');
    EXPECT_STREQ(GetWord(c.source, c.delims, c.first, c.last, out.data()), c.word);
    EXPECT_STREQ(GetWordKeepDelim(c.source, c.delims, c.first, c.last, out.data()), c.keep_delim);
  }
}

TEST(GetWord, OutMayBeTheSourceBuffer) {
  char line[] = "rev 123 path/to/file";
  EXPECT_STREQ(GetWord(line, " ", 2, 99, line), "123 path/to/file");
}

TEST(RemoveStr, DeletesEveryOccurrenceLeftToRight) {
  struct Case {
    const char* in;
    const char* sub;
    const char* out;
  };
  const Case cases[] = {
      {"aXXbXXXc", "XX", "abXc"}, {"XXXX", "XX", ""}, {"abc", "d", "abc"},
      {"abc", "", "abc"},         {"", "a", ""},      {"aAa", "a", "A"},
  };
  for (const auto& c : cases) {
    std::string buf = c.in;
    EXPECT_STREQ(RemoveStr(buf.data(), c.sub), c.out) << c.in << " - " << c.sub;
  }
  std::string big;
  for (int i = 0; i < 3000; ++i) {
    big += "ab";
  }
  EXPECT_STREQ(RemoveStr(big.data(), "b"), std::string(3000, 'a').c_str());
}

TEST(ReplaceStr, ReplacesWithoutRescanning) {
  struct Case {
    const char* in;
    const char* old_text;
    const char* new_text;
    int flag;
    const char* out;
  };
  const Case cases[] = {
      {"a\\b\\c", "\\", "/", 1, "a/b/c"},
      {"abAB", "AB", "x", 0, "xx"},
      {"abAB", "AB", "x", 1, "abx"},
      {"aaa", "aa", "b", 1, "ba"},
      {"ab", "a", "aa", 1, "aab"},
      {"abc", "abcd", "x", 1, "abc"},
      {"abc", "", "x", 1, "abc"},
      {"abc", "b", "", 1, "ac"},
      {"", "a", "b", 1, ""},
  };
  for (const auto& c : cases) {
    std::string s = c.in;
    EXPECT_EQ(ReplaceStr(s, c.old_text, c.new_text, c.flag), c.out)
        << c.in << " " << c.old_text << "->" << c.new_text;
    char* safe = nullptr;
    safe_cpy(&safe, c.in);
    char* result = ReplaceStr2(&safe, c.old_text, c.new_text, c.flag);
    EXPECT_EQ(result, safe);
    EXPECT_STREQ(safe, c.out);
    safe_free(&safe);
  }
}

TEST(ReplaceStr2, RegrowsTheSafeStringToTheExactLength) {
  char* s = nullptr;
  safe_cpy(&s, "a|b");
  ASSERT_EQ(safe_capacity(s), 50u);
  const std::string long_text(60, 'x');
  ReplaceStr2(&s, "|", long_text.c_str(), 1);
  EXPECT_EQ(std::string(s), "a" + long_text + "b");
  EXPECT_EQ(safe_capacity(s), 62u);
  safe_free(&s);
  char* none = nullptr;
  EXPECT_EQ(ReplaceStr2(&none, "a", "b", 1), nullptr);
}

TEST(Tmalloc, StoresTheSizeBeforeAZeroedBlock) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{24}, size_t{1000}}) {
    auto* p = static_cast<unsigned char*>(tmalloc(size));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(RawCapacity(p), size);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u);
    for (size_t i = 0; i < size; ++i) {
      ASSERT_EQ(p[i], 0) << "byte " << i << " of " << size;
    }
    tfree(p);
  }
  tfree(nullptr);
}

TEST(Tmalloc, SizeThatWouldWrapIsOutOfMemory) {
  // Run the failing call in a child whose standard output is a pipe, so the
  // exact bytes and the exit status can be checked.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::fflush(nullptr);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    tmalloc(SIZE_MAX);
    _exit(99);  // not reached
  }
  close(fds[1]);
  std::string out;
  char buf[256];
  ssize_t got = 0;
  while ((got = read(fds[0], buf, sizeof buf)) > 0) {
    out.append(buf, static_cast<size_t>(got));
  }
  close(fds[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(out, "Out of memory (tmalloc)\n");
}

TEST(SafeString, StrMallocCapacityIsAtLeastFifty) {
  struct Case {
    size_t len;
    uint64_t capacity;
  };
  for (const Case c : {Case{0, 50}, Case{10, 50}, Case{50, 50}, Case{51, 51}, Case{300, 300}}) {
    const std::string text(c.len, 'q');
    char* s = str_malloc(text.c_str());
    EXPECT_EQ(RawCapacity(s), c.capacity) << "length " << c.len;
    EXPECT_EQ(safe_capacity(s), c.capacity);
    for (size_t i = 0; i <= c.capacity; ++i) {
      ASSERT_EQ(s[i], '\0') << "byte " << i;  // zeroed, text not copied
    }
    safe_free(&s);
    EXPECT_EQ(s, nullptr);
  }
}

TEST(SafeString, GrowthRule) {
  char* s = nullptr;
  safe_cpy(&s, "0123456789");
  EXPECT_STREQ(s, "0123456789");
  EXPECT_EQ(safe_capacity(s), 50u);

  safe_cat(&s, std::string(45, 'c').c_str());
  EXPECT_EQ(safe_capacity(s), 55u);
  EXPECT_EQ(std::string(s), "0123456789" + std::string(45, 'c'));

  // Fits: same block, same capacity.
  char* before = s;
  safe_cpy(&s, "short");
  EXPECT_EQ(s, before);
  EXPECT_EQ(safe_capacity(s), 55u);
  EXPECT_STREQ(s, "short");
  safe_cat(&s, std::string(50, 'd').c_str());  // 55 exactly: still fits
  EXPECT_EQ(s, before);
  EXPECT_EQ(safe_capacity(s), 55u);

  // Too small: safe_cpy regrows to exactly the text's length.
  safe_cpy(&s, std::string(80, 'e').c_str());
  EXPECT_EQ(safe_capacity(s), 80u);
  EXPECT_EQ(std::string(s), std::string(80, 'e'));
  safe_free(&s);
  safe_free(&s);  // freeing the null string is harmless
  EXPECT_EQ(s, nullptr);
}

TEST(SafeString, NullAndEmptyArguments) {
  char* s = nullptr;
  safe_cpy(&s, nullptr);
  safe_cat(&s, nullptr);
  EXPECT_EQ(s, nullptr);
  safe_cat(&s, "");
  ASSERT_NE(s, nullptr);
  EXPECT_STREQ(s, "");
  EXPECT_EQ(safe_capacity(s), 50u);
  safe_cat(&s, "ab");
  safe_cat(&s, nullptr);
  EXPECT_STREQ(s, "ab");
  safe_free(&s);
  safe_cat(&s, "xyz");
  EXPECT_STREQ(s, "xyz");
  EXPECT_EQ(safe_capacity(s), 50u);
  safe_free(&s);
  EXPECT_EQ(safe_capacity(nullptr), 0u);
  safe_free(nullptr);
}

TEST(SafeString, SourceMayLieInsideTheTarget) {
  char* s = nullptr;
  safe_cpy(&s, std::string(40, 'a').c_str());
  safe_cat(&s, s);  // 80 > 50: regrows while reading the old block
  EXPECT_EQ(std::string(s), std::string(80, 'a'));
  EXPECT_EQ(safe_capacity(s), 80u);
  safe_cpy(&s, s + 70);
  EXPECT_EQ(std::string(s), std::string(10, 'a'));
  safe_free(&s);
}

TEST(StringHolder, CopyAndConcatGrowthRule) {
  StringHolder h{nullptr, 0};
  EXPECT_STREQ(StringCopy(&h, "abc"), "abc");
  EXPECT_EQ(h.capacity, 3);
  char* before = h.buf;
  EXPECT_STREQ(StringCopy(&h, "ab"), "ab");  // 3 > 2: kept
  EXPECT_EQ(h.buf, before);
  EXPECT_EQ(h.capacity, 3);
  EXPECT_STREQ(StringCopy(&h, "xyz"), "xyz");  // 3 is not > 3: regrown
  EXPECT_EQ(h.capacity, 3);
  EXPECT_STREQ(StringConcat(&h, "de"), "xyzde");
  EXPECT_EQ(h.capacity, 5);
  EXPECT_STREQ(StringCopy(&h, "1"), "1");
  EXPECT_EQ(h.capacity, 5);
  EXPECT_STREQ(StringConcat(&h, "2"), "12");  // 5 > 2: in place
  EXPECT_EQ(h.capacity, 5);

  // Far beyond the old 4,120-byte working buffer.
  std::string expect = "12";
  const std::string chunk(1000, 'k');
  for (int i = 0; i < 10; ++i) {
    StringConcat(&h, chunk.c_str());
    expect += chunk;
  }
  EXPECT_EQ(std::string(h.buf), expect);
  EXPECT_EQ(h.capacity, static_cast<int32_t>(expect.size()));
  std::free(h.buf);

  StringHolder empty{nullptr, 0};
  EXPECT_STREQ(StringConcat(&empty, "x"), "x");
  EXPECT_EQ(empty.capacity, 1);
  std::free(empty.buf);
}

}  // namespace
