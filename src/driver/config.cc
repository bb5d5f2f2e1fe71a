#include "driver/config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "driver/input.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

char* configEnvVar[kMaxConfigEnv];
char* configEnvValue[kMaxConfigEnv];
int32_t maxConfigEnv = -1;

namespace {

constexpr const char* kPropertyFileName = "wlenvironment.properties";
constexpr const char* kHomePropertyFile = "/.weftlane/wlenvironment.properties";
constexpr const char* kSubmitProgram = "wlsubmit";

constexpr const char* kPropertyFileRefusedFormat =
    "Property file %s is not a regular file of at most 16777216 bytes: it is ignored.\n";

// A property file opened for reading, with the bytes read so far.
struct PropertyFile {
  UniqueFile file;
  size_t consumed = 0;
};

// Opens a property file; one that is not a regular file of at most
// kMaxInputFileBytes is named and treated like a missing one.
PropertyFile OpenPropertyFile(const std::string& path) {
  InputStatus status;
  PropertyFile in{OpenInputFile(path.c_str(), status)};
  if (status == InputStatus::kRefused)
    std::printf(kPropertyFileRefusedFormat, path.c_str());
  return in;
}

// Reads one piece of at most kPropertyLineChars characters, ending early
// after a '\n' (what fgets gives with a buffer one byte larger). A NUL byte
// ends the text of its piece. False at end of file with nothing read, and
// once kMaxInputFileBytes have been read (a file that keeps growing).
bool ReadPropertyLine(PropertyFile& in, std::string& piece) {
  piece.clear();
  int c;
  while (piece.size() < static_cast<size_t>(kPropertyLineChars) &&
         in.consumed < kMaxInputFileBytes && (c = std::getc(in.file.get())) != EOF) {
    ++in.consumed;
    piece += static_cast<char>(c);
    if (c == '\n')
      break;
  }
  return !piece.empty();
}

void SplitProperty(const std::string& line, std::string& name, std::string& value) {
  name = GetWord(line.c_str(), "=\r\n", 1, 1);
  value = GetWord(line.c_str(), "=\r\n", 2, 2);
}

void AddEntry(const std::string& name, const std::string& value, std::string& names) {
  names += name;
  names += ';';
  safe_cpy(&configEnvVar[maxConfigEnv], name.c_str());
  safe_cpy(&configEnvValue[maxConfigEnv], value.c_str());
  ++maxConfigEnv;
}

const char* NonEmptyEnv(const char* name) {
  const char* v = std::getenv(name);
  return v && *v ? v : nullptr;
}

// PATH split into its non-empty elements (runs of separators count as one,
// as word extraction does).
std::vector<std::string> PathElements(const char* path, const char* separators) {
  std::vector<std::string> out;
  std::string cur;
  for (const char* p = path; *p; ++p) {
    if (std::strchr(separators, *p)) {
      if (!cur.empty())
        out.push_back(std::move(cur));
      cur.clear();
    } else {
      cur += *p;
    }
  }
  if (!cur.empty())
    out.push_back(std::move(cur));
  return out;
}

// Looks for program in PATH's elements; the first candidate that is a
// regular file we may read and run is returned (separators converted), or an empty text.
std::string SearchPath(const char* program, const char* separators) {
  // An unset PATH is searched as an empty one: nothing is found there.
  const char* path = std::getenv("PATH");
  if (!path)
    return {};
  for (const std::string& element : PathElements(path, separators)) {
    std::string candidate = element + "/" + program;
    ReplaceSlash(candidate);
    if (IsProgramFile(candidate.c_str()))
      return candidate;
  }
  return {};
}

void SetFound(char** found_ref, const std::string& path) {
  *found_ref = nullptr;
  safe_cpy(found_ref, path.c_str());
}

}  // namespace

const char* GetEnv(const char* name) {
  if (maxConfigEnv == -1) {
    char* names = LoadConfigEnv();
    safe_free(&names);
  }
  if (const char* v = NonEmptyEnv(name))
    return v;
  for (int i = 0; i < maxConfigEnv; ++i) {
    if (configEnvVar[i] && std::strcmp(configEnvVar[i], name) == 0)
      return configEnvValue[i];
  }
  return nullptr;
}

