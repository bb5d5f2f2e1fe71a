#include <cstdio>
#include <exception>

#include "driver/run.h"

int main(int argc, char** argv) {
  // Nothing is expected to throw; should it happen, the run must not look
  // like a success.
  try {
    return InspectorMain(argc, argv);
  } catch (const std::exception& e) {
    std::printf("Unexpected failure: %s\n", e.what());
  } catch (...) {
    std::puts("Unexpected failure.");
  }
  std::fflush(stdout);
  return 1;
}
