#include "driver/cmdline.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "driver/input.h"
#include "driver/settings.h"
#include "support/handles.h"
#include "support/strings.h"

namespace {

constexpr const char* kProductName = "Weftlane(R)";
constexpr const char* kMakerNotice = "Copyright (c) Weftlane Software. All rights reserved.";

constexpr const char* kUsageLines[] = {
    "Usage: wlinspector <options>",
    "          -b  = Build Directory",
    "          -c  <SCM Tool> = SCM Reporting Type",
    "            Current tools are:",
    "            ACCUREV, CLEARCASE, CVS, CVSREP, HARVEST, PERFORCE, SVN,",
    "            VSS, MSTF, TEAMPRISE",
    "          -ld <YYYY-MM-DD HH_MM_SS> = Log: Build Date/Time",
    "          -lj <Job Name>  = Log: Job Name",
    "          -lm <Machine>   = Log: Build Machine Name",
    "          -lo <Owner>     = Log: Owner Name",
    "          -lp             = Log: Public Build",
    "          -t <Label/Tag Name> = Build Label",
    "          -u <User>       = SCM Tool Username",
    "          -p <Password>   = SCM Tool Password",
    "          -v  = Version",
    "          -?  = This message",
    "          -h  = This message",
};

constexpr const char* kResponseOpenFormat = "Could not open response file %s\n";
constexpr const char* kUncFormat = "ERROR 53: UNC Working directories ('%s') are not supported.\n";
constexpr const char* kNoJobMessage = "ERROR 55: -lj parameter and argument are required.\n";
constexpr const char* kNoOwnerMessage = "ERROR 56: -lo parameter and argument are required.\n";
constexpr const char* kNoMachineMessage = "ERROR 57: -lm parameter and argument are required.\n";
constexpr const char* kNoDateMessage = "ERROR 58: -ld parameter and argument are required.\n";
constexpr const char* kDateFormatMessage =
    "ERROR 58: -ld parameter is required to be in YYYY-MM-DD HH_MM_SS format.\n";
constexpr const char* kNoPublicMessage = "ERROR 59: -lp parameter is required.\n";
constexpr const char* kLineBreakFormat =
    "ERROR 60: %s value must not contain a line feed or carriage return.\n";

// Tool keywords of -c, compared without regard to case; the first match wins.
struct ScmKeyword {
  const char* keyword;
  uint32_t type;
};
constexpr ScmKeyword kScmKeywords[] = {
    {"CVS", kScmCvs},           {"CVSREP", kScmCvsRep},   {"CLEARCASE", kScmClearCase},
    {"HARVEST", kScmHarvest},   {"SVN", kScmSvn},         {"VSS", kScmVss},
    {"PERFORCE", kScmPerforce}, {"SI", kScmSi},           {"MSTF", kScmMstf},
    {"TEAMPRISE", kScmMstf},    {"ACCUREV", kScmAccurev},
};

// The words to parse, entry 0 being the program name. Append() refuses the
// entry beyond kMaxWords.
class WordList {
 public:
  bool Append(std::string word) {
    if (words_.size() >= kMaxWords)
      return false;
    words_.push_back(std::move(word));
    return true;
  }
  size_t size() const { return words_.size(); }
  const std::string& operator[](size_t i) const { return words_[i]; }

 private:
  std::vector<std::string> words_;
};

enum class Collect { kOk, kRefused };

Collect RefuseTooManyWords() {
  std::puts(kTooManyWordsMessage);
  return Collect::kRefused;
}

// Reads one piece of a response file the way fgets does into a buffer of
// kResponseLineChars + 1 bytes: up to kResponseLineChars bytes, ending early
// after a '\n'. A longer line thus arrives in pieces, each treated as a line,
// and a NUL byte ends the text of its piece (c_str() stops there). `consumed`
// counts every byte read. False at end of file with nothing read.
bool ReadPiece(FILE* file, std::string& piece, size_t& consumed) {
  piece.clear();
  int c;
  while (piece.size() < kResponseLineChars && (c = std::getc(file)) != EOF) {
    piece += static_cast<char>(c);
    if (c == '\n')
      break;
  }
  consumed += piece.size();
  return !piece.empty();
}

// Reads the response file's words into `words`. Prints its own message when
// it refuses.
Collect ReadResponseFile(const char* name, WordList& words) {
  InputStatus status;
  UniqueFile file = OpenInputFile(name, status);
  if (status == InputStatus::kRefused) {
    std::printf(kResponseFileRefusedFormat, name);
    return Collect::kRefused;
  }
  if (!file) {
    std::printf(kResponseOpenFormat, name);
    return Collect::kRefused;
  }

  std::string line;
  size_t total = 0;
  while (ReadPiece(file.get(), line, total)) {
    if (total > kMaxInputFileBytes) {
      std::printf(kResponseFileRefusedFormat, name);
      return Collect::kRefused;
    }
    constexpr const char* kDelims = "\n\r ";
    for (int n = 1;; ++n) {
      std::string word = GetWord(line.c_str(), kDelims, n, n);
      if (word.empty())
        break;
      // A word that starts a quotation and holds no other quote opens a
      // group running to the first later word with a quote (or the line's
      // end); the group counts as one word.
      if (word[0] == '"' && word.find('"', 1) == std::string::npos) {
        std::string joined = word + " ";
        for (++n;; ++n) {
          std::string next = GetWord(line.c_str(), kDelims, n, n);
          if (next.empty())
            break;
          joined += next;
          joined += ' ';
          if (next.find('"') != std::string::npos)
            break;
        }
        StripChar(joined, "\" ", 2);
        word = joined;
      }
      StripChar(word, "\"", 2);
      if (!words.Append(std::move(word)))
        return RefuseTooManyWords();
    }
  }
  return Collect::kOk;
}

Collect CollectWords(int argc, char** argv, WordList& words) {
  words.Append(argc > 0 && argv[0] ? argv[0] : "");
  if (argc > 1 && argv[1][0] == '@') {
    if (ReadResponseFile(argv[1] + 1, words) != Collect::kOk)
      return Collect::kRefused;
  }
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] == '@')
      continue;
    std::string word = argv[i];
    StripChar(word, "\"", 2);
    if (!words.Append(std::move(word)))
      return RefuseTooManyWords();
  }
  return Collect::kOk;
}

