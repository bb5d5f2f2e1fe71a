// A program of another tool of the suite, built against the installed library
// by tools/install-check/check-install.sh. It prints
// "Weftlane(R) 7.5.1 Build 10142020 equal=1".
#include <cstdio>

#include "driver/cmdline.h"
#include "support/strings.h"

int main() {
  char product[16];
  std::printf("%s %s equal=%d\n", GetOEMVersion(product), kVersionText,
              IsEqual("LogUpload", "logupload", 0));
  return 0;
}
