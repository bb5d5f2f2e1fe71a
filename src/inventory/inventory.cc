#include "inventory/inventory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "inventory/digest.h"
#include "inventory/filenode.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

constexpr size_t kLoadChunk = 64 * 1024;  // fgets reads of LoadFileTree
constexpr size_t kHeaderLineSize = 1024;  // lines examined by FindOldFileName
constexpr mode_t kDirectoryBit = 0x4000;
constexpr char kModuleRootTag[] = "ModuleRootDir=";
constexpr char kInventoryTag[] = ".bom.data";

long ParseNumber(const std::string& word) { return std::strtol(word.c_str(), nullptr, 10); }

constexpr char kHexDigits[] = "0123456789abcdef";

// A byte of `text` at `i` that a record field cannot hold as it is.
bool Awkward(const char* text, size_t i, size_t length) {
  char c = text[i];
  if (c == ';' || c == '\\' || c == '\n' || c == '\r')
    return true;
  return c == ' ' && (i == 0 || i + 1 == length);
}

bool NeedsEncoding(const char* text) {
  size_t length = std::strlen(text);
  for (size_t i = 0; i < length; ++i) {
    if (Awkward(text, i, length))
      return true;
  }
  return false;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

// Reads one line into `line` (its "\n" included): up to kMaxRecordLine
// bytes, a longer line arriving in pieces. A NUL byte ends the line's text;
// the bytes after it up to the line's end are read and dropped. False at end
// of file with nothing read.
bool ReadRecordLine(FILE* stream, std::string& line) {
  line.clear();
  char chunk[kLoadChunk];
  bool any = false, cut = false;
  size_t taken = 0;
  while (taken < kMaxRecordLine) {
    size_t room = std::min(sizeof chunk, kMaxRecordLine - taken + 1);
    chunk[room - 1] = 'x';  // fgets puts its terminator here only when it fills the chunk
    if (!std::fgets(chunk, static_cast<int>(room), stream))
      break;
    any = true;
    size_t n = std::strlen(chunk);
    if (!cut)
      line.append(chunk, n);
    bool full = chunk[room - 1] == '\0' && chunk[room - 2] != '\n';
    if (!full)
      break;
    taken += room - 1;
    cut = cut || n < room - 1;
  }
  return any;
}

// The header lines the run writes; each is skipped whatever follows its tag.
constexpr const char* kHeaderTags[] = {"SCMType=", "ModuleRootDir=", "MachineName=",
                                       "BuildLabel=", "BuildNumber="};

bool IsNumberWord(std::string word) {
  StripChar(word, " ", 2);
  size_t i = !word.empty() && (word[0] == '-' || word[0] == '+') ? 1 : 0;
  if (i >= word.size())
    return false;
  for (; i < word.size(); ++i) {
    if (word[i] < '0' || word[i] > '9')
      return false;
  }
  return true;
}

// True for a line that is not a record: a header tag at its start, or a "="
// in a line without a record's shape (the size and time fields numbers).
bool IsHeaderLine(const char* line) {
  for (const char* tag : kHeaderTags) {
    if (std::strncmp(line, tag, std::strlen(tag)) == 0)
      return true;
  }
  if (!std::strchr(line, '='))
    return false;
  return !(IsNumberWord(GetWord(line, ";", 3, 3)) && IsNumberWord(GetWord(line, ";", 4, 4)));
}

// The fields of one record line, decoded.
struct RecordLine {
  std::string words[6];  // dir, name, size, mtime, digest, version
  int count = 0;         // words read (reading stops at the first empty one)
  std::string path;      // dir + "/" + name, "/" for "\\"; empty without a name
};

// Splits a record line (already stripped) into its fields: the first six
// runs of bytes other than ";" (GetWord's words), each trimmed of blanks and
// decoded.
void ParseRecordLine(const char* line, RecordLine* record) {
  record->count = 0;
  const char* p = line;
  while (record->count < 6) {
    while (*p == ';')
      ++p;
    if (*p == '\0')
      break;
    const char* begin = p;
    while (*p != '\0' && *p != ';')
      ++p;
    std::string& word = record->words[record->count++];
    word.assign(begin, static_cast<size_t>(p - begin));
    StripChar(word, " ", 2);
    if (word.find('\\') != std::string::npos)
      word = DecodeField(word);
  }
  for (int i = record->count; i < 6; ++i)
    record->words[i].clear();
  record->path.clear();
  if (record->count >= 2) {
    record->path.assign(record->words[0]).append("/").append(record->words[1]);
    ReplaceSlash(record->path);
  }
}

// The record of a parsed line, made in tree's arena. The module root and the
// version are mostly the same for every line and are shared.
FileNode* MakeRecord(Bintree* tree, const RecordLine& record) {
  FileNode* node =
      NewFileNodeIn(tree, record.path.c_str(), record.words[0].c_str(), record.words[1].c_str());
  node->size = ParseNumber(record.words[2]);
  node->mtime = ParseNumber(record.words[3]);
  // The record has room for a digest of the usual length; a longer text
  // gets a block of its own.
  if (record.words[4].size() <= kDigestLength)
    safe_cpy(&node->digest, record.words[4].c_str());
  else
    node->digest = BintreeText(tree, record.words[4].c_str());
  node->version = BintreeSharedText(tree, record.words[5].c_str());
  return node;
}

// True when the inventory `name` records work_dir as its root before any
// line naming the machine.
bool RootMatchesWorkDir(const char* name, const std::string& work_dir) {
  DigestStream file;
  if (!file.Open(name))
    return false;
  char line[kHeaderLineSize];
  while (std::fgets(line, sizeof line, file.get())) {
    StripChar(line, " \t\r\n", 2);
    const char* root = std::strstr(line, kModuleRootTag);
    if (root && IsEqual(root + std::strlen(kModuleRootTag), work_dir.c_str(), 0))
      return true;
    if (std::strstr(line, "MachineName"))
      return false;
  }
  return false;
}

}  // namespace

