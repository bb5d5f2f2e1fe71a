// Command line and response file: the input's first byte chooses whether
// its first line names a response file (written from the rest of the input)
// or is itself an argument; every further line is one argument. The
// run-wide settings are reset after every input.

#include <string>
#include <vector>

#include "driver/cmdline.h"
#include "driver/settings.h"
#include "fuzz_support.h"

namespace {

// Arguments beyond the word limit only repeat its refusal.
constexpr size_t kMaxArgs = 260;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::QuietStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::QuietStdout();
  fuzz::Input in(data, size);
  const bool response = in.Byte() & 1;

  std::vector<std::string> args{"wlinspector"};
  if (response) {
    // The response file gets the text up to the first "\n" followed by a
    // NUL byte; the rest of the input becomes arguments.
    std::string_view rest = in.Rest();
    size_t cut = rest.find(std::string_view("\n\0", 2));
    std::string_view file_text = rest.substr(0, cut);
    args.push_back("@" + fuzz::WriteScratchFile("response.rsp", file_text));
    in = fuzz::Input(reinterpret_cast<const uint8_t*>(rest.data()) +
                         (cut == std::string_view::npos ? rest.size() : cut + 2),
                     cut == std::string_view::npos ? 0 : rest.size() - cut - 2);
  }
  while (!in.empty() && args.size() < kMaxArgs)
    args.push_back(in.Line());
  // Only the response file written above may be read: a first argument of
  // the input's own that begins with "@" could name any file or device.
  if (!response && args.size() > 1 && !args[1].empty() && args[1][0] == '@')
    args[1][0] = '_';

  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  (void)ParseParms(static_cast<int>(args.size()), argv.data());
  ResetSettings();
  return 0;
}
