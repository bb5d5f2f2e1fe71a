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
// - A record's `lesser` subtree holds keys that compare smaller than its own;
//   its `greater` subtree holds keys that compare greater or (when the tree
//   allows duplicates) equal. Equal keys therefore sit in insertion order.
// - The shape is exactly the one the plain descent from the root gives: no
//   balancing, so keys inserted in sorted order form a chain, and
//   DestroyBintree releases records in the order "root, then whatever
//   replaced it". Sorted input is appended at the greatest (or least) record
//   without a descent; lookups use an array of the records in walk order,
//   built when first needed and searched from where the last lookup ended
//   (so ascending lookups cost O(1) each); a shape that makes a descent long
//   switches the tree to a full ordered index. None of this changes where a
//   record is linked.
// - The tree owns nothing but its arena: DestroyBintree frees the records
//   (after the caller's release function), the records and texts made from
//   the tree's arena (NewBintreeRecord, BintreeText, BintreeSharedText) all
//   at once, and the Bintree itself; the caller frees the head record.
// - No operation recurses: walks use explicit heap stacks, so a chain of any
//   length is safe, and no operation's cost grows with the tree's height.
// - The comparator must order keys consistently (a total order on key texts)
//   and must not change while records are linked; a record's key must not be
//   changed while the record is linked. Visitors must not insert into or
//   delete from the tree being walked.
// - Allocation failure anywhere in the tree prints "Out of memory (tmalloc)"
//   and ends the process with status 1, as tmalloc does.
// - No locks, and trees share no state: different threads may each work on
//   their own tree. Walks and cursors only read a tree, so several may run
//   on one tree at once while nothing else touches it; lookups
//   (FindBintree, FindKey) update the lookup aids and count as changes.

#include <cstddef>
#include <cstdint>
#include <vector>

struct BintreeNode {
  BintreeNode* greater;  // keys greater than this one (and equal ones, when allowed)
  BintreeNode* lesser;   // keys smaller than this one
  char* key;             // safe string (see support/strings.h)
};

// compare(probe, node): negative when the probe's key sorts before the
// node's, 0 when equal, positive after. Only the sign is used. May read only
// the `key` field of the probe (FindKey's probe has nothing else).
using BintreeCompare = int32_t (*)(const void* probe, const void* node);
// Visitors; their results are ignored.
using BintreeVisit = int (*)(void* record, uint32_t depth, void* arg);
using BintreeVisit4 = int (*)(void* record, void* a1, void* a2, void* a3, void* a4);
using BintreeVisit8 = int (*)(void* record, void* a1, void* a2, void* a3, void* a4, void* a5,
                              void* a6, int32_t a7, void* a8);
using BintreeRelease = void (*)(void* record);

struct BintreeIndex;  // internal lookup aids (support/bintree.cc)

struct Bintree {
  BintreeNode* head;  // head record; head->greater is the root
  BintreeCompare compare;
  int32_t allowDuplicates;  // 0: an equal key is refused
  uint16_t nodeSize;        // recorded only; no operation reads it
  BintreeIndex* index;      // internal; never touch
};

// New tree over `head` (a record made with InitBintreeNode whose links are
// normally null). The Bintree block comes from tmalloc and is freed by
// DestroyBintree. A null `head` gets a bare head record that the tree owns and
// DestroyBintree frees. Records already hanging from head->greater are taken
// over as they are.
Bintree* NewBintree(void* head, BintreeCompare compare, int32_t allowDuplicates, uint16_t nodeSize);

// New zero-filled record of `size` bytes from tmalloc; free with tfree. The
// size is a signed 16-bit value as in the old record layouts: a negative size,
// or one smaller than BintreeNode, yields a zeroed record of exactly
// sizeof(BintreeNode) bytes, so the links and the key can always be written.
void* InitBintreeNode(int16_t size);

