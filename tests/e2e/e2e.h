#pragma once
// The built binary in a world of its own: a build tree, a start directory,
// a home and a bin directory first on PATH, under one temporary directory
// taken by its real path (the run prints the directory it starts in).

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "testlib/testlib.h"

namespace e2e {

inline constexpr char kDate[] = "2026-01-02 03:04:05";
// Where the outputs of a run with World::Job() go: kStem + "01-bom.data" and so on.
inline const std::string kStem = "job.bom.data-m1-2026-01-02 03_04_05-";
inline constexpr char kNobody[] = "http://127.0.0.1:1";  // nothing listens there

inline bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

struct World {
  World() {
    for (const std::string& d : {build, start, home, bin})
      wltest::MakeDirs(d);
  }
  // The job every world runs unless a test says otherwise, then `more`.
  std::vector<std::string> Job(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> args = {"-b", build, "-lj", "job.bom.data", "-lm", "m1", "-ld", kDate};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }
  // Runs `prefix`, the binary and `args` in the start directory with only
  // HOME, PATH, TZ=UTC, LC_ALL=C, WEFTLANE_SERVER when `server` is set, the
  // sanitizer settings of this run, and `env`.
  wltest::RunResult Run(const std::vector<std::string>& args, int timeout_s = 30) const {
    std::vector<std::string> argv = prefix;
    argv.push_back(WL_BINARY);
    argv.insert(argv.end(), args.begin(), args.end());
    std::map<std::string, std::string> all = {{"HOME", home}, {"PATH", path}, {"TZ", "UTC"}, {"LC_ALL", "C"}};
    if (server)
      all["WEFTLANE_SERVER"] = *server;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
      if (const char* value = std::getenv(name))
        all[name] = value;
    for (const auto& [name, value] : env)
      all[name] = value;
    return wltest::RunProgram(argv, all, start, timeout_s);
  }
  // A file of the start directory, "(missing)" when there is none.
  std::string Out(const std::string& name) const {
    return wltest::ReadFile(start + "/" + name).value_or("(missing)");
  }

  wltest::TempDir dir;
  std::string root = std::filesystem::canonical(dir.path()).string(), build = root + "/build", start = root + "/start",
              home = root + "/home", bin = root + "/bin", path = bin + ":/usr/bin:/bin";
  std::optional<std::string> server = kNobody;
  std::vector<std::string> prefix;
  std::map<std::string, std::string> env;
};

// Names a shell, the record format or a client would trip over.
inline const std::vector<std::string> kHostileNames = {
    "with blank",  "dq\"uote",     "sq'uote",   "$(touch X)", "`touch Y`", "semi;colon",
    "a;b;1;2;x;y", "pipe|x",        "amp&x",     "eq=x",       "x=1;2;3;4", "colon:x",
    "paren(x)",    "back\\slash", "line\nfeed", " leading", "trailing ", "-rf",
    "--help",      "cr\rx",        "pct%s%n",   "tab\tx",    "lt<gt>"};

// Fields of the inventory that hold the names' awkward bytes: each is
// escaped, the other names keep their bytes.
inline const std::vector<std::string> kEscapedFields = {
    ";semi\\x3bcolon;", ";line\\x0afeed;", ";\\x20leading;", ";trailing\\x20;",
    ";eq=x;",           ";-rf;",            ";cr\\x0dx;"};

// Two runs of `w` with `more` over an unchanged tree: the second reports
// nothing, and the first run's inventory, which holds `fields` and
// `versioned`, is what it compared with; `printed` gets the first run's output.
inline void ExpectSecondRunEmpty(const World& w, const std::vector<std::string>& more,
                                 const std::string& versioned,
                                 const std::vector<std::string>& fields = kEscapedFields,
                                 std::string* printed = nullptr) {
  auto first = w.Run(w.Job(more));
  if (printed)
    *printed = first.out;
  ASSERT_EQ(first.status, 0) << first.out;
  const std::string inventory = w.Out(kStem + "01-bom.data");
  for (const std::string& field : fields)
    EXPECT_TRUE(Has(inventory, field)) << field << "\n" << inventory;
  EXPECT_TRUE(Has(inventory, versioned)) << inventory;
  // The report's name also holds ".bom.data" and may be listed before the
  // inventory, hiding it; without it the run does not depend on the order.
  ASSERT_EQ(unlink((w.start + "/" + kStem + "01-diff.data").c_str()), 0);
  auto second = w.Run(w.Job(more));
  ASSERT_EQ(second.status, 0) << second.out;
  EXPECT_TRUE(Has(second.out, "\nOldFileName=" + kStem + "01-bom.data\n")) << second.out;
  EXPECT_EQ(w.Out(kStem + "01-diff.data"),
            "SCMType=" + (more.empty() ? "NONE" : more[1]) +
                "\nMachineName=m1\nBuildLabel=\nBuildNumber=\n");
  EXPECT_EQ(w.Out(kStem + "02-bom.data"), inventory);
}

}  // namespace e2e
