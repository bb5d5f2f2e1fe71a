#pragma once
// File and directory records held by the ordered trees.
//
// FileNode and DirNode are plain records made zero-filled by InitBintreeNode
// and freed with tfree (by DestroyBintree for linked records, by the owner for
// head records), or made in a tree's arena (NewFileNodeIn) and released with
// the tree. Their text fields are safe strings (support/strings.h).

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "support/bintree.h"

// The record's detail area. In the inventory record layout this is an 8 KiB
// text area that is zero when the record is made and that no operation reads
// or writes afterwards; it is kept as a member of no size, so that a tree of a
// million records does not pay 8 GiB for it.
struct FileNodeDetail {};

struct FileNode {
  BintreeNode* greater;  // tree links (see support/bintree.h)
  BintreeNode* lesser;
  char* path;     // tree key: dir + "/" + name, forward slashes
  char* dir;      // module root directory (the same for every record)
  char* name;     // path relative to the module root
  char* version;  // SCM version, empty when none
  char* digest;   // 32 lowercase hex characters, empty when not examined
  int64_t mtime;  // seconds since the epoch, 0 when unknown
  int64_t size;   // bytes, 0 when unknown
  [[no_unique_address]] FileNodeDetail detail;
};

// The tree reads a record's key through the BintreeNode prefix.
static_assert(std::is_standard_layout_v<FileNode> && std::is_trivially_copyable_v<FileNode>);
static_assert(offsetof(FileNode, path) == offsetof(BintreeNode, key));
static_assert(sizeof(FileNode) <= 80, "detail must not take space in the record");

struct DirNode {
  BintreeNode* greater;
  BintreeNode* lesser;
  char* key;  // directory path
};

static_assert(offsetof(DirNode, key) == offsetof(BintreeNode, key));

// A new record: path = key (or empty for null), the other texts empty,
// numbers 0, detail zero. Free with FreeFileNode then tfree.
FileNode* NewFileNode(const char* key);
// Digest texts hold this many characters (or none).
inline constexpr size_t kDigestLength = 32;
// A record from tree's arena (see NewBintreeRecord), not linked: path = key,
// dir the tree's shared text of dir (the same for every record), name =
// name, version the shared empty text, digest empty with room for
// kDigestLength characters (so that storing it takes no allocation), numbers
// 0. Null texts are taken as "". FreeFileNode then tfree may be called on it
// as on any record: both leave the arena's blocks alone.
FileNode* NewFileNodeIn(Bintree* tree, const char* key, const char* dir, const char* name);
// Release the five texts and zero the record (not its block). Null ignored.
void FreeFileNode(void* record);
// Release a DirNode's key and zero it (not its block). Null ignored.
void FreeBNode(void* record);
