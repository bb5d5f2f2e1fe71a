// Path helpers: splitting, separator conversion, normalisation and the
// creation of nested directories (inside the scratch directory only).

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz_support.h"
#include "support/paths.h"
#include "support/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const char slashes[3] = {static_cast<char>(in.Byte()), static_cast<char>(in.Byte()),
                           static_cast<char>(in.Byte())};
  const char slash2 = static_cast<char>(in.Byte());
  const std::string path = in.Line();
  std::string relative = in.Line();

  std::string drive, dir, name, ext;
  SplitPath(path.c_str(), drive, dir, name, ext);

  std::string text = path;
  ReplaceSlash(text);
  ReplaceSlash2(text, slash2);
  std::vector<char> buf(path.c_str(), path.c_str() + path.size() + 1);
  ReplaceSlash(buf.data());
  ReplaceSlash2(buf.data(), slash2);

  char* safe = nullptr;
  safe_cpy(&safe, path.c_str());
  CanonicalPath(&safe);
  safe_free(&safe);

  // Other separator settings, then back to the defaults.
  const char saved[3] = {oldslash1, oldslash2, newslash};
  oldslash1 = slashes[0];
  oldslash2 = slashes[1];
  newslash = slashes[2];
  SplitPath(path.c_str(), drive, dir, name, ext);
  text = path;
  ReplaceSlash(text);
  oldslash1 = saved[0];
  oldslash2 = saved[1];
  newslash = saved[2];

  // Directories below a fresh folder of the scratch directory, for one
  // input in eight (making and removing them is slow); dots are taken out so
  // that no ".." can climb out of it, and the depth is kept small.
  if ((slash2 & 7) != 0)
    return 0;
  std::replace(relative.begin(), relative.end(), '.', '_');
  relative.resize(std::min<size_t>(relative.size(), 120));
  const std::string base = fuzz::ScratchDir() + "/made";
  CreateDir(base.c_str(), relative.c_str());
  std::error_code ec;
  std::filesystem::remove_all(base, ec);
  return 0;
}
