#include "support/bintree.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/strings.h"

// The tree keeps its links exactly where the plain descent puts them, so
// sorted input makes a chain as high as the tree is large. To keep every
// operation's cost independent of that shape, an index sits beside the links:
//
// - `order` holds every linked record in walk order (in-order of the links).
//   It is ordered by the tree's comparator; equal keys keep insertion order
//   because multiset::insert places a new element after its equals, exactly
//   as the descent sends an equal key to `greater`. Deletion removes an
//   element without reordering the others, as the link surgery does.
// - `links` maps each linked record to the record whose link holds it (the
//   head for the root) and to its place in `order`, so a record is unlinked
//   without a descent and without comparing keys: DestroyBintree works even
//   after a caller has already cleared the keys.
//
// Facts about the links that the index relies on (keys: lesser < record <=
// greater, which insertion and deletion both preserve):
// - A new key k hangs under its in-order predecessor (the last record whose
//   key is <= k) when that record has no greater child, and otherwise under
//   its in-order successor (the first record whose key is > k), whose lesser
//   link is then free. With no predecessor it is the successor, with neither
//   the tree is empty.
// - The first record on the search path with a key equal to k is the first
//   of the equal records in walk order: the others all lie in its greater
//   subtree.
// - The smallest record of a non-empty greater subtree is the in-order
//   successor.
struct BintreeIndex {
  struct ProbeRef {
    const void* record;
  };
  // Orders records by the tree's comparator. Lookups wrap the caller's probe
  // in ProbeRef so the comparator is always called as compare(probe, node),
  // the only way round a bare probe may be used.
  struct Less {
    using is_transparent = void;
    BintreeCompare compare;
    bool operator()(const BintreeNode* a, const BintreeNode* b) const { return compare(a, b) < 0; }
    bool operator()(ProbeRef probe, const BintreeNode* node) const {
      return compare(probe.record, node) < 0;
    }
    bool operator()(const BintreeNode* node, ProbeRef probe) const {
      return compare(probe.record, node) > 0;
    }
  };
  using Order = std::multiset<BintreeNode*, Less>;
  struct Entry {
    BintreeNode* parent;
    Order::iterator pos;
  };

  explicit BintreeIndex(BintreeCompare compare) : order(Less{compare}) {}

  Order order;
  std::unordered_map<const BintreeNode*, Entry> links;
  bool owns_head = false;
};

