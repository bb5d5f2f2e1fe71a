#include "driver/cmdline.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "driver/settings.h"
#include "driver_fixtures.h"
#include "testlib/testlib.h"

namespace {

using drivertest::Argv;
using drivertest::Str;

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

const char kDate[] = "2020-10-14 10_20_30";

class ParseParmsTest : public drivertest::DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    UserId = "builder";
  }
  // Runs ParseParms over the words; returns its result, stdout in *out.
  int Parse(const std::vector<std::string>& words, std::string* out) {
    Argv args(words);
    wltest::CaptureStdout cap;
    int r = ParseParms(args.argc(), args.argv());
    *out = cap.Take();
    return r;
  }
};

struct Case {
  const char* name;
  std::vector<std::string> words;
  int result;
  std::string out;
  std::function<void()> check;  // further expectations on the settings
};

TEST_F(ParseParmsTest, Table) {
  const std::vector<Case> cases = {
      {"no words", {}, 0, kUsage, [] { EXPECT_EQ(TaskName, nullptr); }},
      {"-?", {"-?"}, 0, kUsage, nullptr},
      {"/?", {"/?"}, 0, kUsage, nullptr},
      {"-h", {"-h"}, 0, kUsage, nullptr},
      {"/H", {"/H"}, 0, kUsage, nullptr},
      {"lone -v",
       {"-v"},
       1,
       kBanner,
       [] {
         EXPECT_EQ(PrintVersionOnly, 1);
         EXPECT_EQ(TaskName, nullptr);  // no defaults
         EXPECT_EQ(PublicBuildJob, nullptr);
       }},
      {"lone -V", {"-V"}, 1, kBanner, [] { EXPECT_EQ(PrintVersionOnly, 1); }},
      {"minimal complete",
       {"-lj", "job", "-ld", "2020-10-14 10:20:30"},
       1,
       "Command Line Options: -lj \"job\" -ld \"2020-10-14 10:20:30\" \n",
       [] {
         EXPECT_EQ(Str(TaskName), "job");
         EXPECT_EQ(Str(JobDateTime), kDate);
         EXPECT_EQ(Str(MachineLabel), "My Computer");
         EXPECT_EQ(Str(LogOwner), "builder");
         EXPECT_EQ(Str(SCMTypeStr), "NONE");
         EXPECT_EQ(Str(PublicBuildJob), "false");
         EXPECT_EQ(Str(BuildNumber), "");
         EXPECT_EQ(User, nullptr);
         EXPECT_EQ(Password, nullptr);
         EXPECT_EQ(WorkDir, ".");
         EXPECT_EQ(BuildLabel, "");
         EXPECT_EQ(SCMType, 0u);
         EXPECT_EQ(ScanSrc, 0);
         EXPECT_EQ(PrintVersionOnly, 0);
       }},
      {"month.day.year date",
       {"-lj", "j", "-ld", "10.14.2020 10:20:30"},
       1,
       "Command Line Options: -lj \"j\" -ld \"10.14.2020 10:20:30\" \n",
       [] { EXPECT_EQ(Str(JobDateTime), kDate); }},
      {"year not starting with 2",
       {"-lj", "j", "-ld", "1999-10-14 10_20_30"},
       0,
       "Command Line Options: -lj \"j\" -ld \"1999-10-14 10_20_30\" \n"
       "ERROR 58: -ld parameter is required to be in YYYY-MM-DD HH_MM_SS format.\n",
       nullptr},
      {"digits never tested",
       {"-lj", "j", "-ld", "2abc-de-fg hi_jk_lm"},
       1,
       "Command Line Options: -lj \"j\" -ld \"2abc-de-fg hi_jk_lm\" \n",
       [] { EXPECT_EQ(Str(JobDateTime), "2abc-de-fg hi_jk_lm"); }},
      {"date one character short",
       {"-lj", "j", "-ld", "2020-10-14 10_20_3"},
       0,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_3\" \n"
       "ERROR 58: -ld parameter is required to be in YYYY-MM-DD HH_MM_SS format.\n",
       nullptr},
      {"date one character long",
       {"-lj", "j", "-ld", "2020-10-14 10_20_301"},
       0,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_301\" \n"
       "ERROR 58: -ld parameter is required to be in YYYY-MM-DD HH_MM_SS format.\n",
       nullptr},
      {"-b takes the empty value and skips -c",
       {"-b", "-c", "CVS", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -b -c \"CVS\" -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       [] {
         EXPECT_EQ(WorkDir, "");
         EXPECT_EQ(SCMType, 0u);
         EXPECT_EQ(Str(SCMTypeStr), "NONE");
       }},
      {"-c keyword kept as typed",
       {"-c", "cvs", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -c \"cvs\" -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       [] {
         EXPECT_EQ(SCMType, 1u);
         EXPECT_EQ(Str(SCMTypeStr), "cvs");
       }},
      {"unknown keyword keeps the earlier type",
       {"-c", "Svn", "-c", "bogus", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -c \"Svn\" -c \"bogus\" -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       [] {
         EXPECT_EQ(SCMType, 16u);
         EXPECT_EQ(Str(SCMTypeStr), "bogus");
       }},
      {"-c with an empty value",
       {"-lj", "j", "-ld", kDate, "-c"},
       1,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_30\" -c \n",
       [] {
         EXPECT_EQ(SCMType, 0u);
         EXPECT_EQ(Str(SCMTypeStr), "");
       }},
      {"-lp takes no value",
       {"-lp", "-lj", "job", "-ld", kDate},
       1,
       "Command Line Options: -lp -lj \"job\" -ld \"2020-10-14 10_20_30\" \n",
       [] {
         EXPECT_EQ(Str(PublicBuildJob), "true");
         EXPECT_EQ(Str(TaskName), "job");
       }},
      {"upper-case options",
       {"-LJ", "job", "-LD", kDate, "-LM", "box", "-LO", "me", "-LN", "42", "-LP", "-B", "/w", "-T",
        "REL"},
       1,
       "Command Line Options: -LJ \"job\" -LD \"2020-10-14 10_20_30\" -LM \"box\" -LO \"me\" "
       "-LN \"42\" -LP -B \"/w\" -T \"REL\" \n",
       [] {
         EXPECT_EQ(Str(TaskName), "job");
         EXPECT_EQ(Str(MachineLabel), "box");
         EXPECT_EQ(Str(LogOwner), "me");
         EXPECT_EQ(Str(BuildNumber), "42");
         EXPECT_EQ(Str(PublicBuildJob), "true");
         EXPECT_EQ(WorkDir, "/w");
         EXPECT_EQ(BuildLabel, "REL");
       }},
      {"credentials masked",
       {"-lj", "j", "-ld", kDate, "-u", "bob", "-p", "pw1", "-t", "REL1"},
       1,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_30\" -u \"***********\" -p "
       "\"***********\" -t \"***********\" \n",
       [] {
         EXPECT_EQ(Str(User), "bob");
         EXPECT_EQ(Str(Password), "pw1");
         EXPECT_EQ(BuildLabel, "REL1");
       }},
      {"any word with u or p second starts the masking",
       {"-lj", "apple", "-ld", kDate},
       1,
       "Command Line Options: -lj \"apple\" -ld \"***********\" \n",
       [] { EXPECT_EQ(Str(TaskName), "apple"); }},
      {"-v among other options",
       {"-v", "-lj", "j", "-ld", kDate},
       1,
       std::string("Command Line Options: -v -lj \"j\" -ld \"2020-10-14 10_20_30\" \n") + kBanner,
       [] { EXPECT_EQ(PrintVersionOnly, 1); }},
      {"-v with a suffix takes a value",
       {"-vx", "-lj", "j", "-ld", kDate},
       0,
       "Command Line Options: -vx -lj \"j\" -ld \"2020-10-14 10_20_30\" \n"
       "ERROR 55: -lj parameter and argument are required.\n",
       [] { EXPECT_EQ(PrintVersionOnly, 0); }},
      {"-s advances by one",
       {"-s", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -s -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       [] { EXPECT_EQ(ScanSrc, 1); }},
      {"-bdir takes the next word",
       {"-bignored", "/w", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -bignored \"/w\" -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       [] { EXPECT_EQ(WorkDir, "/w"); }},
      {"valued option skips a following option",
       {"-t", "-lj", "job", "-ld", kDate},
       0,
       "Command Line Options: -t -lj \"job\" -ld \"2020-10-14 10_20_30\" \n"
       "ERROR 55: -lj parameter and argument are required.\n",
       [] { EXPECT_EQ(BuildLabel, ""); }},
      {"-l with another suffix sets nothing",
       {"-lx", "val", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -lx \"val\" -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       nullptr},
      {"unknown option and bare words advance by one",
       {"-q", "word", "-", "-lj", "j", "-ld", kDate},
       1,
       "Command Line Options: -q \"word\" - -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       nullptr},
      {"option letter @ stops silently",
       {"-lj", "j", "-@x", "-ld", kDate},
       0,
       "Command Line Options: -lj \"j\" -@x -ld \"2020-10-14 10_20_30\" \n",
       [] { EXPECT_EQ(JobDateTime, nullptr); }},
      {"@ arguments are dropped",
       {"-lj", "@ignored", "j", "-ld", kDate},
       1,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_30\" \n",
       [] { EXPECT_EQ(Str(TaskName), "j"); }},
      {"quotes stripped at both ends",
       {"-lj", "\"job\"", "-ld", kDate},
       1,
       "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" \n",
       [] { EXPECT_EQ(Str(TaskName), "job"); }},
      {"ERROR 53",
       {"-b", "\\\\server\\share", "-lj", "j", "-ld", kDate},
       0,
       "Command Line Options: -b \"\\\\server\\share\" -lj \"j\" -ld \"2020-10-14 10_20_30\" \n"
       "ERROR 53: UNC Working directories ('\\\\server\\share') are not supported.\n",
       nullptr},
      {"ERROR 55",
       {"-ld", kDate},
       0,
       "Command Line Options: -ld \"2020-10-14 10_20_30\" \n"
       "ERROR 55: -lj parameter and argument are required.\n",
       nullptr},
      {"ERROR 55 for a lone word",
       {"hello"},
       0,
       "Command Line Options: \"hello\" \nERROR 55: -lj parameter and argument are required.\n",
       nullptr},
      {"ERROR 56 for an empty -lo",
       {"-lj", "j", "-ld", kDate, "-lo"},
       0,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_30\" -lo \n"
       "ERROR 56: -lo parameter and argument are required.\n",
       nullptr},
      {"ERROR 57",
       {"-lj", "j", "-ld", kDate, "-lm"},
       0,
       "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_30\" -lm \n"
       "ERROR 57: -lm parameter and argument are required.\n",
       nullptr},
      {"ERROR 58 no date",
       {"-lj", "j"},
       0,
       "Command Line Options: -lj \"j\" \nERROR 58: -ld parameter and argument are required.\n",
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ResetSettings();
    UserId = "builder";
    std::string out;
    EXPECT_EQ(Parse(c.words, &out), c.result);
    EXPECT_EQ(out, c.out);
    if (c.check)
      c.check();
  }
}

TEST_F(ParseParmsTest, KeywordTable) {
  const std::vector<std::pair<std::string, uint32_t>> cases = {
      {"CVS", 1},    {"cvsrep", 2},      {"ClearCase", 4}, {"harvest", 8},
      {"svn", 16},   {"VSS", 32},        {"perforce", 64}, {"si", 128},
      {"MSTF", 512}, {"teamprise", 512}, {"AccuRev", 256}, {"CVSX", 0},
  };
  for (const auto& [keyword, type] : cases) {
    SCOPED_TRACE(keyword);
    ResetSettings();
    UserId = "builder";
    std::string out;
    EXPECT_EQ(Parse({"-c", keyword, "-lj", "j", "-ld", kDate}, &out), 1);
    EXPECT_EQ(SCMType, type);
    EXPECT_EQ(Str(SCMTypeStr), keyword);
  }
}

TEST_F(ParseParmsTest, NoLoginNameMeansNoOwner) {
  UserId.clear();
  std::string out;
  EXPECT_EQ(Parse({"-lj", "j", "-ld", kDate}, &out), 0);
  EXPECT_EQ(out,
            "Command Line Options: -lj \"j\" -ld \"2020-10-14 10_20_30\" \n"
            "ERROR 56: -lo parameter and argument are required.\n");
}

TEST_F(ParseParmsTest, SettingsMadeBeforeARefusalStay) {
  std::string out;
  EXPECT_EQ(Parse({"-lm", "box", "-u", "bob"}, &out), 0);
  EXPECT_EQ(Str(MachineLabel), "box");
  EXPECT_EQ(Str(User), "bob");
}

TEST(GetOEMVersion, CopiesTheProductName) {
  char buffer[12];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(GetOEMVersion(buffer), buffer);
  EXPECT_EQ(std::memcmp(buffer, "Weftlane(R)", 12), 0);
}

// --- Response files ---

class ResponseFileTest : public ParseParmsTest {
 protected:
  std::string Write(const std::string& content) {
    std::string path = dir_ / "resp.txt";
    wltest::WriteFile(path, content);
    return path;
  }
  wltest::TempDir dir_;
};

TEST_F(ResponseFileTest, QuotedGroupsAreOneWord) {
  std::string path = Write("-lj \"my job\" -ld \"2020-10-14 10_20_30\"\n");
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 1);
  EXPECT_EQ(out, "Command Line Options: -lj \"my job\" -ld \"2020-10-14 10_20_30\" \n");
  EXPECT_EQ(Str(TaskName), "my job");
  EXPECT_EQ(Str(JobDateTime), kDate);
}

TEST_F(ResponseFileTest, GroupForms) {
  struct GroupCase {
    const char* line;
    const char* job;
  };
  const GroupCase cases[] = {
      {"-lj \"my   spaced  job\" -ld 2020-10-14_10_20_30", "my spaced job"},  // blanks folded
      {"-lj \"unclosed group to the end", "unclosed group to the end"},
      {"-lj \" lone quote\" -ld x", "lone quote"},
      {"-lj \"one\" -ld x", "one"},
      {"-lj \"a b\"c d\" -ld x", "a b\"c"},  // the first later word with a quote closes
      {"-lj x\"y\" -ld z", "x\"y"},          // only the ends are stripped
      {"\r\n-lj \tjob\r\n", "\tjob"},        // a tab is not a separator
  };
  for (const GroupCase& c : cases) {
    SCOPED_TRACE(c.line);
    ResetSettings();
    UserId = "builder";
    std::string path = Write(std::string(c.line) + "\n");
    std::string out;
    Parse({"@" + path}, &out);
    EXPECT_EQ(Str(TaskName), c.job);
  }
}

TEST_F(ResponseFileTest, FileWordsComeBeforeArguments) {
  std::string path = Write("-lj job\n\n-ld\n");
  std::string out;
  EXPECT_EQ(Parse({"@" + path, "2020-10-14 10_20_30", "-lm", "\"box\""}, &out), 1);
  EXPECT_EQ(out, "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" -lm \"box\" \n");
  EXPECT_EQ(Str(MachineLabel), "box");
}

TEST_F(ResponseFileTest, OnlyTheFirstArgumentNamesAResponseFile) {
  std::string path = Write("-lj fromfile\n");
  std::string out;
  EXPECT_EQ(Parse({"-lj", "j", "@" + path, "-ld", kDate}, &out), 1);
  EXPECT_EQ(Str(TaskName), "j");
}

TEST_F(ResponseFileTest, CannotOpen) {
  std::string missing = dir_ / "missing.txt";
  std::string out;
  EXPECT_EQ(Parse({"@" + missing}, &out), 0);
  EXPECT_EQ(out, "Could not open response file " + missing + "\n");
  EXPECT_EQ(Parse({"@"}, &out), 0);
  EXPECT_EQ(out, "Could not open response file \n");
}

TEST_F(ResponseFileTest, DirectoryIsRefusedAsUnopenable) {
  std::string out;
  EXPECT_EQ(Parse({"@" + dir_.path()}, &out), 0);
  EXPECT_EQ(out, "Could not open response file " + dir_.path() + "\n");
}

TEST_F(ResponseFileTest, UnreadableFile) {
  if (geteuid() == 0)
    GTEST_SKIP() << "running as root: permissions do not stop reading";
  std::string path = Write("-lj j\n");
  chmod(path.c_str(), 0);
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 0);
  EXPECT_EQ(out, "Could not open response file " + path + "\n");
}

TEST_F(ResponseFileTest, EmptyFileGivesUsage) {
  std::string path = Write("");
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 0);
  EXPECT_EQ(out, kUsage);
}

TEST_F(ResponseFileTest, SingleWordFileIsASpecialCommandLine) {
  std::string path = Write("-V\n");
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 1);
  EXPECT_EQ(out, kBanner);
}

TEST_F(ResponseFileTest, LongLinesArriveInPieces) {
  // 4 + 995 characters fill the first piece of 999; the rest of the line is
  // a piece (a word) of its own.
  std::string job(1500, 'a');
  std::string path = Write("-lj " + job + "\n-ld \"" + kDate + "\"\n");
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 1);
  EXPECT_EQ(Str(TaskName), std::string(995, 'a'));
  EXPECT_EQ(out, "Command Line Options: -lj \"" + std::string(995, 'a') + "\" \"" +
                     std::string(505, 'a') + "\" -ld \"2020-10-14 10_20_30\" \n");
}

TEST_F(ResponseFileTest, PieceBoundaryAtExactly999Characters) {
  // A line of exactly 999 characters is one piece; its line feed is a piece
  // with no words.
  std::string line = "-lj " + std::string(995, 'b');
  ASSERT_EQ(line.size(), kResponseLineChars);
  std::string path = Write(line + "\n-ld \"" + kDate + "\"\n");
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 1);
  EXPECT_EQ(Str(TaskName), std::string(995, 'b'));
  EXPECT_EQ(Str(JobDateTime), kDate);
}

TEST_F(ResponseFileTest, NulByteEndsTheTextOfItsLine) {
  std::string content = std::string("-lj job\0 -lm hidden\n", 20) + "-ld \"" + kDate + "\"\n";
  std::string path = Write(content);
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 1);
  EXPECT_EQ(out, "Command Line Options: -lj \"job\" -ld \"2020-10-14 10_20_30\" \n");
  EXPECT_EQ(Str(MachineLabel), "My Computer");
}

