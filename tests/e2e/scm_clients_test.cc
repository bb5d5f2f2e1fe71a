// The binary against real svn and cvs workspaces: versions in the inventory
// equal the client's, and a file changed between two runs gets the client's
// history and differences in the change report.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testlib/scm_fixtures.h"

namespace {

// Runs sh -c `script` in `cwd`; its output (errors merged), "\1" on failure.
std::string Sh(const std::string& script, const std::string& cwd) {
  std::string out;
  std::fflush(stdout);
  FILE* p = popen(("cd '" + cwd + "' && { " + script + "\n} 2>&1").c_str(), "r");
  char buf[4096];
  while (size_t n = p ? std::fread(buf, 1, sizeof buf, p) : 0)
    out.append(buf, n);
  return p && pclose(p) == 0 ? out : "\1";
}

class ScmClients : public ::testing::Test {
 protected:
  // Makes a workspace in co_ with `script`, holding a.c (committed twice)
  // and sub/b.c (once); skipped when `tool` is missing.
  void Make(const std::string& tool, const std::string& script) {
    if (Sh("command -v " + tool, "/") == "\1")
      GTEST_SKIP() << tool << " not installed";
    ASSERT_NE(Sh(script, root_), "\1");
  }
  void MakeCvs() {
    const std::string cvs = "cvs -Q -d " + root_ + "/cvsroot ";
    Make("cvs", cvs + "init && mkdir empty && cd empty && " + cvs +
                    "import -m init mod vend start && cd .. && " + cvs +
                    "checkout -d co mod && cd co && echo a > a.c && mkdir sub && cvs -Q add sub "
                    "&& echo b > sub/b.c && echo x > ./-x.c && echo q > 'q $(touch PWNED).c' && "
                    "cvs -Q add a.c sub/b.c ./-x.c 'q $(touch PWNED).c' && cvs -Q commit -m one && "
                    "echo a2 >> a.c && cvs -Q commit -m two");
  }
  // Runs the binary on the workspace; returns the run's output and sets
  // `file` to its numbered output ("bom" or "diff").
  std::string Run(const std::string& keyword, const std::string& kind, std::string* file) {
    wltest::MakeDirs(start_);
    wltest::RunResult r = wltest::RunTool(
        {"-c", keyword, "-b", co_, "-lj", "job.bom.data", "-lm", "m", "-ld", "2026-01-02 03:04:05"},
        wltest::ToolEnv(root_ + "/home", std::string("http://127.0.0.1:1"),
                        std::string("/usr/bin:/bin")),
        start_);
    EXPECT_EQ(r.status, 0) << r.out;
    char name[64];
    std::snprintf(name, sizeof name, "/job.bom.data-m-2026-01-02 03_04_05-%02d-", ++runs_);
    *file = wltest::ReadFile(start_ + name + kind + ".data").value_or("");
    return r.out;
  }
  // Field `k` (0: dir) of the record line for `rel`, leading blanks dropped.
  std::string Field(const std::string& text, const std::string& rel, int k) const {
    size_t at = text.find("\n" + co_ + ";" + rel + ";");
    std::string line =
        at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
    for (int i = 0; i < k; ++i)
      line.erase(0, line.find(';') + 1);
    line.erase(0, line.find_first_not_of(' '));
    return line.substr(0, line.find(';'));
  }
  // The detail block after the "C;" record of `rel`, up to its separator.
  std::string Block(const std::string& report, const std::string& rel) const {
    size_t at = report.find("\nC;" + co_ + ";" + rel + ";");
    size_t end = at == std::string::npos ? at : report.find(std::string(22, '!') + "\n", at);
    return end == std::string::npos ? "" : report.substr(at, end - at);
  }
  // The client's own revision of `rel`.
  std::string Revision(const std::string& cmd, const std::string& rel) {
    std::string out = Sh(cmd + " '" + rel + "'", co_);
    size_t at = out.find("Working revision:");
    out = at == std::string::npos ? out : out.substr(at + 17);
    out.erase(0, out.find_first_not_of(" \t"));
    return out.substr(0, out.find_first_of(" \t\n"));
  }