void Echo(const WordList& words) {
  std::string line = "Command Line Options: ";
  bool masking = false;
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (!w.empty() && w[0] == '-') {
      line += w;
    } else if (masking) {
      line += "\"***********\"";
    } else {
      line += '"';
      line += w;
      line += '"';
    }
    line += ' ';
    // Once a word naming a user or password has gone by, every later value
    // is masked, whatever option it belongs to.
    if (w.size() > 1 && (w[1] == 'u' || w[1] == 'U' || w[1] == 'p' || w[1] == 'P'))
      masking = true;
  }
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
}

void SetScmType(const std::string& value) {
  for (const ScmKeyword& k : kScmKeywords) {
    if (IsEqual(value.c_str(), k.keyword, 0)) {
      SCMType = k.type;
      break;
    }
  }
  safe_cpy(&SCMTypeStr, value.c_str());
}

// Runs the option loop. Returns false when an option word with the letter
// '@' stops the parse.
bool ParseOptions(const WordList& words) {
  size_t i = 1;
  while (i < words.size()) {
    const std::string& w = words[i];
    char letter = ' ';
    std::string suffix;
    if (!w.empty() && w[0] == '-') {
      letter = w.size() > 1 ? w[1] : '\0';
      if (w.size() > 2)
        suffix = w.substr(2);
    }
    std::string value;
    if (i + 1 < words.size() && (words[i + 1].empty() || words[i + 1][0] != '-')) {
      value = words[i + 1];
    }
    // A valued option always moves past the next word, even when that word
    // began with '-' and so gave no value: it is skipped unread.
    size_t step = 2;
    // Option letters are taken in either case.
    switch (std::tolower(static_cast<unsigned char>(letter))) {
      case '@':
        // The message for this case ("ERROR 49: Response file must be first
        // argument") was never printed by this tool; it stays silent.
        return false;
      case 'b':
        WorkDir = value;
        break;
      case 'c':
        SetScmType(value);
        break;
      case 'l': {
        switch (suffix.empty() ? 0 : std::tolower(static_cast<unsigned char>(suffix[0]))) {
          case 'o':
            safe_cpy(&LogOwner, value.c_str());
            break;
          case 'm':
            safe_cpy(&MachineLabel, value.c_str());
            break;
          case 'd':
            safe_cpy(&JobDateTime, value.c_str());
            break;
          case 'j':
            safe_cpy(&TaskName, value.c_str());
            break;
          case 'n':
            safe_cpy(&BuildNumber, value.c_str());
            break;
          case 'p':
            // -lp takes no value.
            safe_cpy(&PublicBuildJob, "true");
            step = 1;
            break;
          default:
            break;
        }
        break;
      }
      case 'p':
        safe_cpy(&Password, value.c_str());
        break;
      case 's':
        ScanSrc = 1;
        step = 1;
        break;
      case 't':
        BuildLabel = value;
        break;
      case 'u':
        safe_cpy(&User, value.c_str());
        break;
      case 'v':
        if (suffix.empty()) {
          PrintVersionBanner();
          PrintVersionOnly = 1;
          step = 1;
        }
        break;
      default:
        step = 1;
        break;
    }
    i += step;
  }
  return true;
}

