#include "inventory/scan.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "inventory/digest.h"
#include "inventory/filenode.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

// The single test the scan makes on a mode: this bit is set for directories
// but also for block devices and sockets, which is why those are treated as
// directories (and then fail to open as one).
constexpr mode_t kDirectoryBit = 0x4000;

// Makes the record of curDir/entryName and links it into tree; null when the
// key is already present (the new record is then released). `full` receives
// the file's path with forward slashes.
FileNode* LinkRecord(Bintree* tree, const char* rootDir, const char* curDir,
                     const char* entryName, std::string& full) {
  full.assign(curDir).append("/").append(entryName);
  ReplaceSlash(full);
  FileNode* node = NewFileNode(full.c_str());
  if (InsBintree(tree, node) != 0) {
    FreeFileNode(node);
    tfree(node);
    return nullptr;
  }
  safe_cpy(&node->dir, rootDir);
  // The name is what follows the root and its "/". The scan always passes a
  // curDir below rootDir; for anything else the name stays empty.
  size_t skip = std::strlen(rootDir) + 1;
  safe_cpy(&node->name, full.size() > skip ? full.c_str() + skip : "");
  return node;
}

void StoreDigest(FileNode* node, const char* digest_text, const struct stat& status) {
  safe_cpy(&node->digest, digest_text);
  node->mtime = static_cast<int64_t>(status.st_mtime);
  node->size = static_cast<int64_t>(status.st_size);
}

void StoreBatchDigest(void* target, const char* digest_text, const struct stat& status,
                      int /*read_result: a read error still stores the digest*/) {
  StoreDigest(static_cast<FileNode*>(target), digest_text, status);
}

int ScanDirectory(const char* rootDir, const char* curDir, Bintree* tree, DigestBatch& batch) {
  std::string dir(curDir);
  ReplaceSlash(dir);

  std::vector<std::string> names;
  {
    UniqueDir listing(opendir(dir.c_str()));
    if (!listing) return 0;
    while (dirent* entry = readdir(listing.get())) names.emplace_back(entry->d_name);
  }

  int result = 0;
  struct stat status {};
  std::string entry_path;
  std::string full;
  for (const std::string& name : names) {
    entry_path.assign(dir).append("/").append(name);
    // A failed lstat leaves the previous entry's status in place.
    struct stat probe;
    if (lstat(entry_path.c_str(), &probe) == 0) status = probe;

    bool directory = (status.st_mode & kDirectoryBit) != 0;
    if (!directory && name != "harvest.sig") {
      if (FileNode* node = LinkRecord(tree, rootDir, dir.c_str(), name.c_str(), full)) {
        // When the file cannot be opened the record keeps its empty digest
        // and zero numbers.
        (void)batch.Add(full.c_str(), node);
      }
      result = 1;
    } else if (directory && name[0] != '.' && name != "CVS") {
      (void)ScanDirectory(rootDir, entry_path.c_str(), tree, batch);
    }
  }
  return result;
}

}  // namespace

int LoadRecursiveFiles(const char* rootDir, const char* curDir, Bintree* tree) {
  DigestBatch batch(StoreBatchDigest);
  int result = ScanDirectory(rootDir, curDir, tree, batch);
  batch.Finish();
  return result;
}

void Add2FileTree(Bintree* tree, const char* rootDir, const char* curDir, const char* entryName) {
  std::string full;
  FileNode* node = LinkRecord(tree, rootDir, curDir, entryName, full);
  if (!node) return;
  DigestStream file;
  if (!file.Open(full.c_str())) return;
  unsigned char digest[16];
  (void)mdfile(file.get(), digest);  // a read error still stores the digest
  file.Close();
  char text[33];
  StoreDigest(node, print_digest(digest, text), file.status());
}
