#include "scm/detail.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "scm/listing.h"
#include "scm/perfile.h"
#include "support/handles.h"
#include "support/paths.h"
#include "testlib/scm_fixtures.h"

namespace {

using Argv = std::vector<std::string>;

// Each tool's detail commands as shown (run in the file's directory when
// `in_dir`). Placeholders: {N} the name and extension of the path, {R} the
// record's name, {P} the path, {W} it with backslashes, {U} the new and {V}
// the old version, {C} the old version as ClearCase cuts it. The client
// receives the words a shell makes of the shown command, each value
// literal; a file operand ({N}, {R}) that begins with "-" as "./" and it.
struct Tool {
  uint32_t type;
  const char *now, *old;
  bool in_dir;
  const char *first, *second;
};
const Tool kTools[] = {
    {kScmCvs, "1.2", "1.1", true, "cvs log \"{N}\" 2>&1", "cvs diff -c6 -r {V} \"{N}\" 2>&1"},
    {kScmCvsRep, "1.2", "1.1", true, "cvs log -r{V} -r{U}  \"{R}\" 2>&1",
     "cvs diff -c6 -r {V} \"{R}\" 2>&1"},
    {kScmClearCase, "/main/4", "/main/3   Rule: /main/LATEST", false,
     "cleartool lshist \"{R}\" 2>&1", "cleartool diff \"{R}@@{C}\" \"{R}\" 2>&1"},
    {kScmHarvest, "3", "2", true,
     "hsigget {R} -t -a environment state package version versionid viewpath tag user modtime "
     "size 2>&1",
     ""},
    {kScmSvn, "14", "12", false, "svn info \"{P}\" 2>&1", "svn diff --revision {V} \"{P}\" 2>&1"},
    {kScmVss, "7", "6", false, "ss Properties \"{W}\" 2>&1", ""},
    {kScmPerforce, "4", "3", true, "p4 filelog -t -L \"{P}\" 2>&1",
     "p4 diff -dnl -f \"{P}\"#{V} 2>&1"},
    {kScmSi, "1.5", "1.4", false, "si memberinfo --batch \"{P}\" 2>&1",
     "si diff --batch -r \"{V}\" \"{P}\" 2>&1"},
    {kScmAccurev, "dev/3", "dev/2", true, "accurev stat \"{P}\" 2>&1",
     "accurev diff -v {V} \"{P}\" 2>&1"},
    {kScmMstf, "9", "7", false, "tf.exe properties \"{P}\"  /noprompt 2>&1",
     "tf.exe diff \"{P};{U}\" \"{P};{V}\" /format:unix 2>&1"},
    // Without an old version: the first output and the separator. CVSREP
    // still forms its first command with the empty old version.
    {kScmSvn, "14", "", false, "svn info \"{P}\" 2>&1", ""},
    {kScmCvsRep, "2", "", true, "cvs log -r{V} -r{U}  \"{R}\" 2>&1", ""},
    {0, "2", "1", false, "", ""},
    {kScmCvs | kScmSvn, "2", "1", false, "", ""},
};

const std::string kHostile[] = {
    "a b.c",   "q\"uote.c", "it's.c",   "$(touch PWNED).c", "`touch PWNED`.c", "a;touch PWNED",
    "a|touch PWNED", "a&touch PWNED&", "a=b.c", "a:b.c",   "(a).c",    "a\\b.c",
    "a\nb.c",  " lead.c",   "trail.c ", "-rf",              "--help",          "*",
    "~x.c",    "#x.c",      "$HOME",    "a>PWNED.c",        "x\\",             "\\$(touch PWNED)",
    "a<b.c",   "?.c",       "[ab].c",   "{a,b}.c",          "!x.c",            "a\tb\rc.c",
    "a^b%c.c", "!!",
};

std::string AsOperand(const std::string& v) { return !v.empty() && v[0] == '-' ? "./" + v : v; }

// The build directory is the current one; changed files lie in ws below
// it. Each fake client prints "<tool> out", two cvs notices (left out of
// the comparison step's output only) and "<tool> end".
class DetailTest : public wltest::ScmTest {
 protected:
  DetailTest() {
    wltest::MakeDirs(ws_ + "/src");
    for (const char* tool : wltest::kScmClients)
      fakes_.Output(tool, Kept(tool));
  }
  static std::string Kept(const std::string& tool) {
    return tool + " out\ncvs log: in directory src\ncvs [log aborted]: stop\n" + tool + " end\n";
  }