// Records and texts from the tree's arena, made when first needed and
// released at once by DestroyBintree: far less memory than a heap block per
// record and text, and no free per block. Such a record may be linked into
// this tree only; tfree and safe_free leave arena blocks alone, so the usual
// release function (which frees texts a later safe_cpy moved to the heap)
// still serves. Not for the head record.
// A zero-filled record of `size` bytes as InitBintreeNode makes it, aligned
// for pointers and 64-bit numbers.
void* NewBintreeRecord(Bintree* tree, int16_t size);
// A safe string holding text with capacity max(strlen(text), capacity),
// written in place by safe_cpy while the new text fits.
char* BintreeText(Bintree* tree, const char* text, size_t capacity = 0);
// A shared safe string holding text: equal texts asked for in a row (such as
// every record's module root) get one block. Never written: safe_cpy and
// safe_cat give the record a heap copy first.
char* BintreeSharedText(Bintree* tree, const char* text);

// Link `record` where the descent from the root puts it: smaller keys to
// `lesser`, greater (and, when allowed, equal) keys to `greater`.
// Returns 0 when linked in; -1 when refused (the tree is unchanged and the
// record, untouched, stays with the caller, who must free it). Refused are:
// a key equal to one in the tree when duplicates are not allowed, and a
// record that is already linked in this tree (or is its head). A linked
// record's own links are set to null first: they must be null anyway, and a
// record handed back by DelBintree still carries its old ones.
int InsBintree(Bintree* tree, void* record);

// InsBintree with the descent begun at `hint` instead of the root: same
// result, same links. `hint` must be a linked record that lies on the path
// the plain descent from the root takes for this record's key (for example
// the topmost record of a key range that holds the new key); null means the
// root.
int InsBintreeFrom(Bintree* tree, void* hint, void* record);

// The first record on the search path from the root whose key compares equal
// to the probe's (with duplicates, the earliest of the equal ones in walk
// order, which is the one nearest the root), or null.
void* FindBintree(Bintree* tree, const void* probe);

// FindBintree with a probe whose key is `key` (null is taken as "").
void* FindKey(Bintree* tree, const char* key);

// Insert a bare record (links and key only, sizeof(BintreeNode) bytes)
// holding a safe-string copy of `key`. Returns InsBintree's result; on -1 the
// copy and the record are freed again. Release linked ones with a function
// that safe_frees the key (for example FreeBNode).
int LoadKey(Bintree* tree, const char* key);

// Unlink the record FindBintree would return and hand it back (not freed; its
// own links keep their old values), or null when no key matches. The
// replacement: a record without a greater child is replaced by its lesser
// subtree; otherwise a greater child without a lesser child takes its place
// and adopts its lesser subtree; otherwise the smallest record of the greater
// subtree is moved into its place (its parent adopts its greater subtree).
void* DelBintree(Bintree* tree, const void* probe);

// In-order walk (ascending keys, equal keys in insertion order):
// visit(record, depth, arg), the root at depth 0 and each level one deeper.
// Returns -1 for an empty tree or a null tree/visitor (visit never called),
// else 0 after visiting every record once.
int WalkBintree(Bintree* tree, BintreeVisit visit, void* arg);

// The same order as WalkBintree, with four pass-through arguments and no
// depth. -1 for an empty tree, else 0.
int WalkWildCardBintree(Bintree* tree, BintreeVisit4 visit, void* a1, void* a2, void* a3, void* a4);

// The records in walk order one at a time, so that two trees can be walked
// side by side (one merge of two ascending sequences). The tree must not
// change while the cursor is in use. Null is an empty tree.
class BintreeCursor {
 public:
  explicit BintreeCursor(Bintree* tree);
  // The next record, or null after the last.
  void* Next();

 private:
  std::vector<BintreeNode*> pending_;  // records whose greater side is still to come
  BintreeNode* node_;                  // the next subtree to descend, or null
};

// Post-order walk: a record's lesser subtree, then its greater subtree, then
// the record; children always come before their parent and the root last.
// -1 for an empty tree, else 0.
int WalkDepBintree(Bintree* tree, BintreeVisit8 visit, void* a1, void* a2, void* a3, void* a4,
                   void* a5, void* a6, int32_t a7, void* a8);

// Remove the root until the tree is empty; for each removed record call
// release(record) (when release is not null) and then tfree it. Finally free
// the Bintree (and the head record only if NewBintree made it). The head
// record passed to NewBintree is not freed. Null is ignored.
void DestroyBintree(Bintree* tree, BintreeRelease release);

// Case-sensitive byte order of the two keys: the sign of CompareTo(probe key,
// node key, 1) (the value itself may differ).
// A null key compares as "".
int32_t CompareFunc(const void* probe, const void* node);
