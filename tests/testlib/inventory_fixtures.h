#pragma once
// Fixtures for tests of file records and the trees that hold them.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "inventory/filenode.h"
#include "support/bintree.h"

namespace wltest {

// The fields of one FileNode, copied out for comparison.
struct RecordFields {
  std::string path, dir, name, version, digest;
  int64_t mtime = 0;
  int64_t size = 0;
  bool operator==(const RecordFields&) const = default;
};
std::ostream& operator<<(std::ostream& os, const RecordFields& r);

// A FileNode tree as the run makes it (head record with empty texts,
// CompareFunc, duplicates refused); destroys records and head on exit.
class ScopedFileTree {
 public:
  ScopedFileTree();
  ~ScopedFileTree();
  ScopedFileTree(const ScopedFileTree&) = delete;
  ScopedFileTree& operator=(const ScopedFileTree&) = delete;

  Bintree* get() const { return tree_; }
  // Inserts a record with path = dir + "/" + name; returns it.
  FileNode* Add(const std::string& dir, const std::string& name, int64_t size, int64_t mtime,
                const std::string& digest, const std::string& version = "");
  // Every record in walk (ascending key) order.
  std::vector<RecordFields> Records() const;
  std::vector<std::string> Keys() const;

 private:
  FileNode* head_;
  Bintree* tree_;
};

}  // namespace wltest
