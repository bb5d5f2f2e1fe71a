#include "scm/detail.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/handles.h"
#include "testlib/scm_fixtures.h"

namespace {

const std::string kSep = std::string(22, '!') + "\n";

// The build directory is the current one; the changed file lies in
// ws/src below it. Each fake client prints "<tool> out", two cvs notices
// (left out of the comparison step's output only) and "<tool> end".
class DetailTest : public wltest::ScmTest {
 protected:
  DetailTest() {
    wltest::MakeDirs(ws_ + "/src");
    for (const char* tool :
         {"cvs", "cleartool", "hsigget", "svn", "ss", "p4", "si", "accurev", "tf.exe"})
      fakes_.Output(tool, Kept(tool));
  }
  static std::string Kept(const std::string& tool) {
    return tool + " out\ncvs log: in directory src\ncvs [log aborted]: stop\n" + tool + " end\n";
  }
  // Runs GetDetail for src/<name> at version `now` (before: `old`); returns
  // the report text and sets `printed`.
  std::string Detail(uint32_t type, const std::string& name, const char* now, const char* old,
                     std::string* printed) {
    wltest::ScmTree trees[2];
    wltest::WriteFile(dir_ / "fake.log", "");
    UniqueFile report(std::tmpfile());
    *printed = wltest::Printed([&] {
      scm_.type = type;
      GetDetail(scm_, report.get(), trees[0].Add(ws_, "src/" + name, now),
                trees[1].Add(ws_, "src/" + name, old));
    });
    std::string text(static_cast<size_t>(std::ftell(report.get())), '\0');
    std::rewind(report.get());
    text.resize(std::fread(text.data(), 1, text.size(), report.get()));
    EXPECT_EQ(wltest::CurrentDir(), b_);
    return text;
  }

