#include "scm/scmtool.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "driver/settings.h"
#include "support/handles.h"
#include "support/strings.h"
#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::TempDir;

TEST(AcquisitionPath, GroupsByMask) {
  struct Case {
    uint32_t type;
    ScmPath path;
  } cases[] = {
      {0, ScmPath::kListing},
      {kScmCvs, ScmPath::kListing},
      {kScmClearCase, ScmPath::kListing},
      {kScmSvn, ScmPath::kListing},
      {kScmSi, ScmPath::kListing},
      {kScmAccurev, ScmPath::kListing},
      {kScmMstf, ScmPath::kListing},
      {kScmHarvest, ScmPath::kPerFile},
      {kScmVss, ScmPath::kPerFile},
      {kScmPerforce, ScmPath::kPerFile},
      {kScmCvsRep, ScmPath::kRepositoryLog},
      {kScmCvs | kScmCvsRep, ScmPath::kRepositoryLog},
      {kScmSvn | kScmVss, ScmPath::kRepositoryLog},
  };
  for (const auto& c : cases)
    EXPECT_EQ(AcquisitionPath(c.type), c.path) << "type " << c.type;
}

// Every template with its number of values, and the text it gives for
// ordinary values.
TEST(CommandTexts, PlaceholdersAndFilledTexts) {
  struct Case {
    const char* tmpl;
    int count;
    std::vector<std::string> values;
    const char* filled;
  } cases[] = {
      {kCvsListCmd, 0, {}, "cvs log -h 2>&1"},
      {kCvsRepLogCmd, 0, {}, "cvs log 2>&1"},
      {kClearCaseListCmd, 0, {}, "cleartool ls -recurse 2>&1"},
      {kSvnListCmd, 0, {}, "svn info -R 2>&1"},
      {kSiListCmd, 1, {"/w/p.pj"}, "si viewsandbox --recurse --batch --sandbox \"/w/p.pj\""},
      {kAccurevListCmd, 1, {"/w"}, "accurev stat -ff -R \"/w\" 2>&1"},
      {kTfListCmd, 1, {"/w"}, "tf.exe properties \"/w\" /recursive /noprompt 2>&1"},
      {kVssQueryCmd, 1, {"\\w\\a.c"}, "ss Properties \"\\\\w\\\\a.c\" 2>&1"},
      {kP4QueryCmd, 0, {}, "p4 filelog -t -L \"*\" 2>&1"},
      {kHarvestQueryCmd, 0, {}, "hsigget -t -a version modtime size 2>&1"},
      {kCvsDetailLog, 2, {"a", ".c"}, "cvs log \"a.c\" 2>&1"},
      {kCvsDetailDiff, 3, {"1.1", "a", ".c"}, "cvs diff -c6 -r 1.1 \"a.c\" 2>&1"},
      {kCvsRepDetailLog, 3, {"1.1", "1.2", "s/a.c"}, "cvs log -r1.1 -r1.2  \"s/a.c\" 2>&1"},
      {kCvsRepDetailDiff, 2, {"1.1", "s/a.c"}, "cvs diff -c6 -r 1.1 \"s/a.c\" 2>&1"},
      {kClearCaseDetailHist, 1, {"s/a.c"}, "cleartool lshist \"s/a.c\" 2>&1"},
      {kClearCaseDetailDiff,
       3,
       {"s/a.c", "/main/2", "s/a.c"},
       "cleartool diff \"s/a.c@@/main/2\" \"s/a.c\" 2>&1"},
      {kHarvestDetail,
       1,
       {"s/a.c"},
       "hsigget s/a.c -t -a environment state package version versionid viewpath tag user "
       "modtime size 2>&1"},
      {kSvnDetailInfo, 1, {"/w/a.c"}, "svn info \"/w/a.c\" 2>&1"},
      {kSvnDetailDiff, 2, {"12", "/w/a.c"}, "svn diff --revision 12 \"/w/a.c\" 2>&1"},
      {kVssDetail, 1, {"a.c"}, "ss Properties \"a.c\" 2>&1"},
      {kP4DetailLog, 1, {"/w/a.c"}, "p4 filelog -t -L \"/w/a.c\" 2>&1"},
      {kP4DetailDiff, 2, {"/w/a.c", "3"}, "p4 diff -dnl -f \"/w/a.c\"#3 2>&1"},
      {kSiDetailInfo, 1, {"/w/a.c"}, "si memberinfo --batch \"/w/a.c\" 2>&1"},
      {kSiDetailDiff, 2, {"1.4", "/w/a.c"}, "si diff --batch -r \"1.4\" \"/w/a.c\" 2>&1"},
      {kAccurevDetailStat, 1, {"/w/a.c"}, "accurev stat \"/w/a.c\" 2>&1"},
      {kAccurevDetailDiff, 2, {"5/2", "/w/a.c"}, "accurev diff -v 5/2 \"/w/a.c\" 2>&1"},
      {kTfDetailProps, 1, {"/w/a.c"}, "tf.exe properties \"/w/a.c\"  /noprompt 2>&1"},
      {kTfDetailDiff,
       4,
       {"/w/a.c", "9", "/w/a.c", "7"},
       "tf.exe diff \"/w/a.c;9\" \"/w/a.c;7\" /format:unix 2>&1"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CountPlaceholders(c.tmpl), c.count) << c.tmpl;
    std::vector<std::string_view> views(c.values.begin(), c.values.end());
    ClientCommand cmd;
    switch (views.size()) {
      case 0:
        cmd = FormCommand(c.tmpl, {});
        break;
      case 1:
        cmd = FormCommand(c.tmpl, {views[0]});
        break;
      case 2:
        cmd = FormCommand(c.tmpl, {views[0], views[1]});
        break;
      case 3:
        cmd = FormCommand(c.tmpl, {views[0], views[1], views[2]});
        break;
      default:
        cmd = FormCommand(c.tmpl, {views[0], views[1], views[2], views[3]});
        break;
    }
    EXPECT_EQ(cmd.text, c.filled) << c.tmpl;
    if (std::string(c.tmpl) != kVssQueryCmd) {
      EXPECT_EQ(cmd.shown, c.filled) << c.tmpl;
    }
  }
  EXPECT_EQ(std::strlen(kDetailSeparator), 23u);
  EXPECT_EQ(std::string(kDetailSeparator), std::string(22, '!') + "\n");
}

