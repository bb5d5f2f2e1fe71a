#include "fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fuzz {

namespace {

struct Scratch {
  std::string path;
  Scratch() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/wlfuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    path = pattern;
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
};

}  // namespace

const std::string& ScratchDir() {
  static Scratch scratch;
  return scratch.path;
}

void QuietStdout() {
  static bool done = false;
  if (done)
    return;
  done = true;
  std::fflush(stdout);
  int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null_fd >= 0) {
    dup2(null_fd, STDOUT_FILENO);
    close(null_fd);
  }
}

std::string WriteScratchFile(const std::string& name, std::string_view data) {
  std::string path = ScratchDir() + "/" + name;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
  return path;
}

uint8_t Input::Byte() {
  if (rest_.empty())
    return 0;
  auto b = static_cast<uint8_t>(rest_[0]);
  rest_.remove_prefix(1);
  return b;
}

int64_t Input::Int64() {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i)
    v = (v << 8) | Byte();
  return static_cast<int64_t>(v);
}

std::string Input::Line() {
  size_t end = rest_.find('\n');
  std::string line(rest_.substr(0, end));
  rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
  return line;
}

}  // namespace fuzz
