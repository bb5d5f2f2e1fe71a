#include "inventory/inventory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "driver/settings.h"
#include "inventory/digest.h"
#include "inventory/filenode.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

constexpr size_t kLoadLineSize = 4096;    // line pieces of LoadFileTree
constexpr size_t kHeaderLineSize = 1024;  // lines examined by FindOldFileName
constexpr mode_t kDirectoryBit = 0x4000;
constexpr char kModuleRootTag[] = "ModuleRootDir=";
constexpr char kInventoryTag[] = ".bom.data";

// Inventories read by LoadFileTree stay open until the process ends; they
// are closed when this holder is destroyed at exit.
std::vector<std::unique_ptr<DigestStream>>& KeptOpenFiles() {
  static std::vector<std::unique_ptr<DigestStream>> files;
  return files;
}

long ParseNumber(const std::string& word) {
  return std::strtol(word.c_str(), nullptr, 10);
}

// Fills one record from a record line (already stripped).
void ParseRecordLine(const char* line, FileNode* node) {
  std::string path;
  for (int i = 1; i <= 6; ++i) {
    std::string word = GetWord(line, ";", i, i);
    if (word.empty()) break;
    StripChar(word, " ", 2);
    switch (i) {
      case 1:
        safe_cpy(&node->dir, word.c_str());
        break;
      case 2:
        safe_cpy(&node->name, word.c_str());
        path.assign(node->dir).append("/").append(node->name);
        ReplaceSlash(path);
        safe_cpy(&node->path, path.c_str());
        break;
      case 3:
        node->size = ParseNumber(word);
        break;
      case 4:
        node->mtime = ParseNumber(word);
        break;
      case 5:
        safe_cpy(&node->digest, word.c_str());
        break;
      default:
        safe_cpy(&node->version, word.c_str());
        break;
    }
  }
}

// True when the inventory `name` records WorkDir as its root before any
// line naming the machine.
bool RootMatchesWorkDir(const char* name) {
  DigestStream file;
  if (!file.Open(name)) return false;
  char line[kHeaderLineSize];
  while (std::fgets(line, sizeof line, file.get())) {
    StripChar(line, " \t\r\n", 2);
    const char* root = std::strstr(line, kModuleRootTag);
    if (root && IsEqual(root + std::strlen(kModuleRootTag), WorkDir.c_str(), 0)) return true;
    if (std::strstr(line, "MachineName")) return false;
  }
  return false;
}

}  // namespace

int WriteFileTree(void* record, uint32_t /*depth*/, void* arg) {
  const auto* node = static_cast<const FileNode*>(record);
  std::fprintf(static_cast<FILE*>(arg), kInventoryRecordFormat, node->dir, node->name,
               static_cast<long>(node->size), static_cast<long>(node->mtime), node->digest,
               node->version);
  return 0;
}

void LoadFileTree(Bintree* tree, const char* fileName) {
  if (!fileName || !*fileName) return;
  std::printf("Loading comparison data: %s\n", fileName);
  auto file = std::make_unique<DigestStream>();
  if (!file->Open(fileName)) {
    std::printf("Could not open %s\n", fileName);
    return;
  }
  FILE* stream = file->get();
  KeptOpenFiles().push_back(std::move(file));

  char line[kLoadLineSize];
  while (std::fgets(line, sizeof line, stream)) {
    StripChar(line, "\n\r ", 1);
    if (std::strchr(line, '=')) continue;
    FileNode* node = NewFileNode(nullptr);
    ParseRecordLine(line, node);
    if (InsBintree(tree, node) != 0) {
      FreeFileNode(node);
      tfree(node);
    }
  }
}

void FindOldFileName(const char* newName, std::string& nameBuffer) {
  std::string pattern = nameBuffer;
  ReplaceSlash(pattern);
  nameBuffer.clear();

  size_t star = pattern.find('*');
  if (star == std::string::npos) return;
  const std::string prefix = pattern.substr(0, star);

  UniqueDir listing(opendir("."));
  if (!listing) return;

  std::string best;
  struct stat status {};
  std::string entry_path;
  while (dirent* entry = readdir(listing.get())) {
    const char* name = entry->d_name;
    entry_path.assign("./").append(name);
    // A failed lstat leaves the previous entry's status in place.
    struct stat probe;
    if (lstat(entry_path.c_str(), &probe) == 0) status = probe;
    if (status.st_mode & kDirectoryBit) continue;
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
    // ".bom.data" with a full stop: the names this program writes end in
    // "-bom.data" and so are found only when the job or machine name holds
    // ".bom.data". Kept as it is.
    if (!std::strstr(name, kInventoryTag)) continue;
    if (std::strcmp(name, best.c_str()) <= 0) continue;
    if (newName && std::strcmp(name, newName) == 0) continue;
    // best advances before the content is looked at: a greater name whose
    // root does not match hides smaller matching names listed after it.
    best = name;
    if (RootMatchesWorkDir(best.c_str())) nameBuffer = best;
  }
}
