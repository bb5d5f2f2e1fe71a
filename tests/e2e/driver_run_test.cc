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

const char kUploadRefused[] =
    "LogUrl=http://127.0.0.1:1/LogUpload\n"
    "ERROR 401: Could not connect to 127.0.0.1 on port 1\n\n";

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
  // Everything an accepted run prints after the echo when the start
  // directory holds no files: each upload prints `upload`.
  std::string CompleteRun(int report, int inventory, const std::string& upload) const {
    return CompleteRunOf(kBase, report, inventory, upload);
  }
  std::string CompleteRunOf(const std::string& base, int report, int inventory,
                            const std::string& upload) const {
    return Frame(Numbered(base, report, "diff.data"), Numbered(base, inventory, "bom.data")) +
           "Determining Deleted Files\nDetermining Added and Changed Files\n"
           "Saving Comparison data\n"
           "Uploading Report Data " +
           base + "-bom.data\n" + upload + "Uploading Report Data " + base + "-diff.data\n" +
           upload + "Complete\n";
  }
  static std::string Numbered(const std::string& base, int n, const char* suffix) {
    char number[16];
    std::snprintf(number, sizeof number, "%02d", n);
    return base + "-" + number + "-" + suffix;
  }
  static std::string Numbered(int n, const char* suffix) { return Numbered(kBase, n, suffix); }

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
  struct Case {
    const char* value;
    const char* upload;  // what each upload prints
  };
  const Case cases[] = {
      {"http://127.0.0.1:1",
       "LogUrl=http://127.0.0.1:1/LogUpload\n"
       "ERROR 401: Could not connect to 127.0.0.1 on port 1\n\n"},
      // An empty value from the file is still a value: the upload address is
      // then "/LogUpload".
      {"", "LogUrl=/LogUpload\nERROR 404: Invalid URL /LogUpload\n\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    wltest::WriteFile(home_ + "/.weftlane/wlenvironment.properties",
                      std::string("WEFTLANE_SERVER=") + c.value + "\n");
    auto r = Run(JobArgs(), std::nullopt);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string(kEcho) + CompleteRun(1, 1, c.upload));
    for (const std::string& name : wltest::ListDir(start_))
      unlink((start_ + "/" + name).c_str());
  }
}

TEST_F(DriverRun, EnvironmentWinsOverThePropertyFile) {
  wltest::WriteFile(home_ + "/.weftlane/wlenvironment.properties", "WEFTLANE_SERVER=\n");
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string(kEcho) + CompleteRun(1, 1, kUploadRefused));
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
  EXPECT_EQ(r.out,
            "Command Line Options: -lj \"my job\" -ld \"2020-10-14 10_20_30\" -lm \"box\" \n" +
                CompleteRunOf("my job-box-2020-10-14 10_20_30", 1, 1, kUploadRefused));
}

TEST_F(DriverRun, Version) {
  auto r = Run({"-v"});
  // The run goes on with its job settings unset; the names show them as the
  // C library prints a null text.
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kBanner + CompleteRunOf("(null)-(null)-(null)", 1, 1, kUploadRefused));
  auto report_text = wltest::ReadFile(start_ + "/(null)-(null)-(null)-01-diff.data").value_or("?");
  EXPECT_EQ(report_text, "BuildLabel=\n");
}

TEST_F(DriverRun, CompleteRunKeepsOnlyTheNumberedFiles) {
  auto r = Run(JobArgs({"-c", "none", "-t", "REL 1", "-ln", "77", "-lm", "box"}));
  EXPECT_EQ(r.status, 0);
  const std::string base = "job-box-2020-10-14 10_20_30";
  const std::string report = Numbered(base, 1, "diff.data");
  const std::string inventory = Numbered(base, 1, "bom.data");
  // A failed upload does not change the status.
  EXPECT_EQ(r.out,
            "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -c \"none\" -t \"REL "
            "1\" -ln \"77\" -lm \"box\" \n" +
                CompleteRunOf(base, 1, 1, kUploadRefused));
  EXPECT_EQ(wltest::ListDir(start_), (std::vector<std::string>{inventory, report}));
  EXPECT_EQ(wltest::ReadFile(start_ + "/" + report).value_or("?"),
            "SCMType=none\nMachineName=box\nBuildLabel=REL 1\nBuildNumber=77\n");
  EXPECT_EQ(wltest::ReadFile(start_ + "/" + inventory).value_or("?"),
            "SCMType=none\nModuleRootDir=" + start_ +
                "\nMachineName=box\nBuildLabel=REL 1\nBuildNumber=77\n");
}

