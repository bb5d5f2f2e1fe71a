#include "scm/scmtool.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "support/handles.h"
#include "support/paths.h"
#include "support/shellquote.h"
#include "support/strings.h"

ClientCommand FormCommand(const char* tmpl, std::initializer_list<CmdValue> values) {
  ClientCommand cmd;
  const CmdValue* next = values.begin();
  bool in_quotes = false;
  for (const char* p = tmpl; *p; ++p) {
    if (p[0] == '%' && p[1] == 's') {
      CmdValue value = next != values.end() ? *next++ : CmdValue(std::string_view());
      cmd.text += ShellQuote(value.text,
                             in_quotes ? ShellPlace::kInDoubleQuotes : ShellPlace::kBare,
                             value.operand);
      cmd.shown += value.text;
      ++p;
      continue;
    }
    if (*p == '"')
      in_quotes = !in_quotes;
    cmd.text += *p;
    cmd.shown += *p;
  }
  return cmd;
}

int AddUserPassword(std::string& command, std::string& shown, const char* user,
                    const char* password, const char* userOption, const char* passwordOption,
                    size_t limit) {
  if (user == nullptr || *user == '\0')
    return 0;
  if (password != nullptr && *password == '\0')
    password = nullptr;

  // Lengths count the values as quoted; for ordinary credentials that is
  // the values as given.
  std::string user_value = ShellQuote(user, ShellPlace::kInDoubleQuotes, false);
  std::string password_value =
      password ? ShellQuote(password, ShellPlace::kInDoubleQuotes, false) : std::string();
  size_t required = std::strlen(userOption) + user_value.size() + 4;
  if (password)
    required += std::strlen(passwordOption) + password_value.size() + 4;
  if (required + command.size() > limit)
    return 0;

  static constexpr char kMasked[] = "*******";
  std::string real = std::string(" ") + userOption + " \"" + user_value + "\"";
  std::string masked = std::string(" ") + userOption + " \"" + kMasked + "\"";
  if (password) {
    real += std::string(" ") + passwordOption + " \"" + password_value + "\"";
    masked += std::string(" ") + passwordOption + " \"" + kMasked + "\"";
  }
  command += real;
  shown += masked;
  return 1;
}

int FindFirstWildcard(std::string& out, const char* pattern, size_t limit) {
  std::string converted = pattern;
  ReplaceSlash(converted);
  std::string drive, dir, name, ext;
  SplitPath(converted.c_str(), drive, dir, name, ext);
  std::string directory = drive + dir;
  std::string name_pattern = name + ext;

  if (directory.compare(0, 2, "//") == 0)
    return 0;
  UniqueDir handle(opendir(directory.c_str()));
  if (!handle)
    return 0;

  // Only the first entry is examined, whatever it is.
  const dirent* entry = readdir(handle.get());
  if (entry == nullptr)
    return 0;
  std::string full = directory + entry->d_name;
  bool is_dir = entry->d_type == DT_DIR;
  if (entry->d_type == DT_UNKNOWN) {
    struct stat st {};
    is_dir = lstat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }
  if (!is_dir && fnmatch(name_pattern.c_str(), entry->d_name, 0) == 0) {
    if (full.size() >= limit)
      return 0;
    out = full;
  }
  return 1;
}

void TrimTrailing(std::string& line) { StripChar(line, kTrimSet, 1); }
void TrimBoth(std::string& line) { StripChar(line, kTrimSet, 2); }

bool HasPrefix(const std::string& line, const char* prefix) {
  return IsNEqual(line.c_str(), prefix, std::strlen(prefix), 0) == 1;
}

std::string From(const std::string& line, size_t pos) {
  return pos < line.size() ? line.substr(pos) : std::string();
}

std::string TreeKey(const std::string& dir, const std::string& rel) {
  std::string key = dir + "/" + rel;
  ReplaceSlash2(key, '/');
  return key;
}

FileNode* FindFile(Bintree* tree, const std::string& key) {
  if (tree == nullptr)
    return nullptr;
  return static_cast<FileNode*>(FindKey(tree, key.c_str()));
}

std::string DirectoryOf(const char* path) {
  std::string drive, dir, name, ext;
  SplitPath(path, drive, dir, name, ext);
  std::string out = drive.empty() ? dir : drive + dir;
  ReplaceSlash(out);
  return out;
}

std::array<int, 6> SixNumbers(const std::string& text, const char* separators) {
  std::array<int, 6> fields{};
  size_t count = 0;
  size_t pos = 0;
  while (count < fields.size()) {
    pos = text.find_first_not_of(separators, pos);
    if (pos == std::string::npos)
      break;
    size_t end = text.find_first_of(separators, pos);
    fields[count++] =
        std::atoi(text.substr(pos, end == std::string::npos ? end : end - pos).c_str());
    if (end == std::string::npos)
      break;
    pos = end;
  }
  return fields;
}

int64_t LocalTime(int year, int month, int day, int hour, int minute, int second) {
  // Clients may print any number; a year or month whose field would not fit
  // an int is a time mktime cannot represent either, and gets its -1.
  const int64_t year_field = int64_t{year} - 1900;
  const int64_t month_field = int64_t{month} - 1;
  if (year_field < INT_MIN || month_field < INT_MIN)
    return -1;
  struct tm when {};
  when.tm_year = static_cast<int>(year_field);
  when.tm_mon = static_cast<int>(month_field);
  when.tm_mday = day;
  when.tm_hour = hour;
  when.tm_min = minute;
  when.tm_sec = second;
  when.tm_isdst = 0;
  return static_cast<int64_t>(std::mktime(&when));
}

void PrintExecuting(const std::string& shown) { std::printf("Executing: %s\n", shown.c_str()); }
void PrintExecutingInDir(const std::string& shown, const std::string& dir) {
  std::printf("Executing: %s in dir %s\n", shown.c_str(), dir.c_str());
}
void PrintExecutingRedirect(const std::string& shown) {
  std::printf("Executing: %s 2>&1 \n", shown.c_str());
}
void PrintCouldNotRun(const std::string& shown) {
  std::printf("Could not run: %s\n", shown.c_str());
}
void PrintCouldNotRunRedirect(const std::string& shown) {
  std::printf("Could not run: %s 2>&1\n", shown.c_str());
}
void PrintCouldNotRunBare(const std::string& shown) {
  std::printf("Could not run: %s ", shown.c_str());
}
