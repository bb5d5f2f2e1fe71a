#include "support/paths.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "support/handles.h"
#include "support/strings.h"

extern char** environ;

char oldslash1 = '\\';
char oldslash2 = '\\';
char newslash = '/';
char Default_Slash = '/';
std::string Cwd;
int32_t PwdInMVS = 0;

namespace {

constexpr size_t npos = std::string::npos;
// Longest host name GetMachineName hands out.
constexpr size_t kMachineNameMax = 40;
constexpr const char kEpochText[] = "01/01/1970 00:00:01";

bool Has(const std::string& s, char c) { return s.find(c) != npos; }

// Everything after position `at`.
std::string After(const std::string& s, size_t at) { return s.substr(at + 1); }

// The dataset form ("//HLQ.SRC(MEMBER)"): the directory is the path up to its
// last dot, and the rest is extension and member name. Separators are neither
// appended nor converted.
void SplitDataset(const std::string& path, std::string w, std::string& dir, std::string& name,
                  std::string& ext) {
  // The last dot of the whole path, even when a '|' cut W shorter.
  const size_t dot = path.rfind('.');
  if (dot != npos) {
    dir = path.substr(0, dot + 1);
    w = After(path, dot);
  }
  const size_t open = w.find('(');
  const size_t close = w.find(')');
  if (open != npos && close != npos) {
    if (open >= close) {
      return;
    }
    ext = w.substr(0, open);
    name = After(w, open);
    StripChar(name, ")' ", 1);
    return;
  }
  ext = w;
}

// The directory and name of W when W has no extension: cut at the last
// separator. With exactly one backslash the whole of W is the directory.
void SplitNoExtension(std::string& w, std::string& dir, std::string& name) {
  const size_t last_bs = w.rfind('\\');
  if (last_bs != npos) {
    if (last_bs != w.find('\\')) {
      name = After(w, last_bs);
      w.erase(last_bs);
    }
    dir = w;
    return;
  }
  const size_t last_slash = w.rfind('/');
  if (last_slash != npos) {
    name = After(w, last_slash);
    w.erase(last_slash);
    dir = w;
  }
  // A bare name without dot or separator yields nothing at all.
}

void SplitWithExtension(std::string& w, size_t dot, std::string& dir, std::string& name,
                        std::string& ext) {
  const size_t open = w.find('(');
  const bool member = open != npos && Has(w, ')') && w.back() == ')' && !Has(w, '$');
  if (member) {
    // LIB.PDS(MEMBER): directory LIB, extension .PDS, name MEMBER.
    dir = w.substr(0, dot);
    ext = open > dot ? w.substr(dot, open - dot) : w.substr(dot);
    name = w.substr(open);
    StripChar(name, "()", 2);
    return;
  }
  ext = w.substr(dot);
  w.erase(dot);
  if (IsEqual(w.c_str(), ".", 0)) {
    // Not dir = ".": GCC 12 at -O3 reports a false -Wrestrict overlap for it.
    dir.assign(1, '.');
    return;
  }
  size_t cut = w.rfind('\\');
  if (cut == npos) {
    cut = w.rfind('/');
  }
  if (cut != npos) {
    name = After(w, cut);
    w.erase(cut);
    dir = w;
  } else {
    name = w;
  }
}

// Segments of text between runs of the given separators (empty ones skipped).
std::vector<std::string> Segments(const std::string& text, const char* separators) {
  std::vector<std::string> out;
  size_t at = 0;
  while (at < text.size()) {
    const size_t begin = text.find_first_not_of(separators, at);
    if (begin == npos) {
      break;
    }
    size_t end = text.find_first_of(separators, begin);
    if (end == npos) {
      end = text.size();
    }
    out.push_back(text.substr(begin, end - begin));
    at = end;
  }
  return out;
}

}  // namespace

void SplitPath(const char* path_text, std::string& drive, std::string& dir, std::string& name,
               std::string& ext) {
  drive.clear();
  dir.clear();
  name.clear();
  ext.clear();
  const std::string path = path_text == nullptr ? std::string() : std::string(path_text);
  std::string w = path;
  const size_t bar = path.find('|');
  if (bar != npos) {
    w = path.substr(0, bar);
  }
  if (w.size() >= 2 && w[0] == '/' && w[1] == '/') {
    SplitDataset(path, w, dir, name, ext);
    return;
  }
  // Like the dataset dot, the drive is found in the whole path, and W becomes
  // what follows it there.
  const size_t colon = path.find(':');
  if (colon != npos) {
    drive = path.substr(0, colon + 1);
    w = After(path, colon);
  }
  const size_t dot = w.rfind('.');
  size_t sep = w.rfind('/');
  if (sep == npos) {
    sep = w.rfind('\\');
  }
  if (dot == npos || (sep != npos && dot < sep)) {
    SplitNoExtension(w, dir, name);
  } else {
    SplitWithExtension(w, dot, dir, name, ext);
  }
  if (!dir.empty()) {
    dir.push_back('\\');
    ReplaceSlash(dir);
  }
}

char* ReplaceSlash(char* text) {
  for (char* p = text; *p != '\0'; ++p) {
    if (*p == oldslash1 || *p == oldslash2) {
      *p = newslash;
    }
  }
  return text;
}

std::string& ReplaceSlash(std::string& text) {
  for (char& c : text) {
    if (c == oldslash1 || c == oldslash2) {
      c = newslash;
    }
  }
  return text;
}

