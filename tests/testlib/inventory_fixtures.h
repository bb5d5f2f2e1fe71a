#pragma once
// Fixtures for tests of digests, file records and the trees that hold them.

#include <cstdint>
#include <string>
#include <vector>

#include "inventory/filenode.h"
#include "support/bintree.h"
#include "support/strings.h"

namespace wltest {

// Digest texts of "" and "abc".
inline const std::string kEmptyDigest = "e4c23762" + std::string(24, '0');
inline const std::string kAbcDigest = "a5bfcc84" + std::string(24, '0');

// The fields of one FileNode, copied out.
struct RecordFields {
  std::string path, dir, name, version, digest;
  int64_t mtime = 0, size = 0;
};

// A FileNode tree as the run makes it (head record with empty texts,
// CompareFunc, duplicates refused); destroys records and head on exit.
class ScopedFileTree {
 public:
  ScopedFileTree()
      : head_(NewFileNode("")),
        tree_(NewBintree(head_, CompareFunc, 0, static_cast<uint16_t>(sizeof(FileNode)))) {}
  ~ScopedFileTree() {
    DestroyBintree(tree_, FreeFileNode);
    FreeFileNode(head_);
    tfree(head_);
  }
  ScopedFileTree(const ScopedFileTree&) = delete;
  ScopedFileTree& operator=(const ScopedFileTree&) = delete;
  Bintree* get() const { return tree_; }

  // Inserts a record with path = dir + "/" + name (the key must be new).
  void Add(const std::string& dir, const std::string& name, int64_t size_and_time,
           const std::string& digest, const std::string& version) {
    FileNode* node = NewFileNode((dir + "/" + name).c_str());
    safe_cpy(&node->dir, dir.c_str());
    safe_cpy(&node->name, name.c_str());
    safe_cpy(&node->digest, digest.c_str());
    safe_cpy(&node->version, version.c_str());
    node->size = node->mtime = size_and_time;
    InsBintree(tree_, node);
  }

  // Every record in walk (ascending key) order.
  std::vector<RecordFields> Records() const {
    std::vector<RecordFields> out;
    auto visit = [](void* record, uint32_t, void* arg) -> int {
      auto* n = static_cast<FileNode*>(record);
      static_cast<std::vector<RecordFields>*>(arg)->push_back(
          {n->path, n->dir, n->name, n->version, n->digest, n->mtime, n->size});
      return 0;
    };
    WalkBintree(tree_, visit, &out);
    return out;
  }

  // One "key|dir|name|size|mtime|digest|version\n" line per record.
  std::string Text() const {
    std::string text;
    for (const auto& r : Records())
      text += r.path + "|" + r.dir + "|" + r.name + "|" + std::to_string(r.size) + "|" +
              std::to_string(r.mtime) + "|" + r.digest + "|" + r.version + "\n";
    return text;
  }

 private:
  FileNode* head_;
  Bintree* tree_;
};

}  // namespace wltest
