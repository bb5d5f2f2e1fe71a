#include "support/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/strings.h"
#include "testlib/testlib.h"

namespace {

// Each row: path, then "drive|dir|name|ext". Corners: a bare name yields
// nothing; only the part before a '|' counts; with one backslash and no
// extension the whole text is the directory; member form "LIB.PDS(MEMBER)"
// needs no '$' and ')' last; dataset form ("//...") appends no separator,
// converts nothing and cuts at the last dot of the whole path.
TEST(SplitPath, EveryCorner) {
  const std::pair<const char*, const char*> cases[] = {
      {"/a/b/c.txt", "|/a/b/|c|.txt"},
      {"/a/b.d/file", "|/a/b.d/|file|"},
      {"C:\\x\\y.c", "C:|/x/|y|.c"},
      {"Makefile", "|||"},
      {"", "|||"},
      {"a/b|c.d", "|a/|b|"},
      {"dir\\file", "|dir/file/||"},
      {"a\\b\\c.d", "|a/b/|c|.d"},
      {"..x", "|./||.x"},
      {"LIB.PDS(MEMBER)", "|LIB/|MEMBER|.PDS"},
      {"lib.a(b.o)", "|lib.a(b/|b.o|.o)"},
      {"LIB$X.PDS(MEMBER)", "||LIB$X|.PDS(MEMBER)"},
      {"LIB.PDS(MEMBER)x", "||LIB|.PDS(MEMBER)x"},
      {"//HLQ.SRC(MEMBER)", "|//HLQ.|MEMBER|SRC"},
      {"//'HLQ.SRC(MEM)'", "|//'HLQ.|MEM|SRC"},
      {"//HLQ.SRC)X(", "|//HLQ.||"},
      {"//HLQ", "|||//HLQ"},
      {"//A.B|x.y", "|//A.B|x.||y"}};
  for (const auto& [path, parts] : cases) {
    std::string drive = "old", dir = "old", name = "old", ext = "old";
    SplitPath(path, drive, dir, name, ext);
    EXPECT_EQ(drive + "|" + dir + "|" + name + "|" + ext, parts) << path;
  }
}

TEST(ReplaceSlash, ConvertsBothOldSeparatorsOrByTheGivenOne) {
  std::string text = "a\\b/c\\";
  EXPECT_STREQ(ReplaceSlash(text.data()), "a/b/c/");
  for (const auto& [slash, out] : {std::pair{'/', "a/b/c"}, {'\\', "a\\b\\c"}, {'|', "a|b|c"}}) {
    std::string s = "a\\b/c", t = s;
    EXPECT_EQ(ReplaceSlash2(s, slash), out);
    EXPECT_STREQ(ReplaceSlash2(t.data(), slash), out);
  }
}

// A leading ".." nobody can resolve is dropped; ":/../" is replaced before
// splitting; "/./" replacement does not rescan; an absolute path only gets
// the first step.
TEST(CanonicalPath, ResolvesByTheBackwardRule) {
  // clang-format off
  std::vector<std::pair<std::string, std::string>> cases = {
      {"a/b/../c", "a/c"}, {"../x", "x"}, {"a/../../x", "a/x"}, {"../..", ""}, {"C:/../x", "C:/x"},
      {"C:", "C:/"}, {"a\\.\\b", "a/b"}, {"a/./././b", "a/./b"}, {"a//b///", "a/b"}, {"", ""},
      {"/abs/./x/../y", "/abs/x/../y"}};
  // clang-format on
  cases.emplace_back("", "");  // any number of segments
  for (int i = 0; i < 5000; ++i) {
    cases.back().first += "s" + std::to_string(i) + "/x/../";
    cases.back().second += (i == 0 ? "s" : "/s") + std::to_string(i);
  }
  for (const auto& [in, out] : cases) {
    char* s = nullptr;
    safe_cpy(&s, in.c_str());
    EXPECT_EQ(CanonicalPath(&s), 0);
    EXPECT_EQ(std::string(s), out) << in.substr(0, 40);
    safe_free(&s);
  }
  EXPECT_EQ(CanonicalPath(nullptr), 0);
}

TEST(Pwd, SetPwdReportsBothLocationsAndOnlyRemembersDatasets) {
  wltest::TempDir tmp;
  wltest::ScopedCwd cwd(tmp.path());
  const std::string start = GetPwd();
  const std::string sub = start + "/sub";
  wltest::MakeDirs(tmp / "sub");
  // dir, result, before, after, the process's own directory after.
  const std::tuple<const char*, int, std::string, std::string, std::string> steps[] = {
      {"sub", 1, start, sub, sub},
      {"missing", 0, sub, sub, sub},
      {"//HLQ.WORK", 1, sub, "//HLQ.WORK", sub},
      {start.c_str(), 1, "//HLQ.WORK", start, start},
  };
  for (const auto& [dir, result, want_before, want_after, real] : steps) {
    std::string before = "x", after = "y";
    EXPECT_EQ(SetPwd(dir, before, after), result) << dir;
    EXPECT_EQ(before + " " + after + " " + GetPwd(),
              want_before + " " + want_after + " " + want_after);
    EXPECT_EQ(PwdInMVS, want_after == "//HLQ.WORK" ? 1 : 0) << dir;
    char* own = getcwd(nullptr, 0);
    EXPECT_EQ(std::string(own), real) << dir;
    std::free(own);
  }
  Cwd.clear();
}

TEST(Pwd, WorksBeyondFourKilobytes) {
  wltest::TempDir tmp;
  wltest::ScopedCwd cwd(tmp.path());
  std::string expect = GetPwd();
  const std::string step(200, 'd');
  for (int depth = 0; depth < 25; ++depth, expect += "/" + step)
    ASSERT_EQ(mkdir(step.c_str(), 0700) + chdir(step.c_str()), 0);
  EXPECT_EQ(GetPwd(), expect);  // 25 * 201 bytes more
  for (int depth = 0; depth < 25; ++depth)  // too deep for absolute paths: climb out
    ASSERT_EQ(chdir("..") + rmdir(step.c_str()), 0);
}

TEST(DateTime, LocalTimeMonthFirst) {
  const std::tuple<const char*, int64_t, const char*> cases[] = {
      // Up to 1 second the fixed text, in every zone; from 2 the local time.
      {"EST5", 1, "01/01/1970 00:00:01"},
      {"EST5", 2, "12/31/1969 19:00:02"},
      {"WLT-3", 0, "01/01/1970 00:00:01"},
      {"WLT-3", 2, "01/01/1970 03:00:02"},
      {"UTC", 1602666300, "10/14/2020 09:05:00"},
      {"EST5", 1602666300, "10/14/2020 04:05:00"},
      // The last second of a year and the first of the next, per zone; a leap day.
      {"UTC", 1609459199, "12/31/2020 23:59:59"},
      {"UTC", 1609459200, "01/01/2021 00:00:00"},
      {"WLT-3", 1609448399, "12/31/2020 23:59:59"},
      {"WLT-3", 1609448400, "01/01/2021 00:00:00"},
      {"EST5EDT,M3.2.0,M11.1.0", 1609477199, "12/31/2020 23:59:59"},
      {"EST5EDT,M3.2.0,M11.1.0", 1609477200, "01/01/2021 00:00:00"},
      {"EST5EDT,M3.2.0,M11.1.0", 1583038799, "02/29/2020 23:59:59"},
      {"EST5EDT,M3.2.0,M11.1.0", 1583650800, "03/08/2020 03:00:00"},  // summer time begins
      // The last second the C library breaks down: tm_year is INT_MAX.
      {"UTC", 67768036191676799, "12/31/2147485547 23:59:59"},
      {"UTC", 67768036191676800, "01/01/1970 00:00:01"},
  };
  for (const auto& [zone, seconds, text] : cases) {
    wltest::ScopedEnv tz("TZ", std::string(zone));
    tzset();
    EXPECT_EQ(DateTime(seconds), text) << zone << " " << seconds;
  }
  tzset();  // back to the zone the environment now holds
}

TEST(CreateDir, MakesEveryMissingLevel) {
  wltest::TempDir tmp;
  const mode_t old_mask = umask(022);
  EXPECT_EQ(CreateDir(tmp.path().c_str(), "a/b\\c//d"), 1);
  umask(old_mask);
  struct stat st {};
  ASSERT_EQ(stat((tmp / "a/b/c/d").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & (S_IFMT | 01777), S_IFDIR | 01755u);  // 07777 less the mask
  wltest::ScopedCwd cwd(tmp.path());
  wltest::WriteFile(tmp / "file", "x");
  EXPECT_EQ(CreateDir(nullptr, "rel/one") + CreateDir("rel2", nullptr) +
                CreateDir(nullptr, nullptr) + CreateDir(tmp.path().c_str(), "file/sub"),
            4);  // a file in the way is not reported
  EXPECT_EQ(wltest::ListDir(tmp.path()), (std::vector<std::string>{"a", "file", "rel", "rel2"}));
}

}  // namespace