std::string EncodeField(const char* text) {
  std::string out;
  size_t length = std::strlen(text);
  for (size_t i = 0; i < length; ++i) {
    if (Awkward(text, i, length)) {
      auto byte = static_cast<unsigned char>(text[i]);
      out += '\\';
      out += 'x';
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 15];
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string DecodeField(const std::string& field) {
  if (field.find('\\') == std::string::npos)
    return field;
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    int high = -1, low = -1;
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] == 'x') {
      high = HexValue(field[i + 2]);
      low = HexValue(field[i + 3]);
    }
    if (high >= 0 && low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

void RecordWriter::Line(const char* format, const FileNode* node) {
  // The inventory's format, alone or after a change report's "X;", is put
  // together here: the same bytes as printf makes, without parsing the
  // format for every record.
  size_t prefix = std::strcmp(format, kInventoryRecordFormat) == 0 ? 0 : 3;
  if (prefix == 3 && format[0] != '\0' && format[1] == ';' &&
      std::strcmp(format + 2, kInventoryRecordFormat) == 0)
    prefix = 2;
  if (prefix == 3) {
    const char* texts[] = {node->dir, node->name, node->digest, node->version};
    std::string encoded[4];
    for (int i = 0; i < 4; ++i) {
      if (NeedsEncoding(texts[i])) {
        encoded[i] = EncodeField(texts[i]);
        texts[i] = encoded[i].c_str();
      }
    }
    Flush();
    std::fprintf(stream_, format, texts[0], texts[1], static_cast<long>(node->size),
                 static_cast<long>(node->mtime), texts[2], texts[3]);
    return;
  }
  buffer_.append(format, prefix);
  Field(node->dir);
  buffer_ += ';';
  Field(node->name);
  buffer_ += ';';
  Number(node->size);
  buffer_ += ';';
  Number(node->mtime);
  buffer_ += "; ";
  Field(node->digest);
  buffer_ += "; ";
  Field(node->version);
  buffer_ += ";\n";
  if (buffer_.size() >= kFlushAt)
    Flush();
}

void RecordWriter::Field(const char* text) {
  const size_t length = std::strlen(text);
  // Ordinary fields go out as they are.
  if (std::strcspn(text, ";\\\n\r") == length &&
      (length == 0 || (text[0] != ' ' && text[length - 1] != ' ')))
    buffer_.append(text, length);
  else
    buffer_ += EncodeField(text);
}

void RecordWriter::Number(int64_t value) {
  char digits[24];
  char* end = std::to_chars(digits, digits + sizeof digits, static_cast<long>(value)).ptr;
  buffer_.append(digits, static_cast<size_t>(end - digits));
}

void RecordWriter::Flush() {
  if (!buffer_.empty())
    std::fwrite(buffer_.data(), 1, buffer_.size(), stream_);
  buffer_.clear();
}

void WriteRecordLine(FILE* stream, const char* format, const FileNode* node) {
  RecordWriter writer(stream);
  writer.Line(format, node);
}

void WriteInventory(FILE* stream, const InventoryHeader& header, Bintree* tree) {
  if (header.scm_type)
    std::fprintf(stream, "SCMType=%s\n", header.scm_type);
  if (!header.module_root.empty()) {
    std::string root;
    for (char c : header.module_root) {
      if (c == '\n' || c == '\r')
        root += c == '\n' ? "\\x0a" : "\\x0d";
      else
        root += c;
    }
    std::fprintf(stream, "ModuleRootDir=%s\n", root.c_str());
  }
  if (header.machine)
    std::fprintf(stream, "MachineName=%s\n", header.machine);
  std::fprintf(stream, "BuildLabel=%s\n", header.build_label);
  if (header.build_number)
    std::fprintf(stream, "BuildNumber=%s\n", header.build_number);
  RecordWriter writer(stream);
  BintreeCursor records(tree);
  while (auto* node = static_cast<const FileNode*>(records.Next()))
    writer.Line(kInventoryRecordFormat, node);
}

int WriteFileTree(void* record, uint32_t /*depth*/, void* arg) {
  WriteRecordLine(static_cast<FILE*>(arg), kInventoryRecordFormat,
                  static_cast<const FileNode*>(record));
  return 0;
}

FILE* OpenInventory(const char* fileName) {
  auto file = std::make_unique<DigestStream>();
  if (!file->Open(fileName))
    return nullptr;
  FILE* stream = file->get();
  // The inventory read stays open until the process ends.
  HoldUntilExit(std::move(file));
  return stream;
}

void ReadInventory(Bintree* tree, FILE* stream) {
  std::string text;
  RecordLine record;
  while (ReadRecordLine(stream, text)) {
    const char* line = StripChar(text, "\n\r ", 1).c_str();
    if (IsHeaderLine(line))
      continue;
    ParseRecordLine(line, &record);
    // A refused record (its key is there already) stays unused in the arena.
    (void)InsBintree(tree, MakeRecord(tree, record));
  }
}

void LoadFileTree(Bintree* tree, const char* fileName) {
  if (!fileName || !*fileName)
    return;
  std::printf(kLoadingFormat, fileName);
  FILE* stream = OpenInventory(fileName);
  if (!stream) {
    std::printf(kCouldNotOpenFormat, fileName);
    return;
  }
  ReadInventory(tree, stream);
}

void CloseLoadedInventories() { HeldUntilExit<std::unique_ptr<DigestStream>>().clear(); }

void FindOldFileName(const char* newName, std::string& nameBuffer, const std::string& workDir) {
  std::string pattern = nameBuffer;
  ReplaceSlash(pattern);
  nameBuffer.clear();

  size_t star = pattern.find('*');
  if (star == std::string::npos)
    return;
  const std::string prefix = pattern.substr(0, star);

  UniqueDir listing(opendir("."));
  if (!listing)
    return;

  std::string best;
  struct stat status {};
  std::string entry_path;
  while (dirent* entry = readdir(listing.get())) {
    const char* name = entry->d_name;
    entry_path.assign("./").append(name);
    // A failed lstat leaves the previous entry's status in place.
    struct stat probe;
    if (lstat(entry_path.c_str(), &probe) == 0)
      status = probe;
    if (status.st_mode & kDirectoryBit)
      continue;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0)
      continue;
    // ".bom.data" with a full stop: the names this program writes end in
    // "-bom.data" and so are found only when the job or machine name holds
    // ".bom.data". Kept as it is.
    if (!std::strstr(name, kInventoryTag))
      continue;
    if (std::strcmp(name, best.c_str()) <= 0)
      continue;
    if (newName && std::strcmp(name, newName) == 0)
      continue;
    // best advances before the content is looked at: a greater name whose
    // root does not match hides smaller matching names listed after it.
    best = name;
    if (RootMatchesWorkDir(best.c_str(), workDir))
      nameBuffer = best;
  }
}
