// Hostile names and values through every command former: what reaches the
// client (recorded byte for byte by a fake client) is exactly the value,
// nothing runs as code, and no file operand reaches a client as an option.

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "scm/detail.h"
#include "scm/listing.h"
#include "scm/perfile.h"
#include "support/handles.h"
#include "support/paths.h"
#include "testlib/scm_fixtures.h"

namespace {

using Argv = std::vector<std::string>;

const std::vector<std::string> kHostile = {
    "a b.c",    "q\"uote.c",   "it's.c",   "$(touch PWNED).c", "`touch PWNED`.c", "a;touch PWNED",
    "a|touch PWNED", "a&touch PWNED&", "a=b.c", "a:b.c",   "(a).c",    "a\\b.c",
    "a\nb.c",   " lead.c",     "trail.c ", "-rf",            "--help",          "*",
    "~x.c",     "#x.c",        "$HOME",    "a>PWNED.c",      "x\\",             "\\$(touch PWNED)",
};

// Values a record gives the formers, and the argv each tool's detail
// commands must receive. In the argv texts {N} is the name and extension of
// the path, {R} the record's name, {O} the old name, {P} the path, {W} it with
// backslashes, {U} the new and {V} the old version, {C} the old version as
// ClearCase cuts it. A file operand ({N}, {R}, {O}) that begins with "-"
// arrives as "./" followed by it.
struct DetailCase {
  uint32_t type;
  Argv first, second;
};
const DetailCase kDetail[] = {
    {kScmCvs, {"log", "{N}"}, {"diff", "-c6", "-r", "{V}", "{N}"}},
    {kScmCvsRep, {"log", "-r{V}", "-r{U}", "{R}"}, {"diff", "-c6", "-r", "{V}", "{R}"}},
    {kScmClearCase, {"lshist", "{R}"}, {"diff", "{O}@@{C}", "{R}"}},
    {kScmHarvest,
     {"{R}", "-t", "-a", "environment", "state", "package", "version", "versionid", "viewpath",
      "tag", "user", "modtime", "size"},
     {}},
    {kScmSvn, {"info", "{P}"}, {"diff", "--revision", "{V}", "{P}"}},
    {kScmVss, {"Properties", "{W}"}, {}},
    {kScmPerforce, {"filelog", "-t", "-L", "{P}"}, {"diff", "-dnl", "-f", "{P}#{V}"}},
    {kScmSi, {"memberinfo", "--batch", "{P}"}, {"diff", "--batch", "-r", "{V}", "{P}"}},
    {kScmAccurev, {"stat", "{P}"}, {"diff", "-v", "{V}", "{P}"}},
    {kScmMstf, {"properties", "{P}", "/noprompt"}, {"diff", "{P};{U}", "{P};{V}", "/format:unix"}},
};

std::string AsOperand(const std::string& v) { return !v.empty() && v[0] == '-' ? "./" + v : v; }

class HostileTest : public wltest::ScmTest {
 protected:
  HostileTest() {
    wltest::MakeDirs(ws_);
    for (const char* tool :
         {"cvs", "cleartool", "hsigget", "svn", "ss", "p4", "si", "accurev", "tf.exe"})
      fakes_.AddArgvRecorder(tool);
  }

  // GetDetail for a file `name` directly in ws_ with versions `now` and
  // `old`; returns the argv of each client run.
  std::vector<Argv> Detail(uint32_t type, const std::string& name, const std::string& now,
                           const std::string& old) {
    wltest::ScmTree trees[2];
    UniqueFile report(std::tmpfile());
    scm_.type = type;
    (void)wltest::Printed([&] {
      GetDetail(scm_, report.get(), trees[0].Add(ws_, name, now), trees[1].Add(ws_, name, old));
    });
    EXPECT_EQ(wltest::CurrentDir(), b_);
    return fakes_.TakeArgv();
  }

