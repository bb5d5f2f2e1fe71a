// The binary against real svn and cvs workspaces: versions in the inventory
// are the client's, a file changed between two runs gets the client's
// history and differences in the change report, and file names with shell
// characters are data all the way through.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "e2e/e2e.h"
#include "testlib/testlib.h"

namespace {

using e2e::Has;
using e2e::kStem;

class ScmClients : public ::testing::Test {
 protected:
  // Makes the workspace w_.build with `script` run in w_.root; skipped when
  // `tool` is missing.
  void Make(const std::string& tool, const std::string& script) {
    if (Sh("command -v " + tool) != 0)
      GTEST_SKIP() << tool << " not installed";
    ASSERT_EQ(Sh(script), 0);
  }
  // Runs `script` with $0 set to `arg`.
  int Sh(const std::string& script, const std::string& arg = "sh") const {
    return wltest::RunProgram({"/bin/sh", "-c", script, arg}, {{"PATH", "/usr/bin:/bin"}, {"HOME", w_.home}},
                              w_.root)
        .status;
  }
  // Runs the binary with `keyword` and returns its output; `file` gets the
  // run's numbered output of `kind` ("bom" or "diff").
  std::string Run(const std::string& keyword, const std::string& kind, std::string* file) {
    wltest::MakeDirs(w_.start);
    wltest::RunResult r = w_.Run(w_.Job({"-c", keyword}));
    EXPECT_EQ(r.status, 0) << r.out;
    const std::string number = "0" + std::to_string(++runs_);  // the report is always the first
    *file = w_.Out(kStem + (kind == "bom" ? number : "01") + "-" + kind + ".data");
    // The report's name holds ".bom.data" too; left, it could hide the
    // inventory from the next run.
    unlink((w_.start + "/" + kStem + "01-diff.data").c_str());
    return r.out;
  }
  // Field `k` (0: dir) of the record line for `rel`, leading blanks dropped.
  std::string Field(const std::string& text, const std::string& rel, int k) const {
    size_t at = text.find("\n" + w_.build + ";" + rel + ";");
    std::string line =
        at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
    for (int i = 0; i < k; ++i)
      line.erase(0, line.find(';') + 1);
    line.erase(0, line.find_first_not_of(' '));
    return line.substr(0, line.find(';'));
  }
  // The detail block after the "C;" record of `rel`, up to its separator,
  // holds every one of `parts`.
  void ExpectBlock(const std::string& report, const std::string& rel,
                   const std::vector<std::string>& parts) const {
    size_t at = report.find("\nC;" + w_.build + ";" + rel + ";");
    size_t end = at == std::string::npos ? at : report.find(std::string(22, '!') + "\n", at);
    const std::string block = end == std::string::npos ? "" : report.substr(at, end - at);
    for (const std::string& part : parts)
      EXPECT_TRUE(Has(block, part)) << rel << ": " << part << "\n" << report;
  }
  void ExpectNothingRanAsShellText() const {
    for (const std::string& where : {w_.start, w_.build, w_.root})
      EXPECT_FALSE(wltest::ReadFile(where + "/PWNED").has_value()) << where;
  }