TEST(EscapeInQuotes, EscapesTheFourShellCharacters) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"", ""},
      {"plain/name.c", "plain/name.c"},
      {"a\"b", "a\\\"b"},
      {"$(touch PWNED).c", "\\$(touch PWNED).c"},
      {"back`tick`", "back\\`tick\\`"},
      {"a\\b", "a\\\\b"},
      {"it's ok; *.c", "it's ok; *.c"},
      {"\\\"$`", "\\\\\\\"\\$\\`"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(EscapeInQuotes(c.in), c.out) << c.in;
}

TEST(ShellWord, QuotesOnlyWhatNeedsIt) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"", ""},
      {"src/a-b_c.d,e+f=g@h%i:j", "src/a-b_c.d,e+f=g@h%i:j"},
      {"a b.c", "'a b.c'"},
      {"$(touch PWNED).c", "'$(touch PWNED).c'"},
      {"it's", "'it'\\''s'"},
      {"*.c", "'*.c'"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ShellWord(c.in), c.out) << c.in;
}

TEST(FormCommand, EscapesValuesInsideQuotesOnly) {
  ClientCommand cmd = FormCommand(kCvsDetailDiff, {"1.$x", "a\"$b", ".c"});
  EXPECT_EQ(cmd.text, "cvs diff -c6 -r 1.$x \"a\\\"\\$b.c\" 2>&1");
  EXPECT_EQ(cmd.shown, "cvs diff -c6 -r 1.$x \"a\"$b.c\" 2>&1");
  ClientCommand tf = FormCommand(kTfDetailDiff, {"/w/$a", "1`", "/w/$a", "2"});
  EXPECT_EQ(tf.text, "tf.exe diff \"/w/\\$a;1\\`\" \"/w/\\$a;2\" /format:unix 2>&1");
  // Missing values fill as empty text, extra ones are ignored.
  EXPECT_EQ(FormCommand(kSvnDetailDiff, {"7"}).text, "svn diff --revision 7 \"\" 2>&1");
  EXPECT_EQ(FormCommand(kSvnListCmd, {"x"}).text, "svn info -R 2>&1");
}

// Names reach a client as exactly that name and run nothing.
TEST(FormCommand, NamesReachTheClientUnchanged) {
  TempDir dir;
  wltest::FakeClients fakes(dir);
  fakes.AddRaw("echoargs", "for a in \"$@\"; do printf '[%s]' \"$a\"; done\n");
  wltest::ScopedCwd cwd(dir.path());
  const char* names[] = {"$(touch PWNED).c", "a\"b.c",       "back`touch PWNED`tick.c",
                         "back\\slash.c",    "tail\\",       "$HOME.c",
                         "quote'single.c",   "blank name.c", "*.c",
                         "semi;colon&amp.c", "new\nline.c"};
  for (const char* name : names) {
    ClientCommand cmd = FormCommand("echoargs \"%s\" %s 2>&1", {name, ShellWord(name)});
    UniquePipe pipe(OpenClient(cmd));
    ASSERT_TRUE(pipe);
    std::string out;
    char buf[256];
    while (size_t n = std::fread(buf, 1, sizeof buf, pipe.get()))
      out.append(buf, n);
    pipe.Close();
    EXPECT_EQ(out, "[" + std::string(name) + "][" + name + "]") << name;
  }
  EXPECT_FALSE(wltest::ReadFile(dir / "PWNED").has_value());
}