TEST_F(DriverRun, NumberingOfTheTwoFilesIsIndependent) {
  wltest::WriteFile(start_ + "/" + Numbered(1, "diff.data"), "old\n");
  wltest::WriteFile(start_ + "/" + Numbered(2, "diff.data"), "old\n");
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kEcho + CompleteRun(3, 1, kUploadRefused));
  // A second run numbers past the first run's files.
  r = Run(JobArgs());
  EXPECT_EQ(r.out, kEcho + CompleteRun(4, 2, kUploadRefused));
}

TEST_F(DriverRun, NumberedNameTakenByADirectory) {
  const std::string report = Numbered(1, "diff.data");
  wltest::MakeDirs(start_ + "/" + report);
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            kEcho + Frame(report, Numbered(1, "bom.data")) + "Could not write to " + report + "\n");
}

TEST_F(DriverRun, InventoryNameTakenByADirectory) {
  const std::string inventory = Numbered(1, "bom.data");
  wltest::MakeDirs(start_ + "/" + inventory);
  auto r = Run(JobArgs());
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, kEcho + Frame(Numbered(1, "diff.data"), inventory) +
                       "Determining Deleted Files\nDetermining Added and Changed Files\n"
                       "Could not write to " +
                       inventory + "\n");
}

TEST_F(DriverRun, TransferCopyCannotBeMade) {
  // The un-numbered copy's name is taken by a directory.
  for (const char* suffix : {"-diff.data", "-bom.data"}) {
    SCOPED_TRACE(suffix);
    const std::string copy = std::string(kBase) + suffix;
    wltest::MakeDirs(start_ + "/" + copy);
    auto r = Run(JobArgs());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, kEcho + Frame(Numbered(1, "diff.data"), Numbered(1, "bom.data")) +
                         "Determining Deleted Files\nDetermining Added and Changed Files\n"
                         "Saving Comparison data\nCould not write to " +
                         copy + "\n");
    // The numbered files stay as the run's record.
    EXPECT_TRUE(wltest::ReadFile(start_ + "/" + Numbered(1, "bom.data")).has_value());
    for (const std::string& name : wltest::ListDir(start_)) {
      std::string path = start_ + "/" + name;
      if (unlink(path.c_str()) != 0)
        rmdir(path.c_str());
    }
  }
}

TEST_F(DriverRun, MissingBuildDirectoryScansTheStartDirectory) {
  auto r = Run(JobArgs({"-b", "does/not/exist"}));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -b \"does/not/exist\" "
            "\n" +
                CompleteRun(1, 1, kUploadRefused));
  auto inventory_text = wltest::ReadFile(start_ + "/" + Numbered(1, "bom.data")).value_or("?");
  EXPECT_NE(inventory_text.find("ModuleRootDir=" + start_ + "\n"), std::string::npos)
      << inventory_text;
}

