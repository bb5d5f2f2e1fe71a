#pragma once
// The built binary in a world of its own: a build tree, a start directory,
// a home and a bin directory first on PATH, under one temporary directory
// taken by its real path (the run prints the directory it starts in).

#include <gtest/gtest.h>

#include <cstdlib>
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

inline std::string RealPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  std::string out = real ? real : path;
  std::free(real);
  return out;
}

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
    all.insert(env.begin(), env.end());
    return wltest::RunProgram(argv, all, start, timeout_s);
  }
  // A file of the start directory, "(missing)" when there is none.
  std::string Out(const std::string& name) const {
    return wltest::ReadFile(start + "/" + name).value_or("(missing)");
  }

  wltest::TempDir dir;
  std::string root = RealPath(dir.path()), build = root + "/build", start = root + "/start",
              home = root + "/home", bin = root + "/bin", path = bin + ":/usr/bin:/bin";
  std::optional<std::string> server = kNobody;
  std::vector<std::string> prefix;
  std::map<std::string, std::string> env;
};

}  // namespace e2e
