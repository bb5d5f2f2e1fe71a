#include "driver/config.h"
#include "driver/input.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "support/strings.h"
#include "testlib/driver_fixtures.h"

namespace {

using drivertest::Str;

// A home directory with its property file, a bin directory that may hold a
// fake wlsubmit, and PATH/HOME pointing at them.
class ConfigTest : public drivertest::DriverTest {
 protected:
  void HomeFile(const std::string& content) {
    wltest::WriteFile(home_ + "/.weftlane/wlenvironment.properties", content);
  }
  void SubmitFile(const std::string& content) {
    wltest::WriteScript(bin_, "wlsubmit", "exit 0\n");
    wltest::WriteFile(bin_ + "/wlenvironment.properties", content);
  }
  // Loads (printing nothing) and returns the names LoadConfigEnv lists,
  // then the table as "name=value|...".
  std::string Load() {
    wltest::CaptureStdout cap;
    char* names = LoadConfigEnv();
    std::string out = Str(names) + "\n";
    safe_free(&names);
    EXPECT_EQ(cap.Take(), "");
    for (int i = 0; i < maxConfigEnv; ++i)
      out += (i ? "|" : "") + Str(configEnvVar[i]) + "=" + Str(configEnvValue[i]);
    return out;
  }

  wltest::TempDir dir_;
  std::string home_ = dir_ / "home", bin_ = dir_ / "bin";
  wltest::ScopedEnv env_home_{"HOME", home_}, env_path_{"PATH", bin_};
  wltest::ScopedEnv env_server_{"WEFTLANE_SERVER", std::nullopt};
};

TEST_F(ConfigTest, LineForms) {
  // The last blank line replaces the entry of the earlier one (same empty
  // name); trailing separators of the list are removed.
  HomeFile("A=B=C\nNOEQUALS\n\nX==Y\n=V\nCR=value\r\nweftlane_server=lower\n\n\n");
  EXPECT_EQ(Load(),
            "A;NOEQUALS;;X;V;CR;weftlane_server\n"
            "A=B|NOEQUALS=|=|X=Y|V=|CR=value|weftlane_server=lower");
  // Long lines arrive in pieces of 1047 characters, each piece a line.
  ResetConfigEnv();
  HomeFile("N=" + std::string(2998, 'v') + "\n");
  EXPECT_EQ(Load(), "N;" + std::string(1047, 'v') + ";" + std::string(906, 'v') +
                        "\nN=" + std::string(1045, 'v') + "|" + std::string(1047, 'v') + "=|" +
                        std::string(906, 'v') + "=");
}

TEST_F(ConfigTest, WithoutHomeTheFileBesideWlsubmitIsReadTwice) {
  wltest::ScopedEnv no_home("HOME", std::nullopt);
  EXPECT_EQ(Load(), "\n");  // and without wlsubmit nothing is read
  ResetConfigEnv();
  SubmitFile("A=1\nB=2\nA=3\n");
  // The second reading replaces entries; the duplicate A keeps its own value
  // because lookups stop at the first A.
  EXPECT_EQ(Load(), "A;B;A\nA=3|B=2|A=3");
}

TEST_F(ConfigTest, HomeFileReplacesEntriesBesideWlsubmitUpTo1024) {
  // Entries of the home file replace those of the file beside wlsubmit and
  // new ones follow; only the first 1024 names of both files are kept.
  std::string first, second;
  for (int i = 0; i < 1100; ++i)
    (i < 1000 ? first : second) += "S" + std::to_string(i) + "=x\n";
  SubmitFile(first);
  HomeFile("S0=replaced\n" + second + "S1001=again\n");
  std::string names = Load();
  EXPECT_EQ(maxConfigEnv, kMaxConfigEnv);
  EXPECT_EQ(std::count(names.begin(), names.end(), ';'), 1023);
  EXPECT_EQ(Str(configEnvValue[0]) + Str(configEnvVar[1023]) + Str(configEnvValue[1001]),
            "replacedS1023x");  // a full table ignores even replacements
}

TEST_F(ConfigTest, ProgramSearch) {
  std::string other = dir_ / "other", found_line = "Found " + other + "/tool\n";
  wltest::WriteScript(other, "tool", "exit 0\n");
  // clang-format off
  const std::pair<std::string, bool> cases[] = {
      {bin_ + ":" + other, true}, {bin_ + "::" + other + ":", true}, {bin_ + ";" + other, true},
      {bin_ + ";x:" + other, false},  // with a ';' only ';' separates
      {bin_, false}, {"", false},
  };
  // clang-format on
  for (const auto& [path, found_it] : cases) {
    SCOPED_TRACE(path);
    wltest::ScopedEnv env("PATH", path);
    char* found = reinterpret_cast<char*>(1);
    wltest::CaptureStdout cap;
    EXPECT_EQ(PgmWithPath("tool", &found, 1), found_it ? 1 : 0);
    EXPECT_EQ(cap.Take(), "Searching for tool\n" + (found_it ? found_line : ""));
    EXPECT_EQ(Str(found), found_it ? other + "/tool" : "<null>");
    safe_free(&found);
  }
  // Only a regular file we may run counts: not a plain file, a FIFO or a
  // directory of that name.
  wltest::WriteFile(other + "/plain", "x");
  ASSERT_EQ(mkfifo((other + "/fifo").c_str(), 0700), 0);
  wltest::MakeDirs(other + "/dir");
  wltest::ScopedEnv env("PATH", other);
  for (const char* name : {"plain", "fifo", "dir"})
    EXPECT_EQ(PgmFound(name, 0), 0) << name;
  // A name found as given is taken from the current directory first, and a
  // wlsubmit found there brings the property file beside it.
  wltest::WriteScript(dir_ / "here", "prog", "x");
  wltest::WriteScript(dir_ / "here", "wlsubmit", "x");
  wltest::WriteFile(dir_ / "here/wlenvironment.properties", "HERE=1\n");
  wltest::ScopedCwd cwd(dir_ / "here");
  wltest::CaptureStdout cap;
  EXPECT_EQ(PgmFound("prog", 1) + PgmFound("nothere", 1), 1);
  EXPECT_EQ(cap.Take(), "Searching for prog\nFound prog\nSearching for nothere\n");
  EXPECT_EQ(Load(), "HERE\nHERE=1");
}

TEST_F(ConfigTest, OnlyRegularPropertyFilesOfAtMost16MiB) {
  const std::string file = home_ + "/.weftlane/wlenvironment.properties";
  const std::string refused =
      "Property file " + file + " is not a regular file of at most 16777216 bytes: it is ignored.\n";
  const std::string fill = "\n" + std::string(kMaxInputFileBytes - 5, 'x');  // "A=1" fill "\n"
  // clang-format off
  // A directory and a device are refused by the same check (see the
  // response-file table).
  const std::pair<std::string, std::string> cases[] = {  // kind, what is printed
      {"fifo", refused}, {"n", ""}, {"n+1", refused},  // 16 MiB are read, one byte more is not
  };
  // clang-format on
  for (const auto& [kind, printed] : cases) {
    SCOPED_TRACE(kind);
    ResetConfigEnv();
    unlink(file.c_str());
    wltest::MakeDirs(home_ + "/.weftlane");
    if (kind == "fifo")
      ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    else
      HomeFile("A=1" + fill + (kind == "n" ? "\n" : "\n\n"));
    wltest::CaptureStdout cap;
    char* names = LoadConfigEnv();
    safe_free(&names);
    EXPECT_EQ(cap.Take(), printed);
    EXPECT_EQ(GetEnv("A") != nullptr, printed.empty());
  }
}

}  // namespace
