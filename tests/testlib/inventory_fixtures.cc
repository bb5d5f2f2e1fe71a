#include "testlib/inventory_fixtures.h"

#include "support/strings.h"

namespace wltest {

std::ostream& operator<<(std::ostream& os, const RecordFields& r) {
  return os << "{path=\"" << r.path << "\" dir=\"" << r.dir << "\" name=\"" << r.name
            << "\" size=" << r.size << " mtime=" << r.mtime << " digest=\"" << r.digest
            << "\" version=\"" << r.version << "\"}";
}

ScopedFileTree::ScopedFileTree()
    : head_(NewFileNode("")),
      tree_(NewBintree(head_, CompareFunc, 0, static_cast<uint16_t>(sizeof(FileNode)))) {}

ScopedFileTree::~ScopedFileTree() {
  DestroyBintree(tree_, FreeFileNode);
  FreeFileNode(head_);
  tfree(head_);
}

FileNode* ScopedFileTree::Add(const std::string& dir, const std::string& name, int64_t size,
                              int64_t mtime, const std::string& digest,
                              const std::string& version) {
  FileNode* node = NewFileNode((dir + "/" + name).c_str());
  safe_cpy(&node->dir, dir.c_str());
  safe_cpy(&node->name, name.c_str());
  safe_cpy(&node->digest, digest.c_str());
  safe_cpy(&node->version, version.c_str());
  node->size = size;
  node->mtime = mtime;
  if (InsBintree(tree_, node) != 0) {
    FreeFileNode(node);
    tfree(node);
    return nullptr;
  }
  return node;
}

std::vector<RecordFields> ScopedFileTree::Records() const {
  std::vector<RecordFields> out;
  WalkBintree(
      tree_,
      [](void* record, uint32_t, void* arg) -> int {
        auto* n = static_cast<FileNode*>(record);
        static_cast<std::vector<RecordFields>*>(arg)->push_back(
            {n->path, n->dir, n->name, n->version, n->digest, n->mtime, n->size});
        return 0;
      },
      &out);
  return out;
}

std::vector<std::string> ScopedFileTree::Keys() const {
  std::vector<std::string> keys;
  for (const auto& r : Records()) keys.push_back(r.path);
  return keys;
}

}  // namespace wltest