TEST_F(DriverRun, EarlierInventoryIsLoadedAndCompared) {
  // Only names holding ".bom.data" are taken as earlier inventories, and only
  // when their root is the build directory as typed.
  const std::string tree = RealPath(dir_ / "tree");
  wltest::WriteFile(tree + "/kept.c", "same\n");
  wltest::WriteFile(tree + "/new.c", "new\n");
  const std::string earlier = "job-My Computer-2019.bom.data";
  wltest::WriteFile(start_ + "/" + earlier,
                    "SCMType=NONE\nModuleRootDir=" + tree +
                        "\nMachineName=My Computer\nBuildLabel=\n" + tree +
                        ";gone.c;3;4; 0123abcd000000000000000000000000; ;\n");
  auto r = Run(JobArgs({"-b", tree}));
  EXPECT_EQ(r.status, 0);
  const std::string report = Numbered(1, "diff.data");
  const std::string inventory = Numbered(1, "bom.data");
  EXPECT_EQ(r.out, "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -b \"" + tree +
                       "\" \nWorkDir=" + start_ + "\nBuildDir=.\nRptFileName=" + report +
                       "\nNewFileName=" + inventory + "\nOldFileName=" + earlier +
                       "\nLoading comparison data: " + earlier +
                       "\nDetermining Deleted Files\nDetermining Added and Changed Files\n"
                       "Saving Comparison data\n"
                       "Uploading Report Data " +
                       kBase + "-bom.data\n" + kUploadRefused + "Uploading Report Data " + kBase +
                       "-diff.data\n" + kUploadRefused + "Complete\n");
  std::string report_text = wltest::ReadFile(start_ + "/" + report).value_or("?");
  EXPECT_NE(report_text.find("\nD;" + tree + ";gone.c;3;4; 0123abcd000000000000000000000000; ;\n"),
            std::string::npos)
      << report_text;
  EXPECT_NE(report_text.find("\nA;" + tree + ";kept.c;"), std::string::npos) << report_text;
  EXPECT_NE(report_text.find("\nA;" + tree + ";new.c;"), std::string::npos) << report_text;
}

TEST_F(DriverRun, PerFileGroupAsksOncePerDirectory) {
  // A fake Perforce client on PATH answers for the directory it is run in and
  // logs where it ran.
  const std::string tree = RealPath(dir_ / "tree");
  wltest::WriteFile(tree + "/a.c", "a\n");
  wltest::WriteFile(tree + "/b.c", "b\n");
  wltest::WriteFile(tree + "/sub/c.c", "c\n");
  const std::string bin = dir_ / "bin";
  wltest::MakeDirs(bin);
  wltest::WriteScript(
      bin, "p4",
      "echo \"$PWD $*\" >> '" + dir_.path() +
          "/p4.log'\n"
          "echo '//depot/a.c'\necho '... #3 change 100 edit'\n"
          "echo '//depot/b.c'\necho '... #7 change 90 edit'\necho '... #6 change 80'\n");
  auto r =
      wltest::RunTool(JobArgs({"-b", tree, "-c", "perforce"}),
                      wltest::ToolEnv(home_, std::string(kServer), bin + ":/usr/bin:/bin"), start_);
  EXPECT_EQ(r.status, 0);
  const std::string frame = Frame(Numbered(1, "diff.data"), Numbered(1, "bom.data"));
  const std::string stages = "Executing: p4 filelog -t -L \"*\" 2>&1 in dir " + tree +
                             "/\nExecuting: p4 filelog -t -L \"*\" 2>&1 in dir " + tree + "/sub/\n";
  const std::string expected_start =
      "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -b \"" + tree +
      "\" -c \"perforce\" \n" + frame + stages + "Determining Deleted Files\n";
  EXPECT_EQ(r.out.substr(0, expected_start.size()), expected_start) << r.out;
  EXPECT_EQ(wltest::ReadFile(dir_ / "p4.log").value_or("?"),
            tree + " filelog -t -L *\n" + tree + "/sub filelog -t -L *\n");
  std::string inventory = wltest::ReadFile(start_ + "/" + Numbered(1, "bom.data")).value_or("?");
  EXPECT_EQ(inventory.rfind("SCMType=perforce\nModuleRootDir=" + tree + "\n", 0), 0u) << inventory;
  EXPECT_NE(inventory.find("\n" + tree + ";a.c;2;"), std::string::npos) << inventory;
  EXPECT_NE(inventory.find("000000000000000000000000; 3;\n" + tree + ";b.c;"), std::string::npos)
      << inventory;
  EXPECT_NE(inventory.find("000000000000000000000000; 7;\n" + tree + ";sub/c.c;"),
            std::string::npos)
      << inventory;
  EXPECT_EQ(inventory.substr(inventory.size() - 28), "000000000000000000000000; ;\n");
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