  // The argv `c` promises for the record (ws_/name, now, old).
  std::vector<Argv> Expected(const DetailCase& c, const std::string& name, const std::string& now,
                             const std::string& old) const {
    const std::string path = ws_ + "/" + name;
    std::string drive, dir, base, ext;
    SplitPath(path.c_str(), drive, dir, base, ext);
    std::string win = path, cut = old.substr(0, old.find("Rule:"));
    ReplaceSlash2(win, '\\');
    cut.erase(cut.find_last_not_of(" \r\n\t") + 1);
    const std::pair<std::string, std::string> values[] = {
        {"{N}", AsOperand(base + ext)}, {"{R}", AsOperand(name)}, {"{O}", AsOperand(name)},
        {"{P}", path},  {"{W}", win},  {"{U}", now},  {"{V}", old},  {"{C}", cut}};
    auto fill = [&](const Argv& tmpl) {
      Argv out;
      for (std::string arg : tmpl) {
        std::string filled;
        for (size_t at = 0; at < arg.size();) {
          bool hit = false;
          for (const auto& [key, value] : values) {
            if (arg.compare(at, key.size(), key) == 0) {
              filled += value;
              at += key.size();
              hit = true;
              break;
            }
          }
          if (!hit)
            filled += arg[at++];
        }
        out.push_back(filled);
      }
      return out;
    };
    std::vector<Argv> runs = {fill(c.first)};
    if (!c.second.empty() && !old.empty())
      runs.push_back(fill(c.second));
    return runs;
  }

  // Names of files under `dir` (one level) that start with "PWNED".
  static std::vector<std::string> Pwned(const std::string& dir) {
    std::vector<std::string> found;
    UniqueDir d(opendir(dir.c_str()));
    while (const dirent* e = d ? readdir(d.get()) : nullptr) {
      if (std::string(e->d_name).rfind("PWNED", 0) == 0)
        found.push_back(dir + "/" + e->d_name);
    }
    return found;
  }

  const std::string ws_ = b_ + "/ws";
};

TEST_F(HostileTest, EveryFormerPassesEveryValueAsOneLiteralArgument) {
  for (const std::string& h : kHostile) {
    for (const DetailCase& c : kDetail) {
      EXPECT_EQ(Detail(c.type, h, h, h), Expected(c, h, h, h)) << c.type << " [" << h << "]";
    }
    // The per-file query and the listings that carry values.
    wltest::ScmTree records;
    FileNode* node = records.Add(ws_, h);
    scm_.type = kScmVss;
    (void)wltest::Printed([&] { LoadVersionInfo(node, 0, &scm_); });
    std::string win = ws_ + "/" + h;
    ReplaceSlash2(win, '\\');
    const std::string build = b_ + "/" + h;
    (void)wltest::Printed([&] {
      scm_.type = kScmAccurev;
      FindVersionInfo(scm_, build.c_str());
      scm_.type = kScmMstf;
      FindVersionInfo(scm_, build.c_str());
      scm_.user = scm_.password = h.c_str();
      ListSiSandbox(scm_, b_.c_str(), h);
      scm_.user = scm_.password = nullptr;
    });
    EXPECT_EQ(fakes_.TakeArgv(),
              (std::vector<Argv>{{"Properties", win},
                                 {"stat", "-ff", "-R", build},
                                 {"properties", build, "/recursive", "/noprompt"},
                                 {"viewsandbox", "--recurse", "--batch", "--sandbox", AsOperand(h),
                                  "--user", h, "--password", h}}))
        << "[" << h << "]";
  }
  EXPECT_EQ(Pwned(b_), std::vector<std::string>{});
  EXPECT_EQ(Pwned(ws_), std::vector<std::string>{});
}

// Random bytes (all but NUL and "/") as names and versions: the argv the
// client sees equals them.
TEST_F(HostileTest, RandomNamesAndVersionsArriveUnchanged) {
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
    const DetailCase& c = kDetail[static_cast<size_t>(i) % std::size(kDetail)];
    const std::string name = random_text(true), now = random_text(false), old = random_text(false);
    ASSERT_EQ(Detail(c.type, name, now, old), Expected(c, name, now, old))
        << c.type << " case " << i;
  }
  EXPECT_EQ(Pwned(b_), std::vector<std::string>{});
}

}  // namespace
