#include "scm/runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kReadChunk = 64 * 1024;

// Milliseconds left until `deadline` for poll: -1 without one, 0 once passed.
int PollTimeout(LineReader::Clock::time_point deadline) {
  if (deadline == LineReader::Clock::time_point::max())
    return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                  deadline - LineReader::Clock::now())
                  .count();
  if (left <= 0)
    return 0;
  return left > INT_MAX ? INT_MAX : static_cast<int>(left) + 1;
}

// `fd` moved above the standard descriptors (close-on-exec), so that the
// child's dup2 onto 0 and 1 can never clobber it.
UniqueFd AboveStandard(UniqueFd fd) {
  if (fd.get() < 0 || fd.get() > 2)
    return fd;
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 3));
}

void PauseBriefly() {
  struct timespec pause = {0, 10 * 1000 * 1000};
  nanosleep(&pause, nullptr);
}

}  // namespace

LineReader::LineReader(int fd, int limit, Clock::time_point deadline)
    : fd_(fd),
      limit_(static_cast<size_t>(limit > 1 ? limit : 2)),
      deadline_(deadline),
      buf_(kReadChunk) {}

bool LineReader::Fill() {
  if (fd_ < 0 || timed_out_)
    return false;
  for (;;) {
    if (deadline_ != Clock::time_point::max()) {
      struct pollfd p = {fd_, POLLIN, 0};
      int ready = poll(&p, 1, PollTimeout(deadline_));
      if (ready < 0 && errno == EINTR)
        continue;
      if (ready == 0) {
        timed_out_ = true;
        return false;
      }
      if (ready < 0)
        return false;
    }
    ssize_t n = read(fd_, buf_.data(), buf_.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    begin_ = 0;
    end_ = static_cast<size_t>(n);
    return true;
  }
}

bool LineReader::Next(std::string& line) {
  line.clear();
  const size_t max = limit_ - 1;
  while (line.size() < max) {
    if (begin_ == end_ && !Fill())
      break;
    size_t take = std::min(end_ - begin_, max - line.size());
    const char* start = buf_.data() + begin_;
    const void* newline = std::memchr(start, '\n', take);
    if (newline != nullptr)
      take = static_cast<size_t>(static_cast<const char*>(newline) - start) + 1;
    line.append(start, take);
    begin_ += take;
    if (newline != nullptr)
      break;
  }
  if (line.empty())
    return false;
  // As a fixed-buffer reader sees it: the text ends at the first NUL.
  line.resize(std::strlen(line.c_str()));
  return true;
}

int SpawnShell(const char* command, pid_t* pid) {
  *pid = -1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return -1;
  UniqueFd read_end = AboveStandard(UniqueFd(fds[0]));
  UniqueFd write_end = AboveStandard(UniqueFd(fds[1]));
  UniqueFd null_fd = AboveStandard(UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)));
  if (read_end.get() < 0 || write_end.get() < 0 || null_fd.get() < 0)
    return -1;
  pid_t child = fork();
  if (child == 0) {
    // Only async-signal-safe calls from here to exec.
    setpgid(0, 0);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (dup2(null_fd.get(), 0) < 0 || dup2(write_end.get(), 1) < 0)
      _exit(127);
    close_range(3, ~0U, 0);  // nothing of ours beyond the three standard ones
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
  }
  if (child < 0)
    return -1;
  setpgid(child, child);  // also here, so the group exists before we could signal it
  *pid = child;
  return read_end.Release();
}

ClientSpawnFn ScmClientSpawn = &SpawnShell;

ClientRun::ClientRun(const std::string& text, const std::string& shown, unsigned timeout_seconds,
                     int limit)
    : shown_(shown),
      timeout_(timeout_seconds),
      deadline_(timeout_seconds == 0 ? LineReader::Clock::time_point::max()
                                     : LineReader::Clock::now() +
                                           std::chrono::seconds(timeout_seconds)),
      reader_(-1, limit) {
  std::fflush(stdout);
  out_.Reset(ScmClientSpawn(text.c_str(), &pid_));
  if (out_.get() < 0) {
    pid_ = -1;
    return;
  }
  started_ = true;
  reader_ = LineReader(out_.get(), limit, deadline_);
}

void ClientRun::Stop() {
  if (stopped_)
    return;
  stopped_ = true;
  if (pid_ > 0)
    kill(-pid_, SIGKILL);
  std::printf(kClientStoppedFormat, timeout_, shown_.c_str());
}

bool ClientRun::Next(std::string& line) {
  if (stopped_ || out_.get() < 0)
    return false;
  if (reader_.Next(line))
    return true;
  if (reader_.timed_out())
    Stop();
  return false;
}

int ClientRun::Finish() {
  out_.Reset();  // a client still writing gets SIGPIPE
  if (pid_ <= 0)
    return -1;
  int status = 0;
  for (;;) {
    bool bounded = deadline_ != LineReader::Clock::time_point::max() && !stopped_;
    pid_t done = waitpid(pid_, &status, bounded ? WNOHANG : 0);
    if (done < 0 && errno == EINTR)
      continue;
    if (done < 0)
      status = -1;
    if (done != 0)
      break;
    if (LineReader::Clock::now() >= deadline_) {
      Stop();
      continue;
    }
    PauseBriefly();
  }
  pid_ = -1;
  return status;
}