// Rewrites a month.day.year date as year-month-day after ':' became '_'.
std::string NormaliseDateTime(const char* text) {
  std::string dt = text;
  for (char& c : dt) {
    if (c == ':')
      c = '_';
  }
  if (dt.find('.') != std::string::npos) {
    const char* s = dt.c_str();
    std::string month = GetWord(s, ". ", 1, 1);
    std::string day = GetWord(s, ". ", 2, 2);
    std::string year = GetWord(s, ". ", 3, 3);
    std::string time = GetWord(s, ". ", 4, 4);
    dt = year + "-" + month + "-" + day + " " + time;
  }
  return dt;
}

// The form check: only the separators and a leading '2' are tested, never
// the digits.
bool DateTimeFormOk(const std::string& dt) {
  return dt.size() == 19 && dt[0] == '2' && dt[4] == '-' && dt[7] == '-' && dt[10] == ' ' &&
         dt[13] == '_' && dt[16] == '_';
}

bool IsEmpty(const char* s) { return s == nullptr || s[0] == '\0'; }

bool HasLineBreak(const char* s) { return s && std::strpbrk(s, "\n\r") != nullptr; }

// The values written as header lines of the inventory and the change report
// must stay on their line: a line break would turn the rest of the value
// into lines of its own. Such a value is refused before anything is written.
bool HeaderValuesFit() {
  const std::pair<const char*, const char*> values[] = {
      {"-b", WorkDir.c_str()}, {"-c", SCMTypeStr},   {"-lm", MachineLabel},
      {"-t", BuildLabel.c_str()}, {"-ln", BuildNumber},
  };
  for (const auto& [option, value] : values) {
    if (HasLineBreak(value)) {
      std::printf(kLineBreakFormat, option);
      return false;
    }
  }
  return true;
}

void DefaultIfUnset(char** setting, const char* value) {
  if (*setting == nullptr)
    safe_cpy(setting, value);
}

}  // namespace

char* GetOEMVersion(char* buffer) {
  std::memcpy(buffer, kProductName, std::strlen(kProductName) + 1);
  return buffer;
}

void PrintVersionBanner() {
  char product[12];
  std::printf("\n%s V%s, %s\n\n", GetOEMVersion(product), kVersionText, kMakerNotice);
}

void PrintUsage() {
  for (const char* line : kUsageLines)
    std::puts(line);
  std::puts("");
}

int ParseParms(int argc, char** argv) {
  WordList words;
  if (CollectWords(argc, argv, words) != Collect::kOk)
    return 0;

  if (words.size() == 2) {
    const char* only = words[1].c_str();
    if (IsEqual(only, "-v", 0)) {
      PrintVersionBanner();
      PrintVersionOnly = 1;
      return 1;
    }
    if (IsEqual(only, "-?", 0) || IsEqual(only, "/?", 0) || IsEqual(only, "-h", 0) ||
        IsEqual(only, "/h", 0)) {
      PrintUsage();
      return 0;
    }
  }
  if (words.size() < 2) {
    PrintUsage();
    return 0;
  }

  Echo(words);
  if (!ParseOptions(words))
    return 0;

  if (WorkDir.size() >= 2 && WorkDir[0] == '\\' && WorkDir[1] == '\\') {
    std::printf(kUncFormat, WorkDir.c_str());
    return 0;
  }
  if (!HeaderValuesFit())
    return 0;
  bool is_public = !IsEmpty(PublicBuildJob) && IsEqual(PublicBuildJob, "true", 0);
  safe_cpy(&PublicBuildJob, is_public ? "true" : "false");

  DefaultIfUnset(&TaskName, "");
  DefaultIfUnset(&BuildNumber, "");
  DefaultIfUnset(&MachineLabel, "My Computer");
  DefaultIfUnset(&JobDateTime, "");
  DefaultIfUnset(&LogOwner, UserId.c_str());
  DefaultIfUnset(&SCMTypeStr, "NONE");

  if (IsEmpty(TaskName)) {
    std::fputs(kNoJobMessage, stdout);
    return 0;
  }
  if (IsEmpty(LogOwner)) {
    std::fputs(kNoOwnerMessage, stdout);
    return 0;
  }
  if (IsEmpty(MachineLabel)) {
    std::fputs(kNoMachineMessage, stdout);
    return 0;
  }
  if (IsEmpty(JobDateTime)) {
    std::fputs(kNoDateMessage, stdout);
    return 0;
  }
  std::string dt = NormaliseDateTime(JobDateTime);
  safe_cpy(&JobDateTime, dt.c_str());
  if (!DateTimeFormOk(dt)) {
    std::fputs(kDateFormatMessage, stdout);
    return 0;
  }
  // After the normalisation above this holds "true" or "false"; the check is
  // kept as the last line of defence.
  if (IsEmpty(PublicBuildJob)) {
    std::fputs(kNoPublicMessage, stdout);
    return 0;
  }
  return 1;
}
