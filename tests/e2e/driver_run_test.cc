// The run's frame as seen from outside: the built binary in a temporary
// start directory with a controlled environment.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testlib/testlib.h"

namespace {

const char kServer[] = "http://127.0.0.1:1";  // nothing listens there
const char kDate[] = "2020-10-14 10_20_30";
const char kBase[] = "job-My Computer-2020-10-14 10_20_30";

const char kBanner[] =
    "\nWeftlane(R) V7.5.1 Build 10142020, Copyright (c) Weftlane Software. All rights "
    "reserved.\n\n";

const char kUsage[] =
    "Usage: wlinspector <options>\n"
    "          -b  = Build Directory\n"
    "          -c  <SCM Tool> = SCM Reporting Type\n"
    "            Current tools are:\n"
    "            ACCUREV, CLEARCASE, CVS, CVSREP, HARVEST, PERFORCE, SVN,\n"
    "            VSS, MSTF, TEAMPRISE\n"
    "          -ld <YYYY-MM-DD HH_MM_SS> = Log: Build Date/Time\n"
    "          -lj <Job Name>  = Log: Job Name\n"
    "          -lm <Machine>   = Log: Build Machine Name\n"
    "          -lo <Owner>     = Log: Owner Name\n"
    "          -lp             = Log: Public Build\n"
    "          -t <Label/Tag Name> = Build Label\n"
    "          -u <User>       = SCM Tool Username\n"
    "          -p <Password>   = SCM Tool Password\n"
    "          -v  = Version\n"
    "          -?  = This message\n"
    "          -h  = This message\n"
    "\n";

const char kEcho[] = "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" \n";

std::string RealPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  std::string out = real ? real : path;
  std::free(real);
  return out;
}

// A start directory (with a build tree inside) and a separate home.
class DriverRun : public ::testing::Test {
 protected:
  DriverRun() : start_(RealPath(dir_ / "start")), home_(dir_ / "home") {
    wltest::MakeDirs(start_);
    wltest::MakeDirs(home_);
  }
  wltest::RunResult Run(const std::vector<std::string>& args,
                        std::optional<std::string> server = std::string(kServer)) {
    return wltest::RunTool(args, wltest::ToolEnv(home_, server), start_);
  }
  static std::vector<std::string> JobArgs(std::vector<std::string> more = {}) {
    std::vector<std::string> args = {"-lj", "job", "-ld", kDate};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }
  // The lines every accepted run prints before its stages.
  std::string Frame(const std::string& report, const std::string& inventory) const {
    return "WorkDir=" + start_ + "\nBuildDir=.\nRptFileName=" + report +
           "\nNewFileName=" + inventory + "\nOldFileName=\n";
  }
  static std::string Numbered(int n, const char* suffix) {
    char number[16];
    std::snprintf(number, sizeof number, "%02d", n);
    return std::string(kBase) + "-" + number + "-" + suffix;
  }

  wltest::TempDir dir_;
  std::string start_, home_;
};

TEST_F(DriverRun, NoServerSetting) {
  auto r = Run(JobArgs(), std::nullopt);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "WEFTLANE_SERVER environment variable must be set.\n");
  EXPECT_TRUE(wltest::ListDir(start_).empty());
}

TEST_F(DriverRun, EmptyServerInTheEnvironmentCountsAsAbsent) {
  auto r = Run(JobArgs(), std::string());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "WEFTLANE_SERVER environment variable must be set.\n");
}

TEST_F(DriverRun, ServerFromTheHomePropertyFile) {
  for (const char* value : {"http://127.0.0.1:1", ""}) {
    SCOPED_TRACE(value);
    wltest::WriteFile(home_ + "/.weftlane/wlenvironment.properties",
                      std::string("WEFTLANE_SERVER=") + value + "\n");
    auto r = Run(JobArgs(), std::nullopt);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind(std::string(kEcho) + Frame(Numbered(1, "diff.data"),
                                                     Numbered(1, "bom.data")),
                          0),
              0u)
        << r.out;
    for (const std::string& name : wltest::ListDir(start_)) unlink((start_ + "/" + name).c_str());
  }
}

