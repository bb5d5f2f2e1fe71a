#include "inventory/filenode.h"

#include <cstring>

#include "support/strings.h"

FileNode* NewFileNode(const char* key) {
  auto* node = static_cast<FileNode*>(InitBintreeNode(static_cast<int16_t>(sizeof(FileNode))));
  safe_cpy(&node->path, key ? key : "");
  safe_cpy(&node->dir, "");
  safe_cpy(&node->name, "");
  safe_cpy(&node->version, "");
  safe_cpy(&node->digest, "");
  // detail, mtime and size are zero from InitBintreeNode.
  return node;
}

FileNode* NewFileNodeIn(Bintree* tree, const char* key, const char* dir, const char* name) {
  auto* node = static_cast<FileNode*>(NewBintreeRecord(tree, static_cast<int16_t>(sizeof(FileNode))));
  node->path = BintreeText(tree, key);
  node->dir = BintreeSharedText(tree, dir);
  node->name = BintreeText(tree, name);
  node->version = BintreeSharedText(tree, "");
  node->digest = BintreeText(tree, "", kDigestLength);
  return node;
}

void FreeFileNode(void* record) {
  if (!record)
    return;
  auto* node = static_cast<FileNode*>(record);
  safe_free(&node->path);
  safe_free(&node->dir);
  safe_free(&node->name);
  safe_free(&node->version);
  safe_free(&node->digest);
  std::memset(node, 0, sizeof *node);
}

void FreeBNode(void* record) {
  if (!record)
    return;
  auto* node = static_cast<DirNode*>(record);
  safe_free(&node->key);
  std::memset(node, 0, sizeof *node);
}
