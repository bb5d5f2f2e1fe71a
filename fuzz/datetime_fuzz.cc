// Date-time texts: the "MM/DD/YYYY hh:mm:ss" form of any number of seconds,
// and the reading of the six-number dates that SCM clients print.

#include <string>

#include "fuzz_support.h"
#include "scm/scmtool.h"
#include "support/paths.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  (void)DateTime(in.Int64());
  const int fields[6] = {static_cast<int>(in.Int64()), static_cast<int>(in.Int64()),
                         static_cast<int>(in.Int64()), static_cast<int>(in.Int64()),
                         static_cast<int>(in.Int64()), static_cast<int>(in.Int64())};
  (void)DateTime(LocalTime(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]));
  const std::string separators = in.Line();
  const std::string text(in.Rest());
  for (const char* seps : {"/: ", "-;:", separators.c_str()}) {
    auto f = SixNumbers(text, seps);
    (void)DateTime(LocalTime(f[0], f[1], f[2], f[3], f[4], f[5]));
    (void)DateTime(LocalTime(f[2], f[0], f[1], f[3], f[4], f[5]));
  }
  return 0;
}