TEST_F(DriverRun, Usage) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"-?"}, {"/?"}, {"-h"}, {"/h"}}) {
    auto r = Run(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, kUsage);
  }
}

TEST_F(DriverRun, Errors) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{"-b", "\\\\srv\\x", "-lj", "job", "-ld", kDate},
       "Command Line Options: -b \"\\\\srv\\x\" -lj \"job\" -ld \"2020-10-14 10_20_30\" \n"
       "ERROR 53: UNC Working directories ('\\\\srv\\x') are not supported.\n"},
      {{"-ld", kDate},
       "Command Line Options: -ld \"2020-10-14 10_20_30\" \n"
       "ERROR 55: -lj parameter and argument are required.\n"},
      {{"-lj", "job", "-ld", kDate, "-lo"},
       "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -lo \n"
       "ERROR 56: -lo parameter and argument are required.\n"},
      {{"-lj", "job", "-ld", kDate, "-lm"},
       "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -lm \n"
       "ERROR 57: -lm parameter and argument are required.\n"},
      {{"-lj", "job"},
       "Command Line Options: -lj \"job\" \nERROR 58: -ld parameter and argument are required.\n"},
      {{"-lj", "job", "-ld", "2020/10/14"},
       "Command Line Options: -lj \"job\" -ld \"2020/10/14\" \n"
       "ERROR 58: -ld parameter is required to be in YYYY-MM-DD HH_MM_SS format.\n"},
      {{"-lj", "job", "-@", "-ld", kDate},
       "Command Line Options: -lj \"job\" -@ -ld \"2020-10-14 10_20_30\" \n"},
      {{"@missing.rsp"}, "Could not open response file missing.rsp\n"},
      {{"@."}, "Could not open response file .\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    auto r = Run(c.args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, c.message);
  }
  EXPECT_TRUE(wltest::ListDir(start_).empty());
}

TEST_F(DriverRun, TooManyWords) {
  std::vector<std::string> args(100000, "-s");
  auto r = Run(args);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Too many words on the command line: at most 199 are accepted.\n");
}

TEST_F(DriverRun, ResponseFile) {
  wltest::WriteFile(start_ + "/job.rsp", "-lj \"my job\"\n-ld \"2020-10-14 10_20_30\"\n");
  auto r = Run({"@job.rsp", "-lm", "box"});
  EXPECT_EQ(r.status, 0);
  const std::string base = "my job-box-2020-10-14 10_20_30";
  EXPECT_EQ(r.out.rfind("Command Line Options: -lj \"my job\" -ld \"2020-10-14 10_20_30\" -lm "
                        "\"box\" \n" +
                            Frame(base + "-01-diff.data", base + "-01-bom.data"),
                        0),
            0u)
      << r.out;
}

TEST_F(DriverRun, Version) {
  auto r = Run({"-v"});
  // The run goes on with its job settings unset.
  EXPECT_EQ(r.out.rfind(std::string(kBanner) + "WorkDir=" + start_ +
                            "\nBuildDir=.\nRptFileName=(null)-(null)-(null)-01-diff.data\n"
                            "NewFileName=(null)-(null)-(null)-01-bom.data\nOldFileName=\n",
                        0),
            0u)
      << r.out;
}