struct Credentials {
  Credentials(const char* user, const char* password) {
    safe_free(&User);
    safe_free(&Password);
    if (user)
      safe_cpy(&User, user);
    if (password)
      safe_cpy(&Password, password);
  }
  ~Credentials() {
    safe_free(&User);
    safe_free(&Password);
  }
};

TEST(AddUserPassword, AppendsMaskedAndRealOptions) {
  struct Case {
    const char* user;
    const char* password;
    int result;
    const char* command;
    const char* shown;
  } cases[] = {
      {nullptr, nullptr, 0, "cmd", "shown"},
      {"", "pw", 0, "cmd", "shown"},
      {"bob", nullptr, 1, "cmd --user \"bob\"", "shown --user \"*******\""},
      {"bob", "", 1, "cmd --user \"bob\"", "shown --user \"*******\""},
      {"bob", "s3cret", 1, "cmd --user \"bob\" --password \"s3cret\"",
       "shown --user \"*******\" --password \"*******\""},
      {"b\"ob", "p$w", 1, "cmd --user \"b\\\"ob\" --password \"p\\$w\"",
       "shown --user \"*******\" --password \"*******\""},
  };
  for (const auto& c : cases) {
    Credentials creds(c.user, c.password);
    std::string command = "cmd", shown = "shown";
    EXPECT_EQ(AddUserPassword(command, shown, "--user", "--password", 4096), c.result)
        << (c.user ? c.user : "(null)");
    EXPECT_EQ(command, c.command);
    EXPECT_EQ(shown, c.shown);
  }
}

TEST(AddUserPassword, LeavesOutCredentialsBeyondTheLimit) {
  Credentials creds("bob", "pw");
  // " --user \"bob\"" is 13 characters, " --password \"pw\"" 16.
  const size_t needed = 3 + 13 + 16;
  for (size_t limit : {needed - 1, needed, needed + 1}) {
    std::string command = "cmd", shown;
    int added = AddUserPassword(command, shown, "--user", "--password", limit);
    EXPECT_EQ(added, limit >= needed ? 1 : 0) << limit;
    EXPECT_EQ(command, limit >= needed ? "cmd --user \"bob\" --password \"pw\"" : "cmd") << limit;
  }
  ClientCommand cmd{"x", "y"};
  EXPECT_EQ(AddUserPassword(cmd, "-u", "-p", 4096), 1);
  EXPECT_EQ(cmd.text, "x -u \"bob\" -p \"pw\"");
  EXPECT_EQ(cmd.shown, "y -u \"*******\" -p \"*******\"");
}

// The name of the first entry readdir gives for dir.
std::string FirstEntry(const std::string& dir) {
  UniqueDir d(opendir(dir.c_str()));
  const dirent* e = d ? readdir(d.get()) : nullptr;
  return e ? e->d_name : "";
}

TEST(FindFirstWildcard, BarePatternAndUnopenableDirectories) {
  TempDir dir;
  wltest::WriteFile(dir / "p.pj", "");
  wltest::ScopedCwd cwd(dir.path());
  std::string out = "unchanged";
  EXPECT_EQ(FindFirstWildcard(out, "*.pj", 1024), 0);  // no directory part
  EXPECT_EQ(FindFirstWildcard(out, (dir / "missing/*.pj").c_str(), 1024), 0);
  EXPECT_EQ(FindFirstWildcard(out, "//host/share/*.pj", 1024), 0);
  EXPECT_EQ(out, "unchanged");
}

TEST(FindFirstWildcard, LooksAtTheFirstEntryOnly) {
  TempDir dir;
  wltest::WriteFile(dir / "sb/project.pj", "");
  wltest::WriteFile(dir / "sb/other.txt", "");
  const std::string sandbox = dir / "sb";
  const std::string first = FirstEntry(sandbox);
  std::string out;
  ASSERT_EQ(FindFirstWildcard(out, (sandbox + "/*.pj").c_str(), 1024), 1);
  if (first == "project.pj") {
    EXPECT_EQ(out, sandbox + "/project.pj");
    const size_t len = out.size();
    std::string again;
    EXPECT_EQ(FindFirstWildcard(again, (sandbox + "/*.pj").c_str(), len), 0);
    EXPECT_EQ(FindFirstWildcard(again, (sandbox + "/*.pj").c_str(), len + 1), 1);
  } else {
    // ".", ".." or the other file: nothing found, still 1.
    EXPECT_EQ(out, "") << "first entry " << first;
  }
  // Backslashes in the pattern are separators too.
  std::string converted;
  std::string back = sandbox + "\\*.pj";
  EXPECT_EQ(FindFirstWildcard(converted, back.c_str(), 1024), 1);
  EXPECT_EQ(converted, out);
}

