#pragma once
// Shared pieces of the fuzz targets: a private scratch directory, quiet
// standard output, and a small reader that cuts one input into the values a
// target needs.
//
// Targets must not touch the network, start processes or write outside
// ScratchDir(), and must leave every global they change as they found it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

// A directory made once per process under $TMPDIR (or /tmp) and removed at
// exit with everything in it.
const std::string& ScratchDir();

// Sends standard output to /dev/null once per process: the code under test
// prints progress lines that only slow the fuzzer down.
void QuietStdout();

// Writes `data` to ScratchDir()/name (replacing it) and returns the path.
std::string WriteScratchFile(const std::string& name, std::string_view data);

// Cuts an input into pieces. Texts end at a '\n' (or at the end of the
// input); numbers take the next bytes.
class Input {
 public:
  Input(const uint8_t* data, size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}
  bool empty() const { return rest_.empty(); }
  // The next byte, 0 when none are left.
  uint8_t Byte();
  // The next 8 bytes as a signed number (missing bytes count as 0).
  int64_t Int64();
  // The text up to the next '\n' (not included), or the rest.
  std::string Line();
  // Everything not consumed yet.
  std::string_view Rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace fuzz

// The entry point every target defines.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