  wltest::TempDir dir_;
  std::string root_ = wltest::RealDir(dir_.path()), co_ = root_ + "/co", start_ = root_ + "/start";
  int runs_ = 0;
};

// File names with shell characters are data all the way through.
TEST_F(ScmClients, Svn) {
  const std::vector<std::string> changed = {"a.c", "$(touch PWNED).c", "q\"uote.c",
                                            "back`touch PWNED`tick.c"};
  Make("svnadmin", "svnadmin create repo && svn checkout -q file://" + root_ +
                       "/repo co && cd co && echo a > a.c && mkdir sub && echo b > sub/b.c && "
                       "svn add -q a.c sub && svn commit -q -m one && echo a2 >> a.c && "
                       "svn commit -q -m two && for n in '$(touch PWNED).c' 'q\"uote.c' "
                       "'back`touch PWNED`tick.c'; do echo v1 > \"$n\"; svn add -q -- \"$n\"; "
                       "done && svn commit -q -m names && svn update -q");
  if (IsSkipped() || HasFatalFailure())
    return;
  std::string bom, diff;
  EXPECT_NE(Run("SVN", "bom", &bom).find("Executing: svn info -R 2>&1\n"), std::string::npos);
  EXPECT_EQ(Field(bom, "sub/b.c", 5), Revision("svn info --show-item revision", "sub/b.c"));
  for (const auto& rel : changed) {
    EXPECT_EQ(Field(bom, rel, 5), Revision("svn info --show-item revision", rel)) << bom;
    wltest::WriteFile(co_ + "/" + rel, "v2\n");
  }
  EXPECT_EQ(Field(bom, "a.c", 5), "3");
  const std::string path = co_ + "/a.c";
  EXPECT_NE(Run("SVN", "diff", &diff)
                .find("Executing: svn info \"" + path +
                      "\" 2>&1\nRunning svn "
                      "diff --revision 3 \"" +
                      path + "\" 2>&1\n"),
            std::string::npos);
  for (const auto& rel : changed) {
    const std::string block = Block(diff, rel), p = co_ + "/" + rel;
    for (const std::string& part :
         std::vector<std::string>{"\nPath: " + p + "\nName: ", std::string("\nRevision: 3\n"),
                                  "\nIndex: " + p + "\n", "\n+v2\n"})
      EXPECT_NE(block.find(part), std::string::npos) << part << diff;
  }
  EXPECT_EQ(Block(diff, "sub/b.c"), "");  // unchanged: no block
  for (const std::string& where : {start_, co_, root_})
    EXPECT_FALSE(wltest::ReadFile(where + "/PWNED").has_value()) << where;
}

TEST_F(ScmClients, CvsWorkspaceListing) {
  MakeCvs();
  if (IsSkipped() || HasFatalFailure())
    return;
  std::string bom, diff;
  EXPECT_NE(Run("CVS", "bom", &bom).find("Executing: cvs log -h 2>&1\n"), std::string::npos);
  for (const char* rel : {"a.c", "sub/b.c", "-x.c", "q $(touch PWNED).c"})
    EXPECT_EQ(Field(bom, rel, 5), Revision("cvs status", std::string("./") + rel)) << bom;
  EXPECT_EQ(Field(bom, "a.c", 5), "1.2");
  EXPECT_EQ(bom.find("CVS/"), std::string::npos);  // administrative files are not inventoried
  for (const char* rel : {"sub/b.c", "-x.c", "q $(touch PWNED).c"})
    wltest::WriteFile(co_ + "/" + rel, "b\nchanged\n");
  const std::string in = " 2>&1 in dir " + co_ + "/sub/\n";
  EXPECT_NE(
      Run("CVS", "diff", &diff)
          .find("Executing: cvs log \"b.c\"" + in + "Running cvs diff -c6 -r 1.1 \"b.c\"" + in),
      std::string::npos);
  const std::string block = Block(diff, "sub/b.c");
  for (const char* part :
       {"\nWorking file: b.c\nhead: 1.1\n", "\nretrieving revision 1.1\n", "\n+ changed\n"})
    EXPECT_NE(block.find(part), std::string::npos) << part << diff;
  EXPECT_EQ(Block(diff, "a.c"), "");
  // A name that begins with "-" reaches cvs as "./-x.c", shell text as text.
  for (const std::string rel : {"-x.c", "q $(touch PWNED).c"}) {
    for (const std::string& part : {"\nWorking file: " + rel + "\nhead: 1.1\n",
                                    std::string("\nretrieving revision 1.1\n"), std::string("\n! changed\n")})
      EXPECT_NE(Block(diff, rel).find(part), std::string::npos) << part << diff;
  }
  for (const std::string& where : {start_, co_, root_})
    EXPECT_FALSE(wltest::ReadFile(where + "/PWNED").has_value()) << where;
}

// CVSREP: records from the repository log alone (size 0, local digest).
TEST_F(ScmClients, CvsRepositoryLog) {
  MakeCvs();
  if (IsSkipped() || HasFatalFailure())
    return;
  std::string bom, diff;
  EXPECT_NE(Run("CVSREP", "bom", &bom).find("Executing: cvs log 2>&1\n"), std::string::npos);
  for (const char* rel : {"a.c", "sub/b.c"}) {
    EXPECT_EQ(Field(bom, rel, 5), Revision("cvs status", rel)) << bom;
    EXPECT_EQ(Field(bom, rel, 2), "0");
    EXPECT_EQ(Field(bom, rel, 4).size(), 32u);
  }
  wltest::WriteFile(co_ + "/a.c", "a\na2\nrun two\n");
  const std::string in = " 2>&1 in dir " + co_ + "/\n";
  EXPECT_NE(Run("CVSREP", "diff", &diff)
                .find("Executing: cvs log -r1.2 -r1.2  \"a.c\"" + in +
                      "Running cvs diff -c6 -r 1.2 \"a.c\"" + in),
            std::string::npos);
  const std::string block = Block(diff, "a.c");
  for (const char* part : {"\nWorking file: a.c\n", "\nrevision 1.2\n",
                           "\nretrieving revision 1.2\n", "\n+ run two\n"})
    EXPECT_NE(block.find(part), std::string::npos) << part << diff;
}

}  // namespace
