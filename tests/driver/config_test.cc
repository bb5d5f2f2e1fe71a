#include "driver/config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "driver_fixtures.h"
#include "support/strings.h"
#include "testlib/testlib.h"

namespace {

using drivertest::Str;
using Entries = std::vector<std::pair<std::string, std::string>>;

// A home directory with its property file, a bin directory that may hold a
// fake wlsubmit, and PATH/HOME pointing at them.
class ConfigTest : public drivertest::DriverTest {
 protected:
  ConfigTest()
      : home_(dir_ / "home"),
        bin_(dir_ / "bin"),
        env_home_("HOME", home_),
        env_path_("PATH", bin_),
        env_server_("WEFTLANE_SERVER", std::nullopt) {
    wltest::MakeDirs(home_);
    wltest::MakeDirs(bin_);
  }
  void HomeFile(const std::string& content) {
    wltest::WriteFile(home_ + "/.weftlane/wlenvironment.properties", content);
  }
  void SubmitFile(const std::string& content) {
    wltest::WriteScript(bin_, "wlsubmit", "exit 0\n");
    wltest::WriteFile(bin_ + "/wlenvironment.properties", content);
  }
  // LoadConfigEnv's list, released.
  std::string Load() {
    wltest::CaptureStdout cap;
    char* names = LoadConfigEnv();
    std::string out = Str(names);
    safe_free(&names);
    EXPECT_EQ(cap.Take(), "");  // loading prints nothing
    return out;
  }
  Entries Table() {
    Entries t;
    for (int i = 0; i < maxConfigEnv; ++i)
      t.emplace_back(Str(configEnvVar[i]), Str(configEnvValue[i]));
    return t;
  }

