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

// One option word as the loop sees it: its letter (a blank for a word that
// is no option), the characters after the letter pair, and its value (the
// next word unless that begins with '-').
struct OptionWord {
  char letter = ' ';
  std::string suffix;
  std::string value;
};

OptionWord ReadOptionWord(const WordList& words, size_t i) {
  OptionWord option;
  const std::string& w = words[i];
  if (!w.empty() && w[0] == '-') {
    option.letter = w.size() > 1 ? w[1] : '\0';
    if (w.size() > 2)
      option.suffix = w.substr(2);
  }
  if (i + 1 < words.size() && (words[i + 1].empty() || words[i + 1][0] != '-'))
    option.value = words[i + 1];
  return option;
}

// The -l options, chosen by the suffix's first character. Returns the
// number of words the option takes.
size_t ApplyLogOption(const OptionWord& option) {
  const char* value = option.value.c_str();
  switch (option.suffix.empty() ? 0 : std::tolower(static_cast<unsigned char>(option.suffix[0]))) {
    case 'o':
      safe_cpy(&LogOwner, value);
      break;
    case 'm':
      safe_cpy(&MachineLabel, value);
      break;
    case 'd':
      safe_cpy(&JobDateTime, value);
      break;
    case 'j':
      safe_cpy(&TaskName, value);
      break;
    case 'n':
      safe_cpy(&BuildNumber, value);
      break;
    case 'p':
      // -lp takes no value.
      safe_cpy(&PublicBuildJob, "true");
      return 1;
    default:
      break;
  }
  return 2;
}

// Applies one option; returns the number of words it takes, or 0 when an
// option word with the letter '@' stops the parse. A valued option always
// moves past the next word, even when that word began with '-' and so gave
// no value: it is skipped unread.
size_t ApplyOption(const OptionWord& option) {
  // Option letters are taken in either case.
  switch (std::tolower(static_cast<unsigned char>(option.letter))) {
    case '@':
      // The message for this case ("ERROR 49: Response file must be first
      // argument") was never printed by this tool; it stays silent.
      return 0;
    case 'b':
      WorkDir = option.value;
      return 2;
    case 'c':
      SetScmType(option.value);
      return 2;
    case 'l':
      return ApplyLogOption(option);
    case 'p':
      safe_cpy(&Password, option.value.c_str());
      return 2;
    case 's':
      ScanSrc = 1;
      return 1;
    case 't':
      BuildLabel = option.value;
      return 2;
    case 'u':
      safe_cpy(&User, option.value.c_str());
      return 2;
    case 'v':
      if (!option.suffix.empty())
        return 2;
      PrintVersionBanner();
      PrintVersionOnly = 1;
      return 1;
    default:
      return 1;
  }
}

// Runs the option loop. Returns false when an option word with the letter
// '@' stops the parse.
bool ParseOptions(const WordList& words) {
  for (size_t i = 1; i < words.size();) {
    size_t step = ApplyOption(ReadOptionWord(words, i));
    if (step == 0)
      return false;
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

// The command lines of one word that are answered at once: "-v" (the
// banner, then the run goes on without checks) and the usage requests.
// Returns ParseParms' result for them, or -1 for any other command line.
int SingleWordCommandLine(const WordList& words) {
  if (words.size() != 2)
    return -1;
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
  return -1;
}

// Prints `message` and returns false when `setting` is empty.
bool Present(const char* setting, const char* message) {
  if (!IsEmpty(setting))
    return true;
  std::fputs(message, stdout);
  return false;
}

// The checks and defaults after the option loop, in their fixed order;
// false after a message.
bool FinishSettings() {
  if (WorkDir.size() >= 2 && WorkDir[0] == '\\' && WorkDir[1] == '\\') {
    std::printf(kUncFormat, WorkDir.c_str());
    return false;
  }
  if (!HeaderValuesFit())
    return false;
  bool is_public = !IsEmpty(PublicBuildJob) && IsEqual(PublicBuildJob, "true", 0);
  safe_cpy(&PublicBuildJob, is_public ? "true" : "false");

  DefaultIfUnset(&TaskName, "");
  DefaultIfUnset(&BuildNumber, "");
  DefaultIfUnset(&MachineLabel, "My Computer");
  DefaultIfUnset(&JobDateTime, "");
  DefaultIfUnset(&LogOwner, UserId.c_str());
  DefaultIfUnset(&SCMTypeStr, "NONE");

  if (!Present(TaskName, kNoJobMessage) || !Present(LogOwner, kNoOwnerMessage) ||
      !Present(MachineLabel, kNoMachineMessage) || !Present(JobDateTime, kNoDateMessage))
    return false;
  std::string dt = NormaliseDateTime(JobDateTime);
  safe_cpy(&JobDateTime, dt.c_str());
  if (!DateTimeFormOk(dt)) {
    std::fputs(kDateFormatMessage, stdout);
    return false;
  }
  // After the normalisation above this holds "true" or "false"; the check is
  // kept as the last line of defence.
  return Present(PublicBuildJob, kNoPublicMessage);
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
  if (int result = SingleWordCommandLine(words); result >= 0)
    return result;
  if (words.size() < 2) {
    PrintUsage();
    return 0;
  }
  Echo(words);
  if (!ParseOptions(words))
    return 0;
  return FinishSettings() ? 1 : 0;
}