  // GetDetail for ws/rel at version `now` (before: `old`); returns the
  // report text and what was printed.
  std::pair<std::string, std::string> Detail(uint32_t type, const std::string& rel,
                                             const std::string& now, const std::string& old) {
    wltest::ScmTree trees[2];
    UniqueFile report(std::tmpfile());
    scm_.type = type;
    const std::string printed = wltest::Printed([&] {
      GetDetail(scm_, report.get(), trees[0].Add(ws_, rel, now), trees[1].Add(ws_, rel, old));
    });
    EXPECT_EQ(wltest::RealDir("."), b_);
    std::string text(static_cast<size_t>(std::ftell(report.get())), '\0');
    std::rewind(report.get());
    text.resize(std::fread(text.data(), 1, text.size(), report.get()));
    return {text, printed};
  }

  // The placeholders' values for the record (ws/rel, now, old).
  std::vector<std::pair<std::string, std::string>> Values(const std::string& rel,
                                                          const std::string& now,
                                                          const std::string& old) const {
    const std::string path = ws_ + "/" + rel;
    std::string drive, dir, base, ext, win = path, cut = old.substr(0, old.find("Rule:"));
    SplitPath(path.c_str(), drive, dir, base, ext);
    ReplaceSlash2(win, '\\');
    cut.erase(cut.find_last_not_of(" \r\n\t") + 1);
    return {{"{N}", AsOperand(base + ext)}, {"{R}", AsOperand(rel)}, {"{P}", path},
            {"{W}", win},   {"{U}", now},   {"{V}", old},   {"{C}", cut}};
  }

  // The argument vectors `t` promises for the record (ws/rel, now, old):
  // the words of each command after the client's name and before "2>&1".
  std::vector<Argv> Expected(const Tool& t, const std::string& rel, const std::string& now,
                             const std::string& old) const {
    std::vector<Argv> runs;
    for (const std::string shown : {t.first, t.second}) {
      Argv words(1);
      bool quoted = false;
      for (char ch : shown) {
        if (ch == '"') {
          quoted = !quoted;
        } else if (ch != ' ' || quoted) {
          words.back() += ch;
        } else if (!words.back().empty()) {
          words.emplace_back();
        }
      }
      for (std::string& word : words)
        word = wltest::Fill(word, Values(rel, now, old));
      if (!shown.empty())
        runs.emplace_back(words.begin() + 1, words.end() - 1);
    }
    return runs;
  }

  // The argument vectors of the clients' runs so far, without name and directory.
  std::vector<Argv> TakeArgv() {
    std::vector<Argv> runs = fakes_.TakeRuns();
    for (Argv& run : runs)
      run.erase(run.begin(), run.begin() + 2);
    return runs;
  }

  // Files under `dir` (one level) whose names start with "PWNED".
  static std::vector<std::string> Pwned(const std::string& dir) {
    std::vector<std::string> names = wltest::ListDir(dir);
    std::erase_if(names, [](const std::string& name) { return name.rfind("PWNED", 0) != 0; });
    return names;
  }