TEST_F(ResponseFileTest, BinaryBytesDoNotBreakTheParse) {
  std::string content;
  uint32_t x = 12345;
  for (int i = 0; i < 20000; ++i) {
    x = x * 1103515245u + 12345u;
    content += static_cast<char>((x >> 16) & 0xff);
  }
  std::string path = Write(content);
  std::string out;
  int r = Parse({"@" + path}, &out);
  EXPECT_TRUE(r == 0 || r == 1);
  EXPECT_FALSE(out.empty());
}

TEST_F(ResponseFileTest, WordLimit) {
  // 198 words from the file + 1 argument = 199 words: accepted.
  std::string content = "-lj j\n-ld \"" + std::string(kDate) + "\"\n";  // 4 words
  for (int i = 0; i < 194; ++i)
    content += "-s\n";
  std::string path = Write(content);
  std::string out;
  EXPECT_EQ(Parse({"@" + path, "-s"}, &out), 1);  // 199 words
  ResetSettings();
  UserId = "builder";
  EXPECT_EQ(Parse({"@" + path, "-s", "-s"}, &out), 0);  // 200 words
  EXPECT_EQ(out, std::string(kTooManyWordsMessage) + "\n");
}

TEST_F(ResponseFileTest, HundredThousandWordsAreRefused) {
  std::string content;
  for (int i = 0; i < 1000; ++i) {
    for (int j = 0; j < 100; ++j)
      content += "w ";
    content += "\n";
  }
  std::string path = Write(content);
  std::string out;
  EXPECT_EQ(Parse({"@" + path}, &out), 0);
  EXPECT_EQ(out, std::string(kTooManyWordsMessage) + "\n");
}

TEST_F(ParseParmsTest, HundredThousandArgumentsAreRefused) {
  std::vector<std::string> words(100000, "-s");
  std::string out;
  EXPECT_EQ(Parse(words, &out), 0);
  EXPECT_EQ(out, std::string(kTooManyWordsMessage) + "\n");
}

TEST_F(ResponseFileTest, EndlessStreamOfBlankLinesIsRefused) {
  struct stat st;
  if (stat("/dev/zero", &st) != 0)
    GTEST_SKIP() << "/dev/zero is missing";
  std::string out;
  EXPECT_EQ(Parse({"@/dev/zero"}, &out), 0);
  EXPECT_EQ(out, "Response file /dev/zero is too large: at most 67108864 bytes are read.\n");
}

}  // namespace
