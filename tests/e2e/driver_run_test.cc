// The run's frame as seen from outside: the built binary in a temporary
// start directory with a controlled environment.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "testlib/driver_fixtures.h"
#include "testlib/testlib.h"

namespace {

using namespace drivertest;

const char kServer[] = "http://127.0.0.1:1";  // nothing listens there
const char kBase[] = "job-My Computer-2020-10-14 10_20_30";
const char kRefused[] =
    "LogUrl=http://127.0.0.1:1/LogUpload\nERROR 401: Could not connect to 127.0.0.1 on port 1\n\n";
const std::string kJob = "-lj \"job\" -ld \"2020-10-14 10_20_30\"", kEcho = Echoed(kJob);
const std::string kStages = "Determining Deleted Files\nDetermining Added and Changed Files\n";

// Creates the directory and returns its real path.
std::string MadeReal(const std::string& path) {
  wltest::MakeDirs(path);
  char* real = realpath(path.c_str(), nullptr);
  std::string out = real ? real : path;
  std::free(real);
  return out;
}

std::string Numbered(int n, const char* suffix, const std::string& base = kBase) {
  return base + (n < 10 ? "-0" : "-") + std::to_string(n) + "-" + suffix;
}

// A start directory and a separate home.
class DriverRun : public ::testing::Test {
 protected:
  wltest::RunResult Run(const std::vector<std::string>& args,
                        std::optional<std::string> server = std::string(kServer),
                        std::optional<std::string> path = std::nullopt) {
    return wltest::RunTool(args, wltest::ToolEnv(home_, server, path), start_);
  }
  static std::vector<std::string> JobArgs(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"-lj", "job", "-ld", kDate});
    return more;
  }
  // The lines every accepted run prints before its stages.
  std::string Frame(const std::string& report, const std::string& inventory) const {
    return "WorkDir=" + start_ + "\nBuildDir=.\nRptFileName=" + report +
           "\nNewFileName=" + inventory + "\nOldFileName=\n";
  }
  // Everything an accepted run prints after the echo when the start
  // directory holds no files; each upload prints `upload`.
  std::string CompleteRun(int report, int inventory, const std::string& upload = kRefused,
                          const std::string& base = kBase) const {
    return Frame(Numbered(report, "diff.data", base), Numbered(inventory, "bom.data", base)) +
           kStages + "Saving Comparison data\nUploading Report Data " + base + "-bom.data\n" +
           upload + "Uploading Report Data " + base + "-diff.data\n" + upload + "Complete\n";
  }
  void EmptyStart() {
    for (const std::string& name : wltest::ListDir(start_))
      if (unlink((start_ + "/" + name).c_str()) != 0)
        rmdir((start_ + "/" + name).c_str());
  }

  wltest::TempDir dir_;
  std::string start_ = MadeReal(dir_ / "start"), home_ = dir_ / "home";
};

TEST_F(DriverRun, ServerSetting) {
  const std::string missing = "WEFTLANE_SERVER environment variable must be set.\n";
  const std::string bad_url = "LogUrl=/LogUpload\nERROR 404: Invalid URL /LogUpload\n\n";
  // clang-format off
  using Opt = std::optional<std::string>;
  const std::tuple<Opt, Opt, int, std::string> cases[] = {  // environment, file, status, output
      {{}, {}, 1, missing},
      {"", {}, 1, missing},  // empty counts as absent
      {{}, kServer, 0, kEcho + CompleteRun(1, 1)},
      {{}, "", 0, kEcho + CompleteRun(1, 1, bad_url)},  // an empty value is a value
      {kServer, "", 0, kEcho + CompleteRun(1, 1)},      // the environment wins
  };
  // clang-format on
  for (const auto& [env, file, status, out] : cases) {
    SCOPED_TRACE(out);
    if (file)
      wltest::WriteFile(home_ + "/.weftlane/wlenvironment.properties",
                        "WEFTLANE_SERVER=" + *file + "\n");
    auto r = Run(JobArgs(), env);
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(wltest::ListDir(start_).size(), status ? 0u : 2u);
    EmptyStart();
  }
}