  const std::string ws_ = b_ + "/ws";
};

TEST_F(DetailTest, EveryToolsCommandsDirectoryAndBlock) {
  const std::string sep = std::string(22, '!') + "\n", rel = "src/a.c";
  for (const Tool& t : kTools) {
    SCOPED_TRACE(t.first);
    const auto values = Values(rel, t.now, t.old);
    const std::string tool(t.first, std::strcspn(t.first, " "));
    const std::string in_dir = t.in_dir ? " in dir " + ws_ + "/src/" : "";
    std::string printed = t.type == kScmSi ? "Running: \n" : "", report;
    if (*t.first) {
      printed += "Executing: " + wltest::Fill(t.first, values) + in_dir + "\n";
      report = Kept(tool);
    }
    if (*t.second) {
      printed += "Running " + wltest::Fill(t.second, values) + in_dir + "\n";
      report += tool + " out\n" + tool + " end\n";
    }
    std::vector<Argv> runs = Expected(t, rel, t.now, t.old);
    for (Argv& run : runs)
      run.insert(run.begin(), {tool, t.in_dir ? ws_ + "/src" : b_});
    EXPECT_EQ(Detail(t.type, rel, t.now, t.old),
              std::make_pair(report + (*t.first ? sep : ""), printed));
    EXPECT_EQ(fakes_.TakeRuns(), runs);
    if (!*t.first)
      continue;
    // A first command that cannot start writes nothing; a comparison that
    // cannot start leaves the block without its separator.
    wltest::FailingStarts fail(*t.second ? " diff " : "");
    const std::string failed = wltest::Fill(*t.second ? t.second : t.first, values);
    EXPECT_EQ(
        Detail(t.type, rel, t.now, t.old),
        std::make_pair(*t.second ? Kept(tool) : "", printed + "Could not run: " + failed + "\n"));
    EXPECT_EQ(fakes_.TakeRuns().size(), *t.second ? 1u : 0u);
  }
}

// What reaches a client is exactly the value as one argument, nothing runs
// as code, and no file operand reaches a client as an option.
TEST_F(DetailTest, HostileAndRandomValuesArriveAsOneLiteralArgument) {
  for (const std::string& h : kHostile) {
    SCOPED_TRACE("[" + h + "]");
    for (const Tool& t : kTools) {
      if (*t.old) {
        EXPECT_EQ((Detail(t.type, h, h, h), TakeArgv()), Expected(t, h, h, h)) << t.first;
      }
    }
    // The per-file query and the listings that carry values.
    wltest::ScmTree records;
    FileNode* node = records.Add(ws_, h);
    std::string win = ws_ + "/" + h;
    ReplaceSlash2(win, '\\');
    const std::string build = b_ + "/" + h;
    (void)wltest::Printed([&] {
      scm_.type = kScmVss;
      LoadVersionInfo(node, 0, &scm_);
      scm_.type = kScmAccurev;
      FindVersionInfo(scm_, build.c_str());
      scm_.type = kScmMstf;
      FindVersionInfo(scm_, build.c_str());
    });
    // Credentials are shown masked.
    scm_.user = scm_.password = h.c_str();
    EXPECT_EQ(wltest::Printed([&] { ListSiSandbox(scm_, b_.c_str(), h); }),
              "Executing:  --user \"*******\" --password \"*******\" 2>&1 \n");
    scm_.user = scm_.password = nullptr;
    EXPECT_EQ(TakeArgv(), (std::vector<Argv>{{"Properties", win},
                                             {"stat", "-ff", "-R", build},
                                             {"properties", build, "/recursive", "/noprompt"},
                                             {"viewsandbox", "--recurse", "--batch", "--sandbox",
                                              AsOperand(h), "--user", h, "--password", h}}));
  }
  // Random bytes (all but NUL, and "/" in names) as names and versions,
  // with a fixed seed.
  std::mt19937 rng(20261123);
  auto random_text = [&](bool name) {
    std::string text(1 + rng() % 12, ' ');
    for (char& ch : text) {
      do {
        ch = static_cast<char>(1 + rng() % 255);
      } while (name && ch == '/');
    }
    return text;
  };
  for (int i = 0; i < 300; ++i) {
    const Tool& t = kTools[static_cast<size_t>(i) % 10];
    const std::string name = random_text(true), now = random_text(false), old = random_text(false);
    ASSERT_EQ((Detail(t.type, name, now, old), TakeArgv()), Expected(t, name, now, old))
        << t.first << " case " << i;
  }
  EXPECT_EQ(Pwned(b_), std::vector<std::string>{});
  EXPECT_EQ(Pwned(ws_), std::vector<std::string>{});
}

}  // namespace
