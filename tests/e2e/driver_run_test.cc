// The run's frame as seen from outside: what the built binary prints and
// leaves in its start directory, byte for byte.

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "e2e/e2e.h"
#include "testlib/driver_fixtures.h"
#include "testlib/testlib.h"

namespace {

using namespace drivertest;

const char kBase[] = "job-My Computer-2020-10-14 10_20_30";
const char kRefused[] =
    "LogUrl=http://127.0.0.1:1/LogUpload\nERROR 401: Could not connect to 127.0.0.1 on port 1\n\n";
const std::string kJob = "-lj \"job\" -ld \"2020-10-14 10_20_30\"", kEcho = Echoed(kJob);
const std::string kStages = "Determining Deleted Files\nDetermining Added and Changed Files\n";

std::string Numbered(int n, const char* suffix, const std::string& base = kBase) {
  return base + (n < 10 ? "-0" : "-") + std::to_string(n) + "-" + suffix;
}

std::vector<std::string> JobArgs(std::vector<std::string> more = {}) {
  more.insert(more.begin(), {"-lj", "job", "-ld", kDate});
  return more;
}

// Runs without -b: the start directory, empty between rows, is the tree.
class DriverRun : public ::testing::Test {
 protected:
  // The lines every accepted run prints before its stages.
  std::string Frame(const std::string& report, const std::string& inventory) const {
    return "WorkDir=" + w_.start + "\nBuildDir=.\nRptFileName=" + report +
           "\nNewFileName=" + inventory + "\nOldFileName=\n";
  }
  // Everything an accepted run over an empty tree prints after the echo;
  // each upload prints `upload`.
  std::string CompleteRun(int report, int inventory, const std::string& upload = kRefused,
                          const std::string& base = kBase) const {
    return Frame(Numbered(report, "diff.data", base), Numbered(inventory, "bom.data", base)) +
           kStages + "Saving Comparison data\nUploading Report Data " + base + "-bom.data\n" +
           upload + "Uploading Report Data " + base + "-diff.data\n" + upload + "Complete\n";
  }
  void EmptyStart() {
    for (const std::string& name : wltest::ListDir(w_.start))
      if (unlink((w_.start + "/" + name).c_str()) != 0)
        rmdir((w_.start + "/" + name).c_str());
  }

