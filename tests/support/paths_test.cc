#include "support/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "support/strings.h"
#include "testlib/testlib.h"

extern char** environ;

namespace {

// Sets TZ and reloads the zone; on exit restores TZ and reloads again.
class ScopedTz {
 public:
  explicit ScopedTz(const char* zone) : env_(std::in_place, "TZ", std::string(zone)) { tzset(); }
  ~ScopedTz() {
    env_.reset();
    tzset();
  }

 private:
  std::optional<wltest::ScopedEnv> env_;
};

struct SplitCase {
  const char* path;
  const char* drive;
  const char* dir;
  const char* name;
  const char* ext;
};

TEST(SplitPath, EveryCorner) {
  const SplitCase cases[] = {
      // Ordinary paths.
      {"/a/b/c.txt", "", "/a/b/", "c", ".txt"},
      {"/a/b.d/file", "", "/a/b.d/", "file", ""},
      {"c.txt", "", "", "c", ".txt"},
      {"x/y.tar.gz", "", "x/", "y.tar", ".gz"},
      {"C:\\x\\y.c", "C:", "/x/", "y", ".c"},
      {"C:file.c", "C:", "", "file", ".c"},
      {"Makefile", "", "", "", ""},  // a bare name yields nothing
      {"", "", "", "", ""},
      {"/file", "", "", "file", ""},
      {"a/b/", "", "a/b/", "", ""},
      // Only the part before a '|' counts.
      {"/a/b/c.txt|other/x.y", "", "/a/b/", "c", ".txt"},
      {"a/b|c.d", "", "a/", "b", ""},
      // One backslash: the whole text is the directory.
      {"dir\\file", "", "dir/file/", "", ""},
      {"a/b\\c", "", "a/b/c/", "", ""},
      {"a\\b\\c", "", "a/b/", "c", ""},
      {"a\\b\\c.d", "", "a/b/", "c", ".d"},
      {"a\\c.d", "", "a/", "c", ".d"},  // with an extension one backslash is enough
      // Dots at the front.
      {"..x", "", "./", "", ".x"},
      {".profile", "", "", "", ".profile"},
      {"./a.b", "", "./", "a", ".b"},
      // Member form.
      {"LIB.PDS(MEMBER)", "", "LIB/", "MEMBER", ".PDS"},
      {"lib.a(b.o)", "", "lib.a(b/", "b.o", ".o)"},
      {"x/LIB.PDS(M)", "", "x/LIB/", "M", ".PDS"},
      {"LIB$X.PDS(MEMBER)", "", "", "LIB$X", ".PDS(MEMBER)"},  // '$': not a member
      {"LIB.PDS(MEMBER)x", "", "", "LIB", ".PDS(MEMBER)x"},    // ')' not last
      // Dataset form: no separator appended, nothing converted.
      {"//HLQ.SRC(MEMBER)", "", "//HLQ.", "MEMBER", "SRC"},
      {"//HLQ.SRC", "", "//HLQ.", "", "SRC"},
      {"//'HLQ.SRC(MEM)'", "", "//'HLQ.", "MEM", "SRC"},
      {"//HLQ.SRC(MEM ' )", "", "//HLQ.", "MEM", "SRC"},
      {"//HLQ.SRC)X(", "", "//HLQ.", "", ""},  // '(' after ')': stop
      {"//HLQ", "", "", "", "//HLQ"},
      {"//A\\B.C", "", "//A\\B.", "", "C"},
      {"//A.B|x.y", "", "//A.B|x.", "", "y"},  // the last dot of the whole path
  };
  for (const auto& c : cases) {
    std::string drive = "old";
    std::string dir = "old";
    std::string name = "old";
    std::string ext = "old";
    SplitPath(c.path, drive, dir, name, ext);
    EXPECT_EQ(drive, c.drive) << "drive of " << c.path;
    EXPECT_EQ(dir, c.dir) << "dir of " << c.path;
    EXPECT_EQ(name, c.name) << "name of " << c.path;
    EXPECT_EQ(ext, c.ext) << "ext of " << c.path;
  }
}

TEST(SplitPath, DirectoryFollowsTheSeparatorSettings) {
  const char saved = newslash;
  newslash = '\\';
  std::string drive, dir, name, ext;
  SplitPath("a\\b\\c.d", drive, dir, name, ext);
  newslash = saved;
  EXPECT_EQ(dir, "a\\b\\");
  EXPECT_EQ(name, "c");
}

TEST(ReplaceSlash, ConvertsBothOldSeparators) {
  char text[] = "a\\b/c\\";
  EXPECT_STREQ(ReplaceSlash(text), "a/b/c/");
  const char saved = oldslash2;
  oldslash2 = ':';
  std::string s = "c:\\x";
  EXPECT_EQ(ReplaceSlash(s), "c//x");
  oldslash2 = saved;
}

TEST(ReplaceSlash2, ChoosesByTheGivenSeparator) {
  struct Case {
    char slash;
    const char* out;
  };
  for (const Case c : {Case{'/', "a/b/c"}, Case{'\\', "a\\b\\c"}, Case{'|', "a|b|c"}}) {
    char text[] = "a\\b/c";
    EXPECT_STREQ(ReplaceSlash2(text, c.slash), c.out) << c.slash;
    std::string s = "a\\b/c";
    EXPECT_EQ(ReplaceSlash2(s, c.slash), c.out) << c.slash;
  }
}

struct CanonicalCase {
  const char* in;
  const char* out;
};

TEST(CanonicalPath, ResolvesByTheBackwardRule) {
  const CanonicalCase cases[] = {
      {"a/b/../c", "a/c"},
      {"../x", "x"},  // an unresolvable leading ".." is dropped
      {"a/../../x", "a/x"},
      {"x/../..", "x"},
      {"../..", ""},
      {"a/b/c/../../d", "a/d"},
      {"C:/../x", "C:/x"},  // by the ":/../" rule before splitting
      {"C:\\..\\x", "C:/x"},
      {"C:", "C:/"},
      {"C:/", "C:/"},
      {"a\\.\\b", "a/b"},
      {"a/./././b", "a/./b"},  // replacement does not rescan
      {"a//b///", "a/b"},
      {"", ""},
      {"/abs/./x/../y", "/abs/x/../y"},  // absolute: only the first step
      {"\\abs\\.\\x", "/abs/x"},
  };
  for (const auto& c : cases) {
    char* s = nullptr;
    safe_cpy(&s, c.in);
    EXPECT_EQ(CanonicalPath(&s), 0);
    EXPECT_STREQ(s, c.out) << c.in;
    safe_free(&s);
  }
  EXPECT_EQ(CanonicalPath(nullptr), 0);
}

TEST(CanonicalPath, HandlesAnyNumberOfSegments) {
  std::string in;
  std::string expect;
  for (int i = 0; i < 5000; ++i) {
    in += "s" + std::to_string(i) + "/x/../";
    expect += "s" + std::to_string(i) + "/";
  }
  expect.pop_back();
  char* s = nullptr;
  safe_cpy(&s, in.c_str());
  CanonicalPath(&s);
  EXPECT_EQ(std::string(s), expect);
  safe_free(&s);
}

TEST(Pwd, SetPwdChangesAndReportsBothLocations) {
  wltest::TempDir tmp;
  wltest::ScopedCwd cwd(tmp.path());
  const std::string start = GetPwd();
  wltest::MakeDirs(tmp / "sub");
  std::string before = "x";
  std::string after = "y";
  EXPECT_EQ(SetPwd("sub", before, after), 1);
  EXPECT_EQ(before, start);
  EXPECT_EQ(after, start + "/sub");
  EXPECT_EQ(GetPwd(), start + "/sub");

  EXPECT_EQ(SetPwd("missing", before, after), 0);
  EXPECT_EQ(before, start + "/sub");
  EXPECT_EQ(after, start + "/sub");

  EXPECT_EQ(SetPwd("", before, after), 1);
  EXPECT_EQ(before, start + "/sub");
  EXPECT_EQ(after, start + "/sub");
}

TEST(Pwd, DatasetLocationIsOnlyRemembered) {
  wltest::TempDir tmp;
  wltest::ScopedCwd cwd(tmp.path());
  const std::string start = GetPwd();
  std::string before, after;
  EXPECT_EQ(SetPwd("//HLQ.WORK", before, after), 1);
  EXPECT_EQ(PwdInMVS, 1);
  EXPECT_EQ(Cwd, "//HLQ.WORK");
  EXPECT_EQ(before, start);
  EXPECT_EQ(after, "//HLQ.WORK");
  EXPECT_EQ(GetPwd(), "//HLQ.WORK");
  char* real = getcwd(nullptr, 0);
  EXPECT_EQ(std::string(real), start);  // the process did not move
  std::free(real);

  EXPECT_EQ(SetPwd(start.c_str(), before, after), 1);
  EXPECT_EQ(PwdInMVS, 0);
  EXPECT_EQ(before, "//HLQ.WORK");
  EXPECT_EQ(after, start);
  Cwd.clear();
}

TEST(Pwd, WorksBeyondFourKilobytes) {
  wltest::TempDir tmp;
  wltest::ScopedCwd cwd(tmp.path());
  std::string expect = GetPwd();
  const std::string step(200, 'd');
  constexpr int kDepth = 30;  // about 6 KB of path
  int depth = 0;
  for (; depth < kDepth; ++depth) {
    if (mkdir(step.c_str(), 0700) != 0 || chdir(step.c_str()) != 0) {
      break;
    }
    expect += "/" + step;
  }
  ASSERT_EQ(depth, kDepth);
  EXPECT_GT(expect.size(), 4096u);
  EXPECT_EQ(GetPwd(), expect);
  // Climb out removing each level; the tree is too deep for absolute paths.
  for (; depth > 0; --depth) {
    ASSERT_EQ(chdir(".."), 0);
    ASSERT_EQ(rmdir(step.c_str()), 0);
  }
}

TEST(DateTime, FormatsLocalTimeMonthFirst) {
  ScopedTz tz("UTC");
  struct Case {
    int64_t seconds;
    const char* text;
  };
  const Case cases[] = {
      {INT64_MIN, "01/01/1970 00:00:01"},
      {-5, "01/01/1970 00:00:01"},
      {0, "01/01/1970 00:00:01"},
      {1, "01/01/1970 00:00:01"},
      {2, "01/01/1970 00:00:02"},
      {1602666300, "10/14/2020 09:05:00"},
      {253402300800, "01/01/10000 00:00:00"},
      {INT64_MAX, "01/01/1970 00:00:01"},  // beyond the C library's years
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DateTime(c.seconds), c.text) << c.seconds;
  }
  // The last second the C library can break down: tm_year is INT_MAX, so the
  // full year only fits when widened.
  EXPECT_EQ(DateTime(67768036191676799), "12/31/2147485547 23:59:59");
  EXPECT_EQ(DateTime(67768036191676800), "01/01/1970 00:00:01");
}