TEST_F(DriverRun, CompleteRunKeepsOnlyTheNumberedFiles) {
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 0);
  const std::string report = Numbered(1, "diff.data");
  const std::string inventory = Numbered(1, "bom.data");
  EXPECT_EQ(r.out.rfind(std::string(kEcho) + Frame(report, inventory), 0), 0u) << r.out;
  // The stages' lines in their order, the uploads last.
  size_t pos = 0;
  for (const std::string& line :
       {std::string("Determining Deleted Files\n"), std::string("Determining Added and Changed Files\n"),
        std::string("Saving Comparison data\n"),
        "Uploading Report Data " + std::string(kBase) + "-bom.data\n",
        "Uploading Report Data " + std::string(kBase) + "-diff.data\n", std::string("Complete\n")}) {
    size_t at = r.out.find(line, pos);
    EXPECT_NE(at, std::string::npos) << line << " in\n" << r.out;
    if (at != std::string::npos) pos = at + line.size();
  }
  EXPECT_EQ(r.out.substr(r.out.size() - 9), "Complete\n");
  EXPECT_EQ(wltest::ListDir(start_), (std::vector<std::string>{inventory, report}));

  auto report_text = wltest::ReadFile(start_ + "/" + report).value_or("?");
  EXPECT_EQ(report_text.rfind("SCMType=NONE\nMachineName=My Computer\nBuildLabel=\nBuildNumber=\n", 0),
            0u)
      << report_text;
  auto inventory_text = wltest::ReadFile(start_ + "/" + inventory).value_or("?");
  EXPECT_EQ(inventory_text.rfind("SCMType=NONE\nModuleRootDir=" + start_ +
                                     "\nMachineName=My Computer\nBuildLabel=\nBuildNumber=\n",
                                 0),
            0u)
      << inventory_text;
}

TEST_F(DriverRun, NumberingOfTheTwoFilesIsIndependent) {
  wltest::WriteFile(start_ + "/" + Numbered(1, "diff.data"), "old\n");
  wltest::WriteFile(start_ + "/" + Numbered(2, "diff.data"), "old\n");
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind(std::string(kEcho) + Frame(Numbered(3, "diff.data"), Numbered(1, "bom.data")),
                        0),
            0u)
      << r.out;
  // A second run numbers past the first run's files.
  r = Run(JobArgs());
  EXPECT_EQ(r.out.rfind(std::string(kEcho) + Frame(Numbered(4, "diff.data"), Numbered(2, "bom.data")),
                        0),
            0u)
      << r.out;
}

TEST_F(DriverRun, NumberedNameTakenByADirectory) {
  const std::string report = Numbered(1, "diff.data");
  wltest::MakeDirs(start_ + "/" + report);
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.rfind(std::string(kEcho) + Frame(report, Numbered(1, "bom.data")), 0), 0u)
      << r.out;
  std::string tail = "Could not write to " + report + "\n";
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
  EXPECT_EQ(r.out.find("Determining"), std::string::npos);
}

TEST_F(DriverRun, InventoryNameTakenByADirectory) {
  const std::string inventory = Numbered(1, "bom.data");
  wltest::MakeDirs(start_ + "/" + inventory);
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 1);
  std::string tail = "Determining Added and Changed Files\nCould not write to " + inventory + "\n";
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail) << r.out;
}

TEST_F(DriverRun, TransferCopyCannotBeMade) {
  // The un-numbered copy's name is taken by a directory.
  const std::string copy = std::string(kBase) + "-diff.data";
  wltest::MakeDirs(start_ + "/" + copy);
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 1);
  std::string tail = "Saving Comparison data\nCould not write to " + copy + "\n";
  EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail) << r.out;
}

TEST_F(DriverRun, MissingBuildDirectoryScansTheStartDirectory) {
  auto r = Run(JobArgs({"-b", "does/not/exist"}));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind(std::string("Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" "
                                    "-b \"does/not/exist\" \n") +
                            Frame(Numbered(1, "diff.data"), Numbered(1, "bom.data")),
                        0),
            0u)
      << r.out;
  auto inventory_text = wltest::ReadFile(start_ + "/" + Numbered(1, "bom.data")).value_or("?");
  EXPECT_NE(inventory_text.find("ModuleRootDir=" + start_ + "\n"), std::string::npos) << inventory_text;
}

TEST_F(DriverRun, BuildDirectoryLineAlwaysShowsTheDot) {
  wltest::MakeDirs(start_ + "/tree/sub");
  auto r = Run(JobArgs({"-b", "tree"}));
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("\nBuildDir=.\n"), std::string::npos) << r.out;
  auto inventory_text = wltest::ReadFile(start_ + "/" + Numbered(1, "bom.data")).value_or("?");
  EXPECT_NE(inventory_text.find("ModuleRootDir=" + start_ + "/tree\n"), std::string::npos)
      << inventory_text;
}

}  // namespace
