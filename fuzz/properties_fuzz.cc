// Property files: the file beside wlsubmit and the one in the home
// directory, both written into the scratch directory from the input (the
// two texts are separated by a "\n" followed by a NUL byte), loaded and
// searched. HOME and PATH point into the scratch directory only while the
// input runs; the table is released after every input.

#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "driver/config.h"
#include "fuzz_support.h"
#include "support/strings.h"

namespace {

class EnvOverride {
 public:
  EnvOverride(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name))
      saved_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~EnvOverride() {
    if (saved_)
      setenv(name_, saved_->c_str(), 1);
    else
      unsetenv(name_);
  }
  EnvOverride(const EnvOverride&) = delete;
  EnvOverride& operator=(const EnvOverride&) = delete;

 private:
  const char* name_;
  std::optional<std::string> saved_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& scratch = fuzz::ScratchDir();
  static const bool made = [&] {
    mkdir((scratch + "/bin").c_str(), 0700);
    mkdir((scratch + "/home").c_str(), 0700);
    mkdir((scratch + "/home/.weftlane").c_str(), 0700);
    fuzz::WriteScratchFile("bin/wlsubmit", "");
    return true;
  }();
  (void)made;

  std::string_view all(reinterpret_cast<const char*>(data), size);
  size_t cut = all.find(std::string_view("\n\0", 2));
  std::string_view beside = all.substr(0, cut);
  std::string_view home = cut == std::string_view::npos ? std::string_view() : all.substr(cut + 2);
  fuzz::WriteScratchFile("bin/wlenvironment.properties", beside);
  fuzz::WriteScratchFile("home/.weftlane/wlenvironment.properties", home);

  EnvOverride path("PATH", scratch + "/bin");
  EnvOverride home_dir("HOME", scratch + "/home");
  ResetConfigEnv();
  char* names = LoadConfigEnv();
  safe_free(&names);
  // The first name of each file, and a few fixed ones.
  const std::string first_beside(beside.substr(0, beside.find_first_of("=\r\n")));
  const std::string first_home(home.substr(0, home.find_first_of("=\r\n")));
  for (const std::string& name :
       {first_beside, first_home, std::string("WEFTLANE_SERVER"), std::string("")}) {
    (void)GetEnv(name.c_str());
  }
  SetLocalWLEnvironment();
  ResetConfigEnv();
  return 0;
}