TEST(DateTime, UsesTheLocalZone) {
  ScopedTz tz("EST5");
  EXPECT_EQ(DateTime(1602666300), "10/14/2020 04:05:00");
}

TEST(CreateDir, MakesEveryMissingLevel) {
  wltest::TempDir tmp;
  const mode_t old_mask = umask(022);
  EXPECT_EQ(CreateDir(tmp.path().c_str(), "a/b\\c//d"), 1);
  umask(old_mask);
  struct stat st {};
  ASSERT_EQ(stat((tmp / "a/b/c/d").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  // 07777 less the mask; the kernel keeps the sticky bit for directories.
  EXPECT_EQ(st.st_mode & 01777, 01755u);

  wltest::ScopedCwd cwd(tmp.path());
  EXPECT_EQ(CreateDir("", "rel/one"), 1);
  EXPECT_EQ(CreateDir(nullptr, "rel2"), 1);
  EXPECT_EQ(CreateDir("rel3", nullptr), 1);
  EXPECT_EQ(CreateDir(nullptr, nullptr), 1);
  EXPECT_EQ(wltest::ListDir(tmp.path()), (std::vector<std::string>{"a", "rel", "rel2", "rel3"}));
  EXPECT_EQ(wltest::ListDir(tmp / "rel"), std::vector<std::string>{"one"});

  // A file in the way is not reported.
  wltest::WriteFile(tmp / "file", "x");
  EXPECT_EQ(CreateDir(tmp.path().c_str(), "file/sub"), 1);
}

TEST(FixedAnswers, StandInForOtherHosts) {
  EXPECT_EQ(FileExists("/no/such/file"), 1);
  std::string target = "old";
  EXPECT_EQ(ShortPathName("C:\\Prog~1", target, 1), 1);
  EXPECT_EQ(target, "C:\\Prog~1");
  EXPECT_EQ(LongPathName("/x/y", target, 0), 1);
  EXPECT_EQ(target, "/x/y");
  int value = 7;
  EXPECT_EQ(MakePDS(&value, 3), &value);
  SubmitJCL(&value);
  EXPECT_EQ(value, 7);
  EXPECT_EQ(GetEnvironment(), environ);
}

TEST(GetMachineName, HostNameCutAtFortyBytes) {
  char buf[256] = {};
  ASSERT_EQ(gethostname(buf, sizeof buf - 1), 0);
  const std::string host(buf);
  EXPECT_EQ(GetMachineName(), host.substr(0, 40));
}

}  // namespace
