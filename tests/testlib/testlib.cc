#include "testlib/testlib.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

namespace wltest {
namespace fs = std::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/wltest-XXXXXX";
  if (!mkdtemp(tmpl.data()))
    throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  if (info && info->result() && info->result()->Failed()) {
    std::fprintf(stderr, "kept test directory %s\n", path_.c_str());
    return;
  }
  // Tests may leave directories unreadable; open them up on the way down.
  std::error_code ec;
  chmod(path_.c_str(), 0700);
  for (auto it = fs::recursive_directory_iterator(path_, ec); !ec && it != fs::end(it); it.increment(ec))
    if (it->is_directory(ec) && !it->is_symlink(ec))
      chmod(it->path().c_str(), 0700);
  fs::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(const std::string& name, std::optional<std::string> value) : name_(name) {
  if (const char* v = std::getenv(name.c_str()))
    old_ = v;
  value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
}

ScopedEnv::~ScopedEnv() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }

ScopedCwd::ScopedCwd(const std::string& dir) : old_(fs::current_path().string()) {
  if (chdir(dir.c_str()) != 0)
    throw std::runtime_error("chdir " + dir);
}

ScopedCwd::~ScopedCwd() {
  if (chdir(old_.c_str()) != 0)
    std::perror("chdir back");
}

CaptureStdout::CaptureStdout(int fd) : fd_(fd) {
  std::fflush(nullptr);
  file_ = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  saved_fd_ = fcntl(fd_, F_DUPFD_CLOEXEC, 0);
  if (file_ < 0 || saved_fd_ < 0 || dup2(file_, fd_) < 0)
    throw std::runtime_error("cannot capture descriptor " + std::to_string(fd));
}

std::string CaptureStdout::Take() {
  if (done_)
    return {};
  std::fflush(nullptr);
  dup2(saved_fd_, fd_);
  close(saved_fd_);
  done_ = true;
  std::string out = ReadFile("/proc/self/fd/" + std::to_string(file_)).value_or("");
  close(file_);
  return out;
}

CaptureStdout::~CaptureStdout() { Take(); }

void MakeDirs(const std::string& path) {
  std::error_code ec;
  fs::create_directories(path, ec);
}

void WriteFile(const std::string& path, const std::string& content) {
  if (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0)
    MakeDirs(path.substr(0, slash));
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  if (!f)
    throw std::runtime_error("cannot write " + path);
  f.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::optional<std::string> ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f)
    return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(f), {});
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code ec;
  for (auto it = fs::directory_iterator(path, ec); !ec && it != fs::end(it); it.increment(ec))
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

void WriteScript(const std::string& bin_dir, const std::string& name, const std::string& body) {
  std::string path = bin_dir + "/" + name;
  WriteFile(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
}

RunResult RunProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                     const std::string& cwd, int timeout_s) {
  std::vector<std::string> texts = argv;
  for (const auto& [k, v] : env)
    texts.push_back(k + "=" + v);
  std::vector<char*> args, envp;
  for (size_t i = 0; i < texts.size(); ++i)
    (i < argv.size() ? args : envp).push_back(texts[i].data());
  args.push_back(nullptr);
  envp.push_back(nullptr);
  // The outputs go to unnamed files rather than pipes, so that a descendant
  // still holding them open cannot keep the wait going.
  auto unnamed = [] { return fdopen(open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600), "w+"); };
  std::unique_ptr<FILE, int (*)(FILE*)> out(unnamed(), std::fclose), err(unnamed(), std::fclose);
  if (!out || !err)
    throw std::runtime_error("tmpfile");
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork");
  if (pid == 0) {
    int devnull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devnull < 0 || dup2(devnull, 0) < 0 || dup2(fileno(out.get()), 1) < 0 ||
        dup2(fileno(err.get()), 2) < 0 || chdir(cwd.c_str()) != 0)
      _exit(126);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  RunResult result;
  int status = 0;
  bool killed = false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if ((killed = std::chrono::steady_clock::now() > deadline)) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    poll(nullptr, 0, 10);
  }
  if (killed)
    result.status = 124;
  else if (WIFEXITED(status))
    result.status = WEXITSTATUS(status);
  else if (WIFSIGNALED(status))
    result.status = 128 + WTERMSIG(status);
  result.out = ReadFile("/proc/self/fd/" + std::to_string(fileno(out.get()))).value_or("");
  result.err = ReadFile("/proc/self/fd/" + std::to_string(fileno(err.get()))).value_or("");
  return result;
}

}  // namespace wltest