  e2e::World w_;
  int runs_ = 0;
};

TEST_F(ScmClients, Svn) {
  const std::vector<std::string> changed = {"a.c", "$(touch PWNED).c", "q\"uote.c",
                                            "back`touch PWNED`tick.c"};
  Make("svnadmin", "svnadmin create repo && svn checkout -q file://" + w_.root +
                       "/repo build && cd build && echo a > a.c && mkdir sub && echo b > sub/b.c && "
                       "svn add -q a.c sub && svn commit -q -m one && echo a2 >> a.c && "
                       "svn commit -q -m two && for n in '$(touch PWNED).c' 'q\"uote.c' "
                       "'back`touch PWNED`tick.c'; do echo v1 > \"$n\"; svn add -q -- \"$n\"; done");
  if (IsSkipped() || HasFatalFailure())
    return;
  // svn refuses some of the hostile names (control characters); those stay
  // unversioned and are inventoried all the same.
  for (const std::string& name : e2e::kHostileNames) {
    wltest::WriteFile(w_.build + "/" + name, name);
    Sh("cd build && svn add -q -- \"$0@\"", name);
  }
  ASSERT_EQ(Sh("cd build && svn commit -q -m names && svn update -q"), 0);
  std::string printed;
  e2e::ExpectSecondRunEmpty(w_, {"-c", "SVN"}, "; 8f9f7620000000000000000000000000; 3;\n",
                            e2e::kEscapedFields, &printed);
  EXPECT_TRUE(Has(printed, "Executing: svn info -R 2>&1\n"));
  std::string bom = w_.Out(kStem + "01-bom.data"), diff;
  EXPECT_EQ(Field(bom, "sub/b.c", 5), "3");  // the working revision after the update
  for (const auto& rel : changed) {
    EXPECT_EQ(Field(bom, rel, 5), "3") << bom;
    wltest::WriteFile(w_.build + "/" + rel, "v2\n");
  }
  unlink((w_.start + "/" + kStem + "01-diff.data").c_str());
  const std::string path = w_.build + "/a.c";
  EXPECT_TRUE(Has(Run("SVN", "diff", &diff), "Executing: svn info \"" + path +
                                                 "\" 2>&1\nRunning svn diff --revision 3 \"" +
                                                 path + "\" 2>&1\n"));
  for (const auto& rel : changed) {
    const std::string p = w_.build + "/" + rel;
    ExpectBlock(diff, rel, {"\nPath: " + p + "\nName: ", "\nRevision: 3\n", "\nIndex: " + p + "\n", "\n+v2\n"});
  }
  EXPECT_FALSE(Has(diff, "\nC;" + w_.build + ";sub/b.c;"));  // unchanged: no block
  ExpectNothingRanAsShellText();
}

// One cvs workspace, listed from the workspace (CVS) and then, from a start
// directory of its own, from the repository log alone (CVSREP: size 0,
// local digest).
TEST_F(ScmClients, Cvs) {
  const std::string cvs = "cvs -Q -d " + w_.root + "/cvsroot ";
  Make("cvs", cvs + "init && mkdir empty && cd empty && " + cvs +
                  "import -m init mod vend start && cd .. && " + cvs +
                  "checkout -d build mod && cd build && echo a > a.c && mkdir sub && cvs -Q add sub "
                  "&& echo b > sub/b.c && echo x > ./-x.c && echo q > 'q $(touch PWNED).c' && "
                  "cvs -Q add a.c sub/b.c ./-x.c 'q $(touch PWNED).c' && cvs -Q commit -m one && "
                  "echo a2 >> a.c && cvs -Q commit -m two");
  if (IsSkipped() || HasFatalFailure())
    return;
  std::string bom, diff;
  EXPECT_TRUE(Has(Run("CVS", "bom", &bom), "Executing: cvs log -h 2>&1\n"));
  for (const char* rel : {"a.c", "sub/b.c", "-x.c", "q $(touch PWNED).c"})
    EXPECT_EQ(Field(bom, rel, 5), rel == std::string("a.c") ? "1.2" : "1.1") << bom;
  EXPECT_FALSE(Has(bom, "CVS/"));  // administrative files are not inventoried
  for (const char* rel : {"sub/b.c", "-x.c", "q $(touch PWNED).c"})
    wltest::WriteFile(w_.build + "/" + rel, "b\nchanged\n");
  const std::string in = " 2>&1 in dir " + w_.build + "/sub/\n";
  EXPECT_TRUE(Has(Run("CVS", "diff", &diff),
                  "Executing: cvs log \"b.c\"" + in + "Running cvs diff -c6 -r 1.1 \"b.c\"" + in));
  ExpectBlock(diff, "sub/b.c",
              {"\nWorking file: b.c\nhead: 1.1\n", "\nretrieving revision 1.1\n", "\n+ changed\n"});
  EXPECT_FALSE(Has(diff, "\nC;" + w_.build + ";a.c;"));
  // A name that begins with "-" reaches cvs as "./-x.c", shell text as text.
  for (const std::string rel : {"-x.c", "q $(touch PWNED).c"})
    ExpectBlock(diff, rel,
                {"\nWorking file: " + rel + "\nhead: 1.1\n", "\nretrieving revision 1.1\n", "\n! changed\n"});
  ExpectNothingRanAsShellText();

  w_.start = w_.root + "/start-rep";
  runs_ = 0;
  EXPECT_TRUE(Has(Run("CVSREP", "bom", &bom), "Executing: cvs log 2>&1\n"));
  for (const char* rel : {"a.c", "sub/b.c"}) {
    EXPECT_EQ(Field(bom, rel, 5), rel == std::string("a.c") ? "1.2" : "1.1") << bom;
    EXPECT_EQ(Field(bom, rel, 2), "0");
    EXPECT_EQ(Field(bom, rel, 4).size(), 32u);
  }
  wltest::WriteFile(w_.build + "/a.c", "a\na2\nrun two\n");
  const std::string top = " 2>&1 in dir " + w_.build + "/\n";
  EXPECT_TRUE(Has(Run("CVSREP", "diff", &diff), "Executing: cvs log -r1.2 -r1.2  \"a.c\"" + top +
                                                    "Running cvs diff -c6 -r 1.2 \"a.c\"" + top));
  ExpectBlock(diff, "a.c", {"\nWorking file: a.c\n", "\nrevision 1.2\n", "\nretrieving revision 1.2\n",
                            "\n+ run two\n"});
}

}  // namespace