namespace {

// Index allocations fail the way tmalloc does: a line and status 1. The C-style
// interface has no way to report them, and no exception may cross it.
[[noreturn]] void OutOfMemory() {
  std::puts("Out of memory (tmalloc)");
  std::fflush(stdout);
  std::exit(1);
}

BintreeNode* Node(void* record) { return static_cast<BintreeNode*>(record); }

BintreeNode* Root(const Bintree* tree) { return tree->head->greater; }

// The link of `parent` that holds `child` (the head holds the root in greater).
BintreeNode** LinkTo(BintreeNode* parent, const BintreeNode* child) {
  return parent->greater == child ? &parent->greater : &parent->lesser;
}

void SetParent(BintreeIndex* index, BintreeNode* child, BintreeNode* parent) {
  if (child != nullptr) {
    index->links.at(child).parent = parent;
  }
}

// Add a record to the index at `hint` (its place in walk order) under `parent`.
void AddToIndex(BintreeIndex* index, BintreeIndex::Order::const_iterator hint, BintreeNode* node,
                BintreeNode* parent) {
  try {
    auto pos = index->order.insert(hint, node);
    try {
      index->links.emplace(node, BintreeIndex::Entry{parent, pos});
    } catch (...) {
      index->order.erase(pos);
      throw;
    }
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
}

// The first record equal to the probe in walk order, or end().
BintreeIndex::Order::iterator FindFirstEqual(Bintree* tree, const void* probe) {
  BintreeIndex::Order& order = tree->index->order;
  auto it = order.lower_bound(BintreeIndex::ProbeRef{probe});
  if (it != order.end() && tree->compare(probe, *it) == 0) {
    return it;
  }
  return order.end();
}

// Unlink the linked record `n` with the replacement rule of the plain tree
// and drop it from the index. No key is compared and nothing is walked.
void Unlink(BintreeIndex* index, BintreeNode* n) {
  const BintreeIndex::Entry entry = index->links.at(n);
  BintreeNode* parent = entry.parent;
  BintreeNode** link = LinkTo(parent, n);
  BintreeNode* g = n->greater;
  BintreeNode* replacement;
  if (g == nullptr) {
    replacement = n->lesser;
  } else if (g->lesser == nullptr) {
    replacement = g;
    g->lesser = n->lesser;
    SetParent(index, n->lesser, g);
  } else {
    // The smallest record of the greater subtree, its in-order successor,
    // straight from the index instead of a walk down the lesser links.
    BintreeNode* s = *std::next(entry.pos);
    BintreeNode* p = index->links.at(s).parent;
    p->lesser = s->greater;
    SetParent(index, s->greater, p);
    s->lesser = n->lesser;
    SetParent(index, n->lesser, s);
    s->greater = g;
    SetParent(index, g, s);
    replacement = s;
  }
  *link = replacement;
  SetParent(index, replacement, parent);
  index->order.erase(entry.pos);
  index->links.erase(n);
}

// Index the records already linked below the head, in walk order.
void IndexExisting(Bintree* tree) {
  BintreeIndex* index = tree->index;
  struct Frame {
    BintreeNode* node;
    BintreeNode* parent;
  };
  std::vector<Frame> stack;
  BintreeNode* node = Root(tree);
  BintreeNode* parent = tree->head;
  while (node != nullptr || !stack.empty()) {
    while (node != nullptr) {
      stack.push_back({node, parent});
      parent = node;
      node = node->lesser;
    }
    Frame frame = stack.back();
    stack.pop_back();
    AddToIndex(index, index->order.end(), frame.node, frame.parent);
    parent = frame.node;
    node = frame.node->greater;
  }
}

// In-order walk with depths, shared by WalkBintree and WalkWildCardBintree.
template <typename Visit>
int WalkInOrder(Bintree* tree, Visit visit) {
  if (tree == nullptr || Root(tree) == nullptr) {
    return -1;
  }
  struct Frame {
    BintreeNode* node;
    uint32_t depth;
  };
  std::vector<Frame> stack;
  BintreeNode* node = Root(tree);
  uint32_t depth = 0;
  try {
    while (node != nullptr || !stack.empty()) {
      while (node != nullptr) {
        stack.push_back({node, depth});
        node = node->lesser;
        ++depth;
      }
      Frame frame = stack.back();
      stack.pop_back();
      visit(frame.node, frame.depth);
      // Read after the visit, as a recursive walk would.
      node = frame.node->greater;
      depth = frame.depth + 1;
    }
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  return 0;
}

}  // namespace

Bintree* NewBintree(void* head, BintreeCompare compare, int32_t allowDuplicates,
                    uint16_t nodeSize) {
  auto* tree = static_cast<Bintree*>(tmalloc(sizeof(Bintree)));
  bool owns_head = head == nullptr;
  tree->head = owns_head ? Node(InitBintreeNode(sizeof(BintreeNode))) : Node(head);
  tree->compare = compare != nullptr ? compare : CompareFunc;
  tree->allowDuplicates = allowDuplicates;
  tree->nodeSize = nodeSize;
  try {
    tree->index = new BintreeIndex(tree->compare);
    tree->index->owns_head = owns_head;
    IndexExisting(tree);
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  return tree;
}

void* InitBintreeNode(int16_t size) {
  size_t bytes = size < static_cast<int16_t>(sizeof(BintreeNode)) ? sizeof(BintreeNode)
                                                                  : static_cast<size_t>(size);
  return tmalloc(bytes);
}

int InsBintree(Bintree* tree, void* record) {
  if (tree == nullptr || record == nullptr) {
    return -1;
  }
  BintreeIndex* index = tree->index;
  BintreeNode* node = Node(record);
  if (node == tree->head || index->links.count(node) != 0) {
    return -1;  // linking it twice would make a cycle
  }
  BintreeIndex::Order& order = index->order;
  // First record whose key is greater than the new one: the new record goes
  // just before it in walk order, after every equal key.
  auto successor = order.upper_bound(BintreeIndex::ProbeRef{node});
  BintreeNode* predecessor = successor == order.begin() ? nullptr : *std::prev(successor);
  if (predecessor != nullptr && tree->allowDuplicates == 0 &&
      tree->compare(node, predecessor) == 0) {
    return -1;
  }
  BintreeNode* parent;
  BintreeNode** link;
  if (predecessor != nullptr && predecessor->greater == nullptr) {
    parent = predecessor;
    link = &predecessor->greater;
  } else if (successor != order.end()) {
    parent = *successor;
    link = &parent->lesser;
  } else {
    parent = tree->head;
    link = &parent->greater;
  }
  AddToIndex(index, successor, node, parent);
  node->greater = nullptr;
  node->lesser = nullptr;
  *link = node;
  return 0;
}

void* FindBintree(Bintree* tree, const void* probe) {
  if (tree == nullptr || probe == nullptr) {
    return nullptr;
  }
  auto it = FindFirstEqual(tree, probe);
  return it == tree->index->order.end() ? nullptr : *it;
}

void* FindKey(Bintree* tree, const char* key) {
  BintreeNode probe{nullptr, nullptr, const_cast<char*>(key)};
  return FindBintree(tree, &probe);
}

int LoadKey(Bintree* tree, const char* key) {
  auto* record = Node(InitBintreeNode(sizeof(BintreeNode)));
  safe_cpy(&record->key, key);
  int result = InsBintree(tree, record);
  if (result == -1) {
    safe_free(&record->key);
    tfree(record);
  }
  return result;
}

void* DelBintree(Bintree* tree, const void* probe) {
  if (tree == nullptr || probe == nullptr) {
    return nullptr;
  }
  auto it = FindFirstEqual(tree, probe);
  if (it == tree->index->order.end()) {
    return nullptr;
  }
  BintreeNode* node = *it;
  Unlink(tree->index, node);
  return node;
}

int WalkBintree(Bintree* tree, BintreeVisit visit, void* arg) {
  if (visit == nullptr) {
    return -1;
  }
  return WalkInOrder(tree, [&](BintreeNode* node, uint32_t depth) { visit(node, depth, arg); });
}

int WalkWildCardBintree(Bintree* tree, BintreeVisit4 visit, void* a1, void* a2, void* a3,
                        void* a4) {
  if (visit == nullptr) {
    return -1;
  }
  return WalkInOrder(tree, [&](BintreeNode* node, uint32_t) { visit(node, a1, a2, a3, a4); });
}

int WalkDepBintree(Bintree* tree, BintreeVisit8 visit, void* a1, void* a2, void* a3, void* a4,
                   void* a5, void* a6, int32_t a7, void* a8) {
  if (tree == nullptr || visit == nullptr || Root(tree) == nullptr) {
    return -1;
  }
  // Each frame remembers how far its record has got: 0 lesser subtree next,
  // 1 greater subtree next, 2 the record itself.
  struct Frame {
    BintreeNode* node;
    int stage;
  };
  std::vector<Frame> stack;
  try {
    stack.push_back({Root(tree), 0});
    while (!stack.empty()) {
      Frame& top = stack.back();
      BintreeNode* node = top.node;
      if (top.stage == 0) {
        top.stage = 1;
        if (node->lesser != nullptr) {
          stack.push_back({node->lesser, 0});
        }
      } else if (top.stage == 1) {
        top.stage = 2;
        if (node->greater != nullptr) {
          stack.push_back({node->greater, 0});
        }
      } else {
        stack.pop_back();
        visit(node, a1, a2, a3, a4, a5, a6, a7, a8);
      }
    }
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  return 0;
}

void DestroyBintree(Bintree* tree, BintreeRelease release) {
  if (tree == nullptr) {
    return;
  }
  // Remove the root until none is left: the root, then whatever replaced it.
  // The head's lesser link is not consulted: the tree never sets it, and
  // waiting for a caller-set one to clear would never end.
  BintreeIndex* index = tree->index;
  while (Root(tree) != nullptr) {
    BintreeNode* root = Root(tree);
    if (index->links.count(root) == 0) {
      // Only possible if a caller relinked records behind the tree's back;
      // stop rather than follow links the index does not know.
      break;
    }
    Unlink(index, root);
    if (release != nullptr) {
      release(root);
    }
    tfree(root);
  }
  if (index->owns_head) {
    tfree(tree->head);
  }
  delete index;
  tfree(tree);
}

int32_t CompareFunc(const void* probe, const void* node) {
  const char* a = static_cast<const BintreeNode*>(probe)->key;
  const char* b = static_cast<const BintreeNode*>(node)->key;
  return CompareTo(a != nullptr ? a : "", b != nullptr ? b : "", 1);
}
