#pragma once
// Scoped fixtures shared by the tests. Every fixture undoes what it did.

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace wltest {

// A fresh directory under $TMPDIR (or /tmp); removed on destruction unless
// the current test failed, in which case its path is printed and it is kept.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
};

// Sets (or, with nullopt, unsets) an environment variable; restores it.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// Changes into dir; restores the previous directory.
class ScopedCwd {
 public:
  explicit ScopedCwd(const std::string& dir);
  ~ScopedCwd();
  ScopedCwd(const ScopedCwd&) = delete;
  ScopedCwd& operator=(const ScopedCwd&) = delete;

 private:
  std::string old_;
};

// Captures everything written to standard output (or to the descriptor
// given, such as 2), stdio flushed, between construction and Take().
class CaptureStdout {
 public:
  explicit CaptureStdout(int fd = 1);
  ~CaptureStdout();
  CaptureStdout(const CaptureStdout&) = delete;
  CaptureStdout& operator=(const CaptureStdout&) = delete;
  std::string Take();  // stops capturing and returns what was written

 private:
  int fd_, saved_fd_ = -1, file_ = -1;
  bool done_ = false;
};

// Write a file (parents created); binary-exact.
void WriteFile(const std::string& path, const std::string& content);
// Whole file, or nullopt when it cannot be read.
std::optional<std::string> ReadFile(const std::string& path);
// Make a directory and its parents.
void MakeDirs(const std::string& path);
// Names of the entries of a directory, sorted (without . and ..).
std::vector<std::string> ListDir(const std::string& path);

// Writes an executable /bin/sh script `name` into bin_dir with the given body
// (the "#!/bin/sh" line is added).
void WriteScript(const std::string& bin_dir, const std::string& name, const std::string& body);

struct RunResult {
  int status = -1;     // exit status, or 128 + signal
  std::string out;     // standard output
  std::string err;     // standard error
};

// Runs a program with exactly the environment given (nothing inherited), in
// cwd, with standard input from /dev/null. Kills it after timeout_s seconds
// (status then 124).
RunResult RunProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                     const std::string& cwd, int timeout_s = 120);

}  // namespace wltest