TEST_F(DriverRun, RefusedCommandLines) {
  const std::string j = kJob, usage = kUsage;
  const std::string req = " parameter and argument are required.\n";
  const std::string unc = "ERROR 53: UNC Working directories ('\\\\srv\\x') are not supported.\n";
  // clang-format off
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, usage}, {{"-?"}, usage}, {{"/?"}, usage}, {{"-h"}, usage}, {{"/H"}, usage},
      {JobArgs({"-b", "\\\\srv\\x"}), Echoed(j + " -b \"\\\\srv\\x\"") + unc},
      {JobArgs({"-lm"}), Echoed(j + " -lm") + "ERROR 57: -lm" + req},
      {{"-lj", "job"}, Echoed("-lj \"job\"") + "ERROR 58: -ld" + req},
      {JobArgs({"-@", "-lm"}), Echoed(j + " -@ -lm")},  // stops silently
      {{"@missing.rsp"}, "Could not open response file missing.rsp\n"},
      {JobArgs({"-t", "a\nb"}), Echoed(j + " -t \"a\nb\"") +
       "ERROR 60: -t value must not contain a line feed or carriage return.\n"},
      {JobArgs({"-lm", "m", "-ln", "7\r"}), Echoed(j + " -lm \"m\" -ln \"7\r\"") +
       "ERROR 60: -ln value must not contain a line feed or carriage return.\n"},
      {std::vector<std::string>(100000, "-s"),
       "Too many words on the command line: at most 199 are accepted.\n"},
  };
  // clang-format on
  for (const auto& [args, out] : cases) {
    SCOPED_TRACE(out);
    auto r = Run(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, out);
  }
  EXPECT_TRUE(wltest::ListDir(start_).empty());
}

TEST_F(DriverRun, Version) {
  // The run goes on with its job settings unset; the names show them as the
  // C library prints a null text.
  auto r = Run({"-v"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kBanner + CompleteRun(1, 1, kRefused, "(null)-(null)-(null)"));
  EXPECT_EQ(wltest::ReadFile(start_ + "/(null)-(null)-(null)-01-diff.data"), "BuildLabel=\n");
}

TEST_F(DriverRun, CompleteRunFromAResponseFileKeepsOnlyTheNumberedFiles) {
  wltest::WriteFile(dir_ / "job.rsp",
                    "-lj \"my job\" -ld \"2020-10-14 10_20_30\"\n-c none -t \"REL 1\"\n");
  auto r = Run({"@" + dir_ / "job.rsp", "-ln", "77", "-lm", "box"});
  const std::string base = "my job-box-2020-10-14 10_20_30";
  EXPECT_EQ(r.status, 0);  // a failed upload does not change the status
  EXPECT_EQ(r.out, Echoed("-lj \"my job\" -ld \"2020-10-14 10_20_30\" -c \"none\" -t \"REL 1\" "
                          "-ln \"77\" -lm \"box\"") +
                       CompleteRun(1, 1, kRefused, base));
  const std::string report = Numbered(1, "diff.data", base),
                    inventory = Numbered(1, "bom.data", base);
  EXPECT_EQ(wltest::ListDir(start_), (std::vector<std::string>{inventory, report}));
  const std::string tail = "MachineName=box\nBuildLabel=REL 1\nBuildNumber=77\n";
  EXPECT_EQ(wltest::ReadFile(start_ + "/" + report), "SCMType=none\n" + tail);
  EXPECT_EQ(wltest::ReadFile(start_ + "/" + inventory),
            "SCMType=none\nModuleRootDir=" + start_ + "\n" + tail);
}

TEST_F(DriverRun, NumberingOfTheTwoFilesIsIndependent) {
  wltest::WriteFile(start_ + "/" + Numbered(1, "diff.data"), "old\n");
  wltest::WriteFile(start_ + "/" + Numbered(2, "diff.data"), "old\n");
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kEcho + CompleteRun(3, 1));
  // A second run numbers past the first run's files; a missing build
  // directory makes it scan the start directory.
  r = Run(JobArgs({"-b", "does/not/exist"}));
  EXPECT_EQ(r.out, Echoed(kJob + " -b \"does/not/exist\"") + CompleteRun(4, 2));
  std::string inventory = wltest::ReadFile(start_ + "/" + Numbered(2, "bom.data")).value_or("");
  EXPECT_NE(inventory.find("\nModuleRootDir=" + start_ + "\n"), std::string::npos) << inventory;
}

TEST_F(DriverRun, OutputNameTakenByADirectory) {
  const std::string frame = kEcho + Frame(Numbered(1, "diff.data"), Numbered(1, "bom.data"));
  const std::string saving = kStages + "Saving Comparison data\n";
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {  // name in the way, stages before
      {Numbered(1, "diff.data"), ""}, {Numbered(1, "bom.data"), kStages},
      {std::string(kBase) + "-diff.data", saving}, {std::string(kBase) + "-bom.data", saving},
  };
  // clang-format on
  for (const auto& [name, stages] : cases) {
    SCOPED_TRACE(name);
    wltest::MakeDirs(start_ + "/" + name);
    auto r = Run(JobArgs());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, frame + stages + "Could not write to " + name + "\n");
    EmptyStart();
  }
}

}  // namespace