char* LoadConfigEnv() {
  maxConfigEnv = 0;
  std::string names;
  std::string path;
  std::string line, name, value;

  char* submit = nullptr;
  if (PgmWithPath(kSubmitProgram, &submit, 0)) {
    std::string drive, dir, base, ext;
    SplitPath(submit, drive, dir, base, ext);
    // The directory already ends in '/', so the name carries a doubled slash.
    path = drive + dir + "/" + kPropertyFileName;
    if (PropertyFile in = OpenPropertyFile(path); in.file) {
      while (maxConfigEnv < kMaxConfigEnv && ReadPropertyLine(in, line)) {
        SplitProperty(line, name, value);
        AddEntry(name, value, names);
      }
    }
    safe_free(&submit);
  }

  // Without HOME the path still names the file beside wlsubmit, which is then
  // read again and simply replaces its own entries.
  if (const char* home = std::getenv("HOME"))
    path = std::string(home) + kHomePropertyFile;

  char* list = nullptr;
  if (PropertyFile in = path.empty() ? PropertyFile{} : OpenPropertyFile(path); in.file) {
    while (maxConfigEnv < kMaxConfigEnv && ReadPropertyLine(in, line)) {
      SplitProperty(line, name, value);
      int found = -1;
      for (int i = 0; i < maxConfigEnv; ++i) {
        if (std::strcmp(configEnvVar[i], name.c_str()) == 0) {
          found = i;
          break;
        }
      }
      if (found >= 0) {
        safe_cpy(&configEnvVar[found], name.c_str());
        safe_cpy(&configEnvValue[found], value.c_str());
      } else {
        AddEntry(name, value, names);
      }
    }
  }
  StripChar(names, ";", 1);
  safe_cpy(&list, names.c_str());
  return list;
}

void CleanConfigEnv() {
  for (int i = 0; i < kMaxConfigEnv; ++i) {
    safe_free(&configEnvVar[i]);
    safe_free(&configEnvValue[i]);
  }
}

void ResetConfigEnv() {
  CleanConfigEnv();
  maxConfigEnv = -1;
}

int PgmWithPath(const char* program, char** found_ref, int verbose) {
  const char* path = std::getenv("PATH");
  if (verbose)
    std::printf("Searching for %s\n", program);
  const char* separators = path && std::strchr(path, ';') ? ";" : ":;";

  if (IsProgramFile(program)) {
    std::string drive, dir, name, ext;
    SplitPath(program, drive, dir, name, ext);
    std::string found = program;
    if (dir.empty() || dir[0] != '/') {
      std::string cwd;
      ShortPathName(GetPwd().c_str(), cwd, 1024);
      found = cwd + "/" + program;
    }
    ReplaceSlash(found);
    SetFound(found_ref, found);
    return 1;
  }
  std::string found = SearchPath(program, separators);
  if (!found.empty()) {
    SetFound(found_ref, found);
    if (verbose)
      std::printf("Found %s\n", found.c_str());
    return 1;
  }
  *found_ref = nullptr;
  return 0;
}

int PgmFound(const char* program, int verbose) {
  const char* path = std::getenv("PATH");
  if (verbose)
    std::printf("Searching for %s\n", program);
  const char* separators = path && std::strchr(path, ';') ? ";" : ":";

  if (IsProgramFile(program)) {
    if (verbose)
      std::printf("Found %s\n", program);
    return 1;
  }
  std::string found = SearchPath(program, separators);
  if (found.empty())
    return 0;
  if (verbose)
    std::printf("Found %s\n", found.c_str());
  return 1;
}

void SetLocalWLEnvironment() {
  char* names = nullptr;
  if (maxConfigEnv == -1)
    names = LoadConfigEnv();
  for (int i = 0; i < maxConfigEnv; ++i) {
    if (!configEnvVar[i] || !IsEqual(configEnvVar[i], "WEFTLANE_HOME", 0))
      continue;
    // The text is formed and dropped again: nothing installs it, and the
    // operation is kept without a lasting effect.
    const char* home = NonEmptyEnv(configEnvVar[i]);
    const char* search = NonEmptyEnv("PATH");
    if (!search)
      search = std::getenv("Path");
    std::string text =
        std::string(home ? home : configEnvValue[i]) + "\\bin;" + (search ? search : "");
    (void)text;
  }
  safe_free(&names);
}
