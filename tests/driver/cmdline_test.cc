#include "driver/cmdline.h"
#include "driver/input.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "testlib/driver_fixtures.h"

namespace {

using namespace drivertest;

const std::string kLd = "-ld \"2020-10-14 10_20_30\"", kJ = "-lj \"j\" " + kLd;
const std::string kBadDate =
    "ERROR 58: -ld parameter is required to be in YYYY-MM-DD HH_MM_SS format.\n";
const std::string kNoJob = "ERROR 55: -lj parameter and argument are required.\n";

using ParseParmsTest = DriverTest;

// Runs ParseParms over the words from fresh settings; stdout in *out.
int Parse(const std::vector<std::string>& words, std::string* out, const char* login = "builder") {
  ResetSettings();
  UserId = login;
  Argv args(words);
  wltest::CaptureStdout cap;
  int r = ParseParms(args.argc(), args.argv());
  *out = cap.Take();
  return r;
}

// The words followed by the job name and a good date, and their echo.
std::vector<std::string> J(std::vector<std::string> words) {
  words.insert(words.end(), {"-lj", "j", "-ld", kDate});
  return words;
}
std::string E(const std::string& echo) { return Echoed(echo + kJ); }
// The job name and the given date, and their echo.
std::vector<std::string> JW(const std::string& date) { return {"-lj", "j", "-ld", date}; }
std::string JE(const std::string& date) { return Echoed("-lj \"j\" -ld \"" + date + "\""); }

TEST_F(ParseParmsTest, Table) {
  const std::string y1999 = "1999-10-14 10_20_30", digits = "2abc-de-fg hi_jk_lm";
  const std::string mdy = "10.14.2020 10:20:30", long_date = "2020-10-14 10_20_301";
  const std::string m = "\"***********\"";
  // clang-format off
  // words, result, output, further expectations on the settings
  const std::tuple<std::vector<std::string>, int, std::string, std::function<void()>> cases[] = {
      {{"-V"}, 1, kBanner,
       [] { EXPECT_EQ(Str(TaskName) + std::to_string(PrintVersionOnly), "<null>1"); }},
      {JW(mdy), 1, JE(mdy), [] {
         EXPECT_EQ(Str(JobDateTime) + Str(MachineLabel) + Str(LogOwner),
                   std::string(kDate) + "My Computerbuilder");
         EXPECT_EQ(Str(SCMTypeStr) + Str(PublicBuildJob) + Str(BuildNumber) + WorkDir,
                   "NONEfalse.");
       }},
      {JW(y1999), 0, JE(y1999) + kBadDate, nullptr},
      {JW(long_date), 0, JE(long_date) + kBadDate, nullptr},
      {JW(digits), 1, JE(digits), nullptr},  // only separators and the leading '2' are tested
      // -b takes "" and skips -c; an unknown keyword keeps the earlier type.
      {J({"-b", "-c", "CVS"}), 1, E("-b -c \"CVS\" "),
       [] { EXPECT_EQ(WorkDir + Str(SCMTypeStr), "NONE"); }},
      {J({"-c", "Svn", "-c", "bogus"}), 1, E("-c \"Svn\" -c \"bogus\" "),
       [] { EXPECT_EQ(Str(SCMTypeStr) + std::to_string(SCMType), "bogus16"); }},
      {{"-LJ", "j", "-LD", kDate, "-LM", "b", "-LO", "o", "-LN", "4", "-LP", "-B", "/", "-T", "R"},
       1, Echoed("-LJ \"j\" -LD \"" + std::string(kDate) +
                 "\" -LM \"b\" -LO \"o\" -LN \"4\" -LP -B \"/\" -T \"R\""), [] {
         EXPECT_EQ(Str(TaskName) + Str(MachineLabel) + Str(LogOwner) + Str(BuildNumber) +
                   Str(PublicBuildJob) + WorkDir + BuildLabel, "jbo4true/R");
       }},
      // Every value after a word with 'u' or 'p' second is masked.
      {J({"-u", "bob", "-p", "pw1", "-t", "REL1"}), 1,
       Echoed("-u " + m + " -p " + m + " -t " + m + " -lj " + m + " -ld " + m),
       [] { EXPECT_EQ(Str(User) + Str(Password) + BuildLabel, "bobpw1REL1"); }},
      {{"-lj", "apple", "-ld", kDate}, 1, Echoed("-lj \"apple\" -ld " + m), nullptr},
      {{"-v", "-lj", "j", "-ld", kDate}, 1, Echoed("-v " + kJ) + kBanner, nullptr},
      {J({"-vx"}), 0, E("-vx ") + kNoJob, [] { EXPECT_EQ(PrintVersionOnly, 0); }},
      {J({"-s", "-bignored", "/w"}), 1, E("-s -bignored \"/w\" "),
       [] { EXPECT_EQ(std::to_string(ScanSrc) + WorkDir, "1/w"); }},
      {J({"-t"}), 0, E("-t ") + kNoJob, nullptr},  // a valued option skips even an option
      {J({"-lx", "val", "-q", "word", "-"}), 1, E("-lx \"val\" -q \"word\" - "), nullptr},
      // Option letter @ stops the parse silently; @ arguments are dropped, quotes stripped.
      {{"-lj", "j", "-@x", "-ld", kDate}, 0, Echoed("-lj \"j\" -@x " + kLd),
       [] { EXPECT_EQ(JobDateTime, nullptr); }},
      {{"-lj", "@x", "\"j\"", "-ld", kDate}, 1, E(""), [] { EXPECT_EQ(Str(TaskName), "j"); }},
  };
  // clang-format on
  for (const auto& [words, result, want, check] : cases) {
    std::string out;
    EXPECT_EQ(Parse(words, &out), result) << want;
    EXPECT_EQ(out, want);
    if (check)
      check();
  }
}

TEST_F(ParseParmsTest, KeywordsAndOwnerDefault) {
  const std::vector<std::pair<std::string, uint32_t>> cases = {
      {"CVS", 1},    {"cvsrep", 2},      {"ClearCase", 4}, {"harvest", 8},
      {"svn", 16},   {"VSS", 32},        {"perforce", 64}, {"si", 128},
      {"MSTF", 512}, {"teamprise", 512}, {"AccuRev", 256}, {"CVSX", 0},
  };
  std::string out;
  for (const auto& [keyword, type] : cases) {
    EXPECT_EQ(Parse(J({"-c", keyword}), &out), 1);
    EXPECT_EQ(Str(SCMTypeStr) + "=" + std::to_string(SCMType),
              keyword + "=" + std::to_string(type));
  }
  // Without a login name there is no default owner.
  EXPECT_EQ(Parse({"-lj", "j", "-ld", kDate}, &out, ""), 0);
  EXPECT_EQ(out, Echoed(kJ) + "ERROR 56: -lo parameter and argument are required.\n");
}

// Response files: word groups and bad input. Names are relative to the
// test's directory; `content` (when given) is written to "resp" first.
TEST_F(ParseParmsTest, ResponseFiles) {
  wltest::TempDir dir;
  wltest::ScopedCwd cwd(dir.path());
  const std::string a995(995, 'a'), ld = std::string("\n-ld \"") + kDate + "\"\n";
  std::string limit = "-lj j\n-ld \"" + std::string(kDate) + "\"\n";  // 4 words
  for (int i = 0; i < 194; ++i)
    limit += "-s\n";
  // clang-format off
  // arguments, file content, result, job name, output
  const std::tuple<std::vector<std::string>, std::optional<std::string>, int, const char*,
                   std::optional<std::string>>
      cases[] = {
      {{"@resp"}, "-lj \"my   spaced  job\" -ld x", 0, "my spaced job", {}},  // blanks folded
      {{"@resp"}, "-lj \"unclosed group to the end", 0, "unclosed group to the end", {}},
      {{"@resp"}, "-lj \" lone quote\" -ld x", 0, "lone quote", {}},
      {{"@resp"}, "-lj \"a b\"c d\" -ld x", 0, "a b\"c", {}},  // the first later quote closes
      {{"@resp"}, "-lj x\"y\" -ld z", 0, "x\"y", {}},          // only the ends are stripped
      {{"@resp"}, "\r\n-lj \tjob\r\n", 0, "\tjob", {}},        // a tab is not a separator
      {{"-lj", "j", "@resp", "-ld", kDate}, "-lj fromfile\n", 1, "j", {}},  // only first is read
      {{"@resp", kDate, "-lm", "\"box\""}, "-lj job\n\n-ld\n", 1, "job",
       Echoed("-lj \"job\" " + kLd + " -lm \"box\"")},  // file words come first
      {{"@missing"}, {}, 0, "<null>", "Could not open response file missing\n"},
      {{"@"}, {}, 0, "<null>", "Could not open response file \n"},
      {{"@."}, {}, 0, "<null>", "Response file . is not a regular file of at most 16777216 bytes.\n"},
      {{"@resp"}, "", 0, "<null>", kUsage},
      {{"@resp"}, "-V\n", 1, "<null>", kBanner},
      {{"@resp"}, std::string("-lj job\0 -lm hidden\n", 20) + "-ld x", 0, "job",
       Echoed("-lj \"job\" -ld \"x\"") + kBadDate},  // a NUL ends its line's text
      // Lines arrive in pieces of 999 characters, each piece a line.
      {{"@resp"}, "-lj " + a995 + ld, 1, a995.c_str(), Echoed("-lj \"" + a995 + "\" " + kLd)},
      {{"@resp"}, "-lj " + a995 + "aa" + ld, 1, a995.c_str(),
       Echoed("-lj \"" + a995 + "\" \"aa\" " + kLd)},
      // 198 words from the file + 1 argument = 199 words: accepted; one more is not.
      {{"@resp", "-s"}, limit, 1, "j", {}},
      {{"@resp", "-s", "-s"}, limit, 0, "<null>", std::string(kTooManyWordsMessage) + "\n"},
      {{"@/dev/zero"}, {}, 0, "<null>",
       "Response file /dev/zero is not a regular file of at most 16777216 bytes.\n"},
      // 16 MiB are read; one byte more is refused.
      {{"@resp"}, "-lj big -ld x\n" + std::string(kMaxInputFileBytes - 14, ' '), 0, "big", {}},
      {{"@resp"}, "-lj big -ld x\n" + std::string(kMaxInputFileBytes - 13, ' '), 0, "<null>",
       "Response file resp is not a regular file of at most 16777216 bytes.\n"},
  };
  // clang-format on
  for (const auto& [args, content, result, job, want] : cases) {
    SCOPED_TRACE(Str(job));
    if (content)
      wltest::WriteFile("resp", *content);
    std::string out;
    EXPECT_EQ(Parse(args, &out), result);
    EXPECT_EQ(out, want.value_or(out));
    EXPECT_EQ(Str(TaskName), job ? job : Str(TaskName));
  }
}

}  // namespace
