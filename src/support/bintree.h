#pragma once
// Ordered tree: a plain, unbalanced binary search tree of caller-allocated
// records whose first payload field is the key text.
//
// Invariants:
// - Every record begins with the two links `greater` and `lesser`, then the
//   key pointer (a NUL-terminated text). Records are made with
//   InitBintreeNode (zero-filled) and freed with tfree.
// - The head record's `greater` link holds the root; its `lesser` link is
//   never written by the tree.
// - The shape is exactly the one the plain descent gives: no balancing, so
//   keys inserted in sorted order form a chain. An ordered index kept inside
//   the tree finds the insertion point and answers lookups without walking
//   such a chain; it never changes where a record is linked.
// - The tree owns nothing: DestroyBintree frees the records (after the
//   caller's release function) and the Bintree itself, the caller frees the
//   head record.
// - No operation recurses: walks and destruction use explicit stacks, so a
//   chain of any length is safe.

#include <cstdint>

struct BintreeNode {
  BintreeNode* greater;  // keys greater than this one (and equal ones, when allowed)
  BintreeNode* lesser;   // keys smaller than this one
  char* key;             // safe string (see support/strings.h)
};

// compare(probe, node): negative, 0 or positive. May read only the `key`
// field of the probe.
using BintreeCompare = int32_t (*)(const void* probe, const void* node);
// Visitors; their results are ignored.
using BintreeVisit = int (*)(void* record, uint32_t depth, void* arg);
using BintreeVisit4 = int (*)(void* record, void* a1, void* a2, void* a3, void* a4);
using BintreeVisit8 = int (*)(void* record, void* a1, void* a2, void* a3, void* a4, void* a5,
                              void* a6, int32_t a7, void* a8);
using BintreeRelease = void (*)(void* record);

struct BintreeIndex;  // internal ordered index

struct Bintree {
  BintreeNode* head;
  BintreeCompare compare;
  int32_t allowDuplicates;
  uint16_t nodeSize;  // recorded only
  BintreeIndex* index;
};

// New tree over `head` (a record made with InitBintreeNode).
Bintree* NewBintree(void* head, BintreeCompare compare, int32_t allowDuplicates, uint16_t nodeSize);
// New zero-filled record of `size` bytes (a signed 16-bit size, as in the
// old record layouts); free with tfree.
void* InitBintreeNode(int16_t size);
// 0 when linked in; -1 when refused as a duplicate (tree unchanged, the
// record stays with the caller).
int InsBintree(Bintree* tree, void* record);
// The first record on the search path whose key equals the probe's, or null.
void* FindBintree(Bintree* tree, const void* probe);
// FindBintree with a probe whose key is `key`.
void* FindKey(Bintree* tree, const char* key);
// Insert a bare record (links and key) holding a copy of `key`; 0 or -1.
int LoadKey(Bintree* tree, const char* key);
// Unlink the matching record and return it (not freed), or null.
void* DelBintree(Bintree* tree, const void* probe);
// In-order walk; visit(record, depth, arg) with the root at depth 0.
// -1 for an empty tree (visit never called), else 0.
int WalkBintree(Bintree* tree, BintreeVisit visit, void* arg);
int WalkWildCardBintree(Bintree* tree, BintreeVisit4 visit, void* a1, void* a2, void* a3, void* a4);
// Post-order walk: lesser, greater, then the record.
int WalkDepBintree(Bintree* tree, BintreeVisit8 visit, void* a1, void* a2, void* a3, void* a4,
                   void* a5, void* a6, int32_t a7, void* a8);
// Remove the root until the tree is empty, calling release(record) and then
// freeing each record; then free the Bintree. Null is ignored.
void DestroyBintree(Bintree* tree, BintreeRelease release);
// Case-sensitive byte order of the two keys (CompareTo with flag 1).
int32_t CompareFunc(const void* probe, const void* node);