namespace {

char Slash2(char c, char slash) {
  if (slash == '/') {
    return c == '\\' ? '/' : c;
  }
  if (slash == '\\') {
    return c == '/' ? '\\' : c;
  }
  return (c == '/' || c == '\\') ? slash : c;
}

}  // namespace

char* ReplaceSlash2(char* text, char slash) {
  for (char* p = text; *p != '\0'; ++p) {
    *p = Slash2(*p, slash);
  }
  return text;
}

std::string& ReplaceSlash2(std::string& text, char slash) {
  for (char& c : text) {
    c = Slash2(c, slash);
  }
  return text;
}

std::string GetPwd() {
  if (PwdInMVS) {
    return Cwd;
  }
  // getcwd(nullptr, 0) allocates as much as the directory needs.
  char* here = getcwd(nullptr, 0);
  if (here == nullptr) {
    return Cwd;
  }
  std::string result(here);
  std::free(here);
  return result;
}

int SetPwd(const char* dir, std::string& before, std::string& after) {
  before = GetPwd();
  after = before;
  int ok = 1;
  if (dir != nullptr && dir[0] != '\0') {
    if (dir[0] == '/' && dir[1] == '/') {
      // A dataset location is only remembered; the file system is untouched.
      PwdInMVS = 1;
      Cwd = dir;
    } else {
      PwdInMVS = 0;
      if (chdir(dir) != 0) {
        ok = 0;
      }
    }
    after = GetPwd();
  }
  return ok;
}

// A time the C library cannot break down (a year beyond its range) gets the
// same fixed text as times up to 1, rather than undefined output.
std::string DateTime(int64_t seconds) {
  if (seconds <= 1) {
    return kEpochText;
  }
  const time_t t = static_cast<time_t>(seconds);
  struct tm tm_local {};
  if (localtime_r(&t, &tm_local) == nullptr) {
    return kEpochText;
  }
  // The year is widened before adding 1900 so tm_year near INT_MAX cannot
  // overflow; the buffer holds any int values.
  char buf[96];
  std::snprintf(buf, sizeof buf, "%02d/%02d/%02lld %02d:%02d:%02d", tm_local.tm_mon + 1,
                tm_local.tm_mday, static_cast<long long>(tm_local.tm_year) + 1900, tm_local.tm_hour,
                tm_local.tm_min, tm_local.tm_sec);
  return buf;
}

// Segments are held in a vector, so any number of them is handled.
int CanonicalPath(char** text_ref) {
  if (text_ref == nullptr || *text_ref == nullptr) {
    return 0;
  }
  std::string text(*text_ref);
  ReplaceSlash2(text, '/');
  ReplaceStr(text, "/./", "/", 1);
  ReplaceStr(text, ":/../", ":/", 1);
  if (!text.empty() && text[0] == '/') {
    safe_cpy(text_ref, text.c_str());
    return 0;
  }
  const std::vector<std::string> segments = Segments(text, "/");
  std::vector<bool> keep(segments.size(), false);
  // Resolved from the last segment back; a ".." is undone by the segments
  // before it, counting P, exactly as the old rule did (so a leading ".."
  // that cannot be resolved is dropped).
  int64_t pending = 0;
  for (size_t k = segments.size(); k-- > 0;) {
    const int64_t i = static_cast<int64_t>(k);
    if (segments[k] == "..") {
      if (pending >= i) {
        --pending;
      } else {
        ++pending;
      }
    } else if (pending == 0) {
      keep[k] = true;
    } else if (pending > 0) {
      --pending;
    }
  }
  std::string result;
  for (size_t k = 0; k < segments.size(); ++k) {
    if (keep[k]) {
      result += segments[k];
      result += '/';
    }
  }
  while (!result.empty() && result.back() == '/') {
    result.pop_back();
  }
  if (result.size() == 2 && result[1] == ':') {
    result += '/';
  }
  safe_cpy(text_ref, result.c_str());
  return 0;
}

int CreateDir(const char* base, const char* relative) {
  std::string path;
  if (base != nullptr && base[0] != '\0') {
    path = base;
    path += '/';
  }
  if (relative != nullptr && relative[0] != '\0') {
    path += relative;
  }
  std::string prefix;
  if (!path.empty() && (path[0] == '/' || path[0] == '\\')) {
    prefix = path[0];
  }
  for (const std::string& segment : Segments(path, "\\/")) {
    prefix += segment;
    prefix += '/';
    if (UniqueDir(opendir(prefix.c_str())))
      continue;
    // Failures are not reported: the caller finds out when it uses the path.
    (void)mkdir(prefix.c_str(), 07777);
  }
  return 1;
}

int FileExists(const char*) { return 1; }

int ShortPathName(const char* source, std::string& target, int) {
  target = source == nullptr ? "" : source;
  return 1;
}

int LongPathName(const char* source, std::string& target, int) {
  target = source == nullptr ? "" : source;
  return 1;
}

void* MakePDS(void* value, int) { return value; }

void SubmitJCL(void*) {}

char** GetEnvironment() { return environ; }

std::string GetMachineName() {
  char buf[kMachineNameMax + 1] = {};
  // A longer name is cut to kMachineNameMax bytes (gethostname then reports
  // ENAMETOOLONG, which is fine here).
  if (gethostname(buf, kMachineNameMax) != 0 && errno != ENAMETOOLONG) {
    return std::string();
  }
  buf[kMachineNameMax] = '\0';
  return std::string(buf);
}