  e2e::World w_;
};

// Each row runs in an empty start directory: the words, what is in the way
// before (directories), the output, and the contents of files it leaves (it
// leaves both outputs exactly when it succeeds).
TEST_F(DriverRun, CommandLinesSettingsAndOutputs) {
  const std::string missing = "WEFTLANE_SERVER environment variable must be set.\n";
  const std::string bad_url = "LogUrl=/LogUpload\nERROR 404: Invalid URL /LogUpload\n\n";
  const std::string req = " parameter and argument are required.\n";
  const std::string unc = "ERROR 53: UNC Working directories ('\\\\srv\\x') are not supported.\n";
  const std::string j = kJob, usage = kUsage, base = kBase, null = "(null)-(null)-(null)";
  // 199 words after the program name are accepted, 200 are not.
  std::vector<std::string> words_199 = JobArgs(std::vector<std::string>(195, "-lp"));
  std::string echo_199 = kJob;
  for (int i = 0; i < 195; ++i)
    echo_199 += " -lp";
  std::vector<std::string> words_200 = words_199;
  words_200.push_back("-lp");
  wltest::WriteFile(w_.root + "/job.rsp", "-lj \"my job\" -ld \"2020-10-14 10_20_30\"\n-c none -t \"REL 1\"\n");
  const std::string rsp = "my job-box-2020-10-14 10_20_30", tail = "MachineName=box\nBuildLabel=REL 1\nBuildNumber=77\n";
  const std::string in_the_way = kEcho + Frame(Numbered(1, "diff.data"), Numbered(1, "bom.data"));
  const std::string saving = kStages + "Saving Comparison data\n";
  using Opt = std::optional<std::string>;
  struct Row {
    std::vector<std::string> args;
    std::string out;
    int status = 1;
    Opt server = std::string(e2e::kNobody), property = std::nullopt;  // environment, home file
    std::vector<std::string> before = {};
    std::map<std::string, std::string> after = {};
    size_t left = 0;  // names left in the start directory, when not (status ? 0 : 2) + before
  };
  // clang-format off
  const Row rows[] = {
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
      {words_200, "Too many words on the command line: at most 199 are accepted.\n"},
      {words_199, Echoed(echo_199) + CompleteRun(1, 1), 0},
      {JobArgs(), missing, 1, {}},
      {JobArgs(), missing, 1, ""},  // empty counts as absent
      {JobArgs(), kEcho + CompleteRun(1, 1), 0, {}, e2e::kNobody},
      {JobArgs(), kEcho + CompleteRun(1, 1, bad_url), 0, {}, ""},  // an empty value is a value
      {JobArgs(), kEcho + CompleteRun(1, 1), 0, e2e::kNobody, ""},  // the environment wins
      // The run goes on with its job settings unset; the names show them as
      // the C library prints a null text.
      {.args = {"-v"}, .out = kBanner + CompleteRun(1, 1, kRefused, null), .status = 0,
       .after = {{null + "-01-diff.data", "BuildLabel=\n"}}},
      // A failed upload does not change the status.
      {.args = {"@" + w_.root + "/job.rsp", "-ln", "77", "-lm", "box"},
       .out = Echoed("-lj \"my job\" -ld \"2020-10-14 10_20_30\" -c \"none\" -t \"REL 1\" -ln \"77\" -lm \"box\"") +
              CompleteRun(1, 1, kRefused, rsp),
       .status = 0,
       .after = {{Numbered(1, "diff.data", rsp), "SCMType=none\n" + tail},
                 {Numbered(1, "bom.data", rsp), "SCMType=none\nModuleRootDir=" + w_.start + "\n" + tail}}},
      {.args = JobArgs(), .out = in_the_way + "Could not write to " + Numbered(1, "diff.data") + "\n",
       .before = {Numbered(1, "diff.data")}},
      {.args = JobArgs(), .out = in_the_way + kStages + "Could not write to " + Numbered(1, "bom.data") + "\n",
       .before = {Numbered(1, "bom.data")}},
      // The numbered outputs stay as the run's record.
      {.args = JobArgs(), .out = in_the_way + saving + "Could not write to " + base + "-diff.data\n",
       .before = {base + "-diff.data"}, .left = 3},
      {.args = JobArgs(), .out = in_the_way + saving + "Could not write to " + base + "-bom.data\n",
       .before = {base + "-bom.data"}, .left = 4},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.out);
    w_.server = row.server;
    if (row.property)
      wltest::WriteFile(w_.home + "/.weftlane/wlenvironment.properties",
                        "WEFTLANE_SERVER=" + *row.property + "\n");
    for (const std::string& name : row.before)
      wltest::MakeDirs(w_.start + "/" + name);
    auto r = w_.Run(row.args);
    EXPECT_EQ(r.status, row.status);
    EXPECT_EQ(r.out, row.out);
    EXPECT_EQ(wltest::ListDir(w_.start).size(),
              row.left ? row.left : (row.status ? 0u : 2u) + row.before.size());
    for (const auto& [name, content] : row.after)
      EXPECT_EQ(w_.Out(name), content);
    EmptyStart();
  }
}

TEST_F(DriverRun, NumberingOfTheTwoFilesIsIndependent) {
  for (int n = 1; n <= 9; ++n)
    wltest::WriteFile(w_.start + "/" + Numbered(n, "diff.data"), "old\n");
  auto r = w_.Run(JobArgs());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kEcho + CompleteRun(10, 1));
  // A second run numbers past the first run's files; a missing build
  // directory makes it scan the start directory.
  r = w_.Run(JobArgs({"-b", "does/not/exist"}));
  EXPECT_EQ(r.out, Echoed(kJob + " -b \"does/not/exist\"") + CompleteRun(11, 2));
  EXPECT_TRUE(e2e::Has(w_.Out(Numbered(2, "bom.data")), "\nModuleRootDir=" + w_.start + "\n"));
}

}  // namespace