  const std::string ws_ = b_ + "/ws";
};

// Placeholders in the table: {N} the name, {R} src/name, {P} the path, {W}
// the path with backslashes, {D} " in dir <build>/src/".
std::string Fill(std::string text, const std::string& n, const std::string& b) {
  const std::string rel = "src/" + n, path = b + "/" + rel;
  std::string win = path;
  std::replace(win.begin(), win.end(), '/', '\\');
  const std::pair<std::string, std::string> values[] = {
      {"{N}", n},    {"{R}", rel}, {"{D}", " in dir " + b + "/src/"},
      {"{P}", path}, {"{W}", win}};
  for (const auto& [key, value] : values) {
    for (size_t at; (at = text.find(key)) != std::string::npos;)
      text.replace(at, key.size(), value);
  }
  return text;
}

// Hostile names and versions are covered by hostile_test.cc.
TEST_F(DetailTest, EveryToolsCommandsDirectoryAndBlock) {
  struct Case {
    uint32_t type;
    const char *now, *old;
    bool in_src;  // runs in the file's directory
    const char *first, *second, *args1, *args2;
  } cases[] = {
      {kScmCvs, "1.2", "1.1", true, "cvs log \"{N}\" 2>&1", "cvs diff -c6 -r 1.1 \"{N}\" 2>&1",
       "[log][{N}]", "[diff][-c6][-r][1.1][{N}]"},
      {kScmCvsRep, "1.2", "1.1", true, "cvs log -r1.1 -r1.2  \"{R}\" 2>&1",
       "cvs diff -c6 -r 1.1 \"{R}\" 2>&1", "[log][-r1.1][-r1.2][{R}]", "[diff][-c6][-r][1.1][{R}]"},
      {kScmClearCase, "/main/4", "/main/3   Rule: /main/LATEST", false,
       "cleartool lshist \"{R}\" 2>&1", "cleartool diff \"{R}@@/main/3\" \"{R}\" 2>&1",
       "[lshist][{R}]", "[diff][{R}@@/main/3][{R}]"},
      {kScmHarvest, "3", "2", true,
       "hsigget {R} -t -a environment state package version versionid viewpath tag user modtime "
       "size 2>&1",
       "",
       "[{R}][-t][-a][environment][state][package][version][versionid][viewpath][tag][user]"
       "[modtime][size]",
       ""},
      {kScmSvn, "14", "12", false, "svn info \"{P}\" 2>&1", "svn diff --revision 12 \"{P}\" 2>&1",
       "[info][{P}]", "[diff][--revision][12][{P}]"},
      {kScmVss, "7", "6", false, "ss Properties \"{W}\" 2>&1", "", "[Properties][{W}]", ""},
      {kScmPerforce, "4", "3", true, "p4 filelog -t -L \"{P}\" 2>&1",
       "p4 diff -dnl -f \"{P}\"#3 2>&1", "[filelog][-t][-L][{P}]", "[diff][-dnl][-f][{P}#3]"},
      {kScmSi, "1.5", "1.4", false, "si memberinfo --batch \"{P}\" 2>&1",
       "si diff --batch -r \"1.4\" \"{P}\" 2>&1", "[memberinfo][--batch][{P}]",
       "[diff][--batch][-r][1.4][{P}]"},
      {kScmAccurev, "dev/3", "dev/2", true, "accurev stat \"{P}\" 2>&1",
       "accurev diff -v dev/2 \"{P}\" 2>&1", "[stat][{P}]", "[diff][-v][dev/2][{P}]"},
      {kScmMstf, "9", "7", false, "tf.exe properties \"{P}\"  /noprompt 2>&1",
       "tf.exe diff \"{P};9\" \"{P};7\" /format:unix 2>&1", "[properties][{P}][/noprompt]",
       "[diff][{P};9][{P};7][/format:unix]"},
      // Without an old version: the first output and the separator. CVSREP
      // still forms its first command with the empty old version.
      {kScmSvn, "14", "", false, "svn info \"{P}\" 2>&1", "", "[info][{P}]", ""},
      {kScmCvsRep, "2", "", true, "cvs log -r -r2  \"{R}\" 2>&1", "", "[log][-r][-r2][{R}]", ""},
      {0, "2", "1", false, "", "", "", ""},
      {kScmCvs | kScmSvn, "2", "1", false, "", "", "", ""},
  };
  for (const std::string n : {"a.c"}) {
    for (const auto& c : cases) {
      const std::string tool(c.first, std::strcspn(c.first, " "));
      const std::string dir = c.in_src ? " in dir " + ws_ + "/src/" : "";
      const std::string who = tool + "|" + (c.in_src ? ws_ + "/src" : b_) + "|";
      std::string printed = c.type == kScmSi ? "Running: \n" : "", report;
      std::vector<std::string> log;
      if (*c.first) {
        printed += "Executing: " + Fill(c.first, n, ws_) + dir + "\n";
        log.push_back(Fill(who + c.args1, n, ws_));
        report = Kept(tool);
      }
      if (*c.second) {
        printed += "Running " + Fill(c.second, n, ws_) + dir + "\n";
        log.push_back(Fill(who + c.args2, n, ws_));
        report += tool + " out\n" + tool + " end\n";
      }
      std::string shown;
      EXPECT_EQ(Detail(c.type, n, c.now, c.old, &shown), report + (*c.first ? kSep : "")) << n;
      EXPECT_EQ(shown, printed) << c.type;
      EXPECT_EQ(fakes_.Log(), log) << c.type;
      if (!*c.first)
        continue;
      // A first command that cannot start writes nothing; a comparison that
      // cannot start leaves the block without its separator.
      wltest::FailingStarts fail(*c.second ? " diff " : "");
      EXPECT_EQ(Detail(c.type, n, c.now, c.old, &shown), *c.second ? Kept(tool) : "");
      EXPECT_EQ(shown,
                printed + "Could not run: " + Fill(*c.second ? c.second : c.first, n, ws_) + "\n");
    }
  }
}

}  // namespace
