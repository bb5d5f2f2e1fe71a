// Replays inputs through a fuzz target without the fuzzing engine: every
// argument is a file or a directory whose regular files (in name order) are
// run once each through LLVMFuzzerTestOneInput. Built when the targets are
// not linked with libFuzzer, so that the test suite can run the corpora
// under the sanitizers with any compiler.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz_support.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const auto& entry : fs::directory_iterator(argv[i], ec)) {
        if (entry.is_regular_file())
          files.push_back(entry.path());
      }
    } else if (fs::is_regular_file(argv[i], ec)) {
      files.emplace_back(argv[i]);
    } else {
      std::fprintf(stderr, "replay: %s is neither a file nor a directory\n", argv[i]);
      return 2;
    }
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::fprintf(stderr, "replay: %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