std::string WriteAndRead(const TempDir& dir, const std::string& content, int limit) {
  wltest::WriteFile(dir / "out.txt", content);
  UniqueFile f(std::fopen((dir / "out.txt").c_str(), "rb"));
  ClientLines lines(f.get(), limit);
  std::string all, line;
  while (lines.Next(line))
    all += "<" + line + ">";
  return all;
}

TEST(ClientLines, PiecesAtTheReadLimit) {
  TempDir dir;
  const std::string a2046(2046, 'a'), a2047(2047, 'a'), a2048(2048, 'a');
  EXPECT_EQ(WriteAndRead(dir, a2046 + "\nx\n", 2048), "<" + a2046 + "\n><x\n>");
  EXPECT_EQ(WriteAndRead(dir, a2047 + "\nx\n", 2048), "<" + a2047 + "><\n><x\n>");
  EXPECT_EQ(WriteAndRead(dir, a2048 + "\n", 2048), "<" + a2047 + "><a\n>");
  const std::string b4095(4095, 'b');
  EXPECT_EQ(WriteAndRead(dir, b4095 + "b\n", 4096), "<" + b4095 + "><b\n>");
}

TEST(ClientLines, NulCrAndUnendedLines) {
  TempDir dir;
  EXPECT_EQ(WriteAndRead(dir, std::string("ab\0cd\nef\n", 9), 2048), "<ab><ef\n>");
  EXPECT_EQ(WriteAndRead(dir, "crlf\r\nlast", 2048), "<crlf\r\n><last>");
  EXPECT_EQ(WriteAndRead(dir, "", 2048), "");
  EXPECT_EQ(WriteAndRead(dir, "\n\n", 2048), "<\n><\n>");
}

TEST(ClientLines, NullPipeReadsNothing) {
  ClientLines lines(nullptr, 2048);
  std::string line;
  EXPECT_FALSE(lines.Next(line));
}

TEST(ParsingHelpers, PrefixTrimKeyAndDirectory) {
  EXPECT_TRUE(HasPrefix("Working file: a.c", "Working File:"));
  EXPECT_TRUE(HasPrefix("HEAD: 1.1", "head:"));
  EXPECT_FALSE(HasPrefix("head", "head:"));
  EXPECT_FALSE(HasPrefix(" head: 1.1", "head:"));
  EXPECT_FALSE(HasPrefix("", "head:"));
  EXPECT_EQ(From("head: 1.2", 6), "1.2");
  EXPECT_EQ(From("head:", 6), "");

  std::string line = "  value \t\r\n";
  TrimTrailing(line);
  EXPECT_EQ(line, "  value");
  line = " \t value \r\n";
  TrimBoth(line);
  EXPECT_EQ(line, "value");

  EXPECT_EQ(TreeKey("/b/w", "src\\a.c"), "/b/w/src/a.c");
  EXPECT_EQ(DirectoryOf("/b/w/src/a.c"), "/b/w/src/");
  EXPECT_EQ(DirectoryOf("/b/w/Makefile"), "/b/w/");
  EXPECT_EQ(DirectoryOf("Makefile"), "");
  EXPECT_EQ(std::string(Text(nullptr)), "");
}

TEST(ProgressLines, ExactTexts) {
  wltest::CaptureStdout cap;
  PrintExecuting("svn info -R 2>&1");
  PrintExecutingInDir("p4 filelog -t -L \"*\" 2>&1", "/b/src/");
  PrintExecutingRedirect("");
  PrintCouldNotRun("cvs log -h 2>&1");
  PrintCouldNotRunRedirect(" --user \"*******\"");
  PrintCouldNotRunBare("cvs log 2>&1");
  EXPECT_EQ(cap.Take(),
            "Executing: svn info -R 2>&1\n"
            "Executing: p4 filelog -t -L \"*\" 2>&1 in dir /b/src/\n"
            "Executing:  2>&1 \n"
            "Could not run: cvs log -h 2>&1\n"
            "Could not run:  --user \"*******\" 2>&1\n"
            "Could not run: cvs log 2>&1 ");
}

// A real start failure: no descriptor left for the pipe.
TEST(OpenClient, NullWhenNoPipeCanBeMade) {
  struct rlimit saved {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  struct rlimit low = saved;
  low.rlim_cur = 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> fds;
  for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
    fds.push_back(fd);
  FILE* pipe = OpenClient(FormCommand("true", {}));
  for (int fd : fds)
    close(fd);
  setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(pipe, nullptr);
  if (pipe)
    pclose(pipe);
}

}  // namespace