  wltest::TempDir dir_;
  std::string home_, bin_;
  wltest::ScopedEnv env_home_, env_path_, env_server_;
};

TEST_F(ConfigTest, HomeFileLineForms) {
  HomeFile("A=B=C\nNOEQUALS\n\nX==Y\n=V\nCR=value\r\nweftlane_server=lower\n");
  EXPECT_EQ(Load(), "A;NOEQUALS;;X;V;CR;weftlane_server");
  EXPECT_EQ(Table(), (Entries{{"A", "B"},
                              {"NOEQUALS", ""},
                              {"", ""},
                              {"X", "Y"},
                              {"V", ""},
                              {"CR", "value"},
                              {"weftlane_server", "lower"}}));
}

TEST_F(ConfigTest, TrailingSeparatorsOfTheListAreRemoved) {
  HomeFile("A=1\n\n\n");
  // The second blank line replaces the entry of the first (same empty name).
  EXPECT_EQ(Load(), "A");
  EXPECT_EQ(maxConfigEnv, 2);
}

TEST_F(ConfigTest, HomeFileReplacesEntriesBesideWlsubmit) {
  SubmitFile("ONE=s1\nSHARED=fromsubmit\nTWO=s2\n");
  HomeFile("SHARED=fromhome\nTHREE=h3\nTHREE=again\n");
  EXPECT_EQ(Load(), "ONE;SHARED;TWO;THREE");
  EXPECT_EQ(Table(),
            (Entries{{"ONE", "s1"}, {"SHARED", "fromhome"}, {"TWO", "s2"}, {"THREE", "again"}}));
}

TEST_F(ConfigTest, NoFilesGiveAnEmptyTable) {
  EXPECT_EQ(Load(), "");
  EXPECT_EQ(maxConfigEnv, 0);
}

TEST_F(ConfigTest, WithoutHomeTheFileBesideWlsubmitIsReadTwice) {
  SubmitFile("A=1\nB=2\nA=3\n");
  wltest::ScopedEnv no_home("HOME", std::nullopt);
  EXPECT_EQ(Load(), "A;B;A");
  // The second reading replaces entries; the duplicate A of the first reading
  // keeps its own value because lookups stop at the first A.
  EXPECT_EQ(Table(), (Entries{{"A", "3"}, {"B", "2"}, {"A", "3"}}));
}

TEST_F(ConfigTest, WithoutHomeAndWlsubmitNothingIsRead) {
  wltest::ScopedEnv no_home("HOME", std::nullopt);
  EXPECT_EQ(Load(), "");
  EXPECT_EQ(maxConfigEnv, 0);
}

TEST_F(ConfigTest, OnlyTheFirst1024EntriesAreKept) {
  std::string content;
  for (int i = 0; i < 5000; ++i)
    content += "K" + std::to_string(i) + "=v" + std::to_string(i) + "\n";
  HomeFile(content);
  std::string names = Load();
  EXPECT_EQ(maxConfigEnv, kMaxConfigEnv);
  EXPECT_EQ(Str(configEnvVar[1023]), "K1023");
  EXPECT_EQ(Str(configEnvValue[1023]), "v1023");
  EXPECT_EQ(names.substr(names.size() - 11), "K1022;K1023");
  EXPECT_EQ(std::count(names.begin(), names.end(), ';'), 1023);
}

TEST_F(ConfigTest, TheLimitCountsBothFiles) {
  std::string first, second;
  for (int i = 0; i < 1000; ++i)
    first += "S" + std::to_string(i) + "=x\n";
  for (int i = 0; i < 100; ++i)
    second += "H" + std::to_string(i) + "=y\n";
  SubmitFile(first);
  HomeFile("S0=replaced\n" + second);
  Load();
  EXPECT_EQ(maxConfigEnv, kMaxConfigEnv);
  EXPECT_EQ(Str(configEnvValue[0]), "replaced");
  EXPECT_EQ(Str(configEnvVar[1000]), "H0");
  EXPECT_EQ(Str(configEnvVar[1023]), "H23");
}

TEST_F(ConfigTest, LongLinesArriveInPiecesOf1047) {
  HomeFile("N=" + std::string(2998, 'v') + "\n");
  Load();
  EXPECT_EQ(Table(), (Entries{{"N", std::string(1045, 'v')},
                              {std::string(1047, 'v'), ""},
                              {std::string(906, 'v'), ""}}));
}

TEST_F(ConfigTest, BinaryContentIsHarmless) {
  std::string content;
  uint32_t x = 777;
  for (int i = 0; i < 50000; ++i) {
    x = x * 1103515245u + 12345u;
    content += static_cast<char>((x >> 16) & 0xff);
  }
  HomeFile(content);
  Load();
  EXPECT_GT(maxConfigEnv, 0);
  EXPECT_LE(maxConfigEnv, kMaxConfigEnv);
}

TEST_F(ConfigTest, GetEnvPrecedence) {
  HomeFile("WEFTLANE_SERVER=http://fromfile\nEMPTY=\nweftlane_lower=x\n");
  wltest::ScopedEnv in_env("WEFTLANE_SERVER", "");
  // An empty environment value counts as absent.
  EXPECT_EQ(Str(GetEnv("WEFTLANE_SERVER")), "http://fromfile");
  EXPECT_EQ(maxConfigEnv, 3);
  {
    wltest::ScopedEnv set("WEFTLANE_SERVER", "http://fromenv");
    EXPECT_EQ(Str(GetEnv("WEFTLANE_SERVER")), "http://fromenv");
  }
  // An empty value from a file is a value.
  EXPECT_EQ(Str(GetEnv("EMPTY")), "");
  EXPECT_EQ(GetEnv("WEFTLANE_LOWER"), nullptr);  // case counts
  EXPECT_EQ(GetEnv("ABSENT_SETTING"), nullptr);
}

TEST_F(ConfigTest, GetEnvLoadsOnlyOnce) {
  HomeFile("A=1\n");
  EXPECT_EQ(Str(GetEnv("A")), "1");
  HomeFile("A=2\n");
  EXPECT_EQ(Str(GetEnv("A")), "1");
}

TEST_F(ConfigTest, CleanConfigEnvKeepsTheCount) {
  HomeFile("A=1\nB=2\n");
  Load();
  CleanConfigEnv();
  EXPECT_EQ(maxConfigEnv, 2);
  EXPECT_EQ(configEnvVar[0], nullptr);
  EXPECT_EQ(configEnvValue[1], nullptr);
}

TEST_F(ConfigTest, SetLocalWLEnvironmentLoadsAndChangesNothing) {
  HomeFile("weftlane_home=/opt/wl\n");
  std::string path_before = std::getenv("PATH");
  wltest::CaptureStdout cap;
  SetLocalWLEnvironment();
  EXPECT_EQ(cap.Take(), "");
  EXPECT_EQ(maxConfigEnv, 1);
  EXPECT_EQ(std::string(std::getenv("PATH")), path_before);
  EXPECT_EQ(std::getenv("WEFTLANE_HOME"), nullptr);
}

// --- Program search ---

TEST_F(ConfigTest, PgmWithPathSearchesPath) {
  std::string other = dir_ / "other";
  wltest::MakeDirs(other);
  wltest::WriteScript(other, "tool", "exit 0\n");
  struct Case {
    std::string path;
    bool found;
  };
  const std::vector<Case> cases = {
      {bin_ + ":" + other, true},
      {bin_ + "::" + other + ":", true},
      {bin_ + ";" + other, true},
      {bin_ + ";x:" + other, false},  // with a ';' only ';' separates
      {bin_, false},
      {"", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    wltest::ScopedEnv path("PATH", c.path);
    char* found = reinterpret_cast<char*>(1);
    wltest::CaptureStdout cap;
    int r = PgmWithPath("tool", &found, 1);
    std::string out = cap.Take();
    EXPECT_EQ(r, c.found ? 1 : 0);
    if (c.found) {
      EXPECT_EQ(Str(found), other + "/tool");
      EXPECT_EQ(out, "Searching for tool\nFound " + other + "/tool\n");
    } else {
      EXPECT_EQ(found, nullptr);
      EXPECT_EQ(out, "Searching for tool\n");
    }
    safe_free(&found);
  }
}

TEST_F(ConfigTest, PgmWithPathWithoutPath) {
  wltest::WriteScript(bin_, "tool", "exit 0\n");
  wltest::ScopedEnv path("PATH", std::nullopt);
  char* found = nullptr;
  EXPECT_EQ(PgmWithPath("tool", &found, 0), 0);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(PgmFound("tool", 0), 0);
}

TEST_F(ConfigTest, PgmWithPathTakesAProgramThatOpensAsGiven) {
  wltest::WriteFile(dir_ / "here/prog", "x");
  wltest::ScopedCwd cwd(dir_ / "here");
  char* cwd_text = getcwd(nullptr, 0);
  std::string real_cwd = cwd_text;
  std::free(cwd_text);

  char* found = nullptr;
  wltest::CaptureStdout cap;
  EXPECT_EQ(PgmWithPath("./prog", &found, 1), 1);
  EXPECT_EQ(cap.Take(), "Searching for ./prog\n");  // no "Found" line
  EXPECT_EQ(Str(found), real_cwd + "/./prog");
  safe_free(&found);

  std::string absolute = real_cwd + "/prog";
  EXPECT_EQ(PgmWithPath(absolute.c_str(), &found, 0), 1);
  EXPECT_EQ(Str(found), absolute);
  safe_free(&found);
}

TEST_F(ConfigTest, PgmFound) {
  wltest::WriteScript(bin_, "tool", "exit 0\n");
  wltest::WriteFile(dir_ / "here/prog", "x");
  wltest::ScopedCwd cwd(dir_ / "here");
  wltest::CaptureStdout cap;
  EXPECT_EQ(PgmFound("tool", 1), 1);
  EXPECT_EQ(PgmFound("prog", 1), 1);
  EXPECT_EQ(PgmFound("nothere", 1), 0);
  EXPECT_EQ(cap.Take(), "Searching for tool\nFound " + bin_ +
                            "/tool\n"
                            "Searching for prog\nFound prog\n"
                            "Searching for nothere\n");
}

TEST_F(ConfigTest, WlsubmitFoundAsGivenInTheCurrentDirectory) {
  // wlsubmit in the current directory is found before PATH is searched; its
  // property file is the one beside it.
  wltest::WriteFile(dir_ / "here/wlsubmit", "x");
  wltest::WriteFile(dir_ / "here/wlenvironment.properties", "HERE=1\n");
  wltest::ScopedCwd cwd(dir_ / "here");
  EXPECT_EQ(Load(), "HERE");
}

}  // namespace
