#include "testlib/testlib.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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
  char tmpl[] = "/tmp/wlcapture-XXXXXX";
  int file = mkstemp(tmpl);
  if (file < 0)
    throw std::runtime_error("mkstemp failed");
  file_ = tmpl;
  saved_fd_ = dup(fd_);
  dup2(file, fd_);
  close(file);
}

std::string CaptureStdout::Take() {
  if (done_)
    return {};
  std::fflush(nullptr);
  dup2(saved_fd_, fd_);
  close(saved_fd_);
  done_ = true;
  std::string out = ReadFile(file_).value_or("");
  unlink(file_.c_str());
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
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
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
  RunResult result;
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  std::vector<std::string> env_strings;
  for (const auto& [k, v] : env) env_strings.push_back(k + "=" + v);
  std::vector<char*> envp, args;
  for (auto& s : env_strings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argv_copy = argv;
  for (auto& s : argv_copy) args.push_back(s.data());
  args.push_back(nullptr);
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0) dup2(devnull, 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
  bool open_out = true, open_err = true, killed = false;
  while (open_out || open_err) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    if (!open_out) fds[0].fd = -1;
    if (!open_err) fds[1].fd = -1;
    int n = poll(fds, 2, static_cast<int>(std::min<long long>(left, 1000)));
    if (n < 0 && errno != EINTR) break;
    char buf[65536];
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
        ssize_t r = read(fds[i].fd, buf, sizeof buf);
        if (r > 0) {
          (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(r));
        } else if (r == 0 || errno != EINTR) {
          (i == 0 ? open_out : open_err) = false;
        }
      }
    }
  }
  close(out_pipe[0]);
  close(err_pipe[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (killed) {
    result.status = 124;
  } else if (WIFEXITED(status)) {
    result.status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.status = 128 + WTERMSIG(status);
  }
  return result;
}

std::map<std::string, std::string> ToolEnv(const std::string& home, std::optional<std::string> server,
                                           std::optional<std::string> path) {
  std::map<std::string, std::string> env;
  env["HOME"] = home;
  env["PATH"] = path.value_or("/usr/local/bin:/usr/bin:/bin");
  env["TZ"] = "UTC";
  env["LC_ALL"] = "C";
  if (server) env["WEFTLANE_SERVER"] = *server;
  // Keep the sanitizer runtime's settings when the tests run under it.
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* v = std::getenv(name)) env[name] = v;
  }
  return env;
}

RunResult RunTool(const std::vector<std::string>& args, const std::map<std::string, std::string>& env,
                  const std::string& cwd, int timeout_s) {
  std::vector<std::string> argv{WL_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, env, cwd, timeout_s);
}

}  // namespace wltest
