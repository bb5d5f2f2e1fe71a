#include "support/bintree.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "support/strings.h"

// The tree keeps its links exactly where the plain descent puts them, so
// sorted input makes a chain as high as the tree is large. Costs stay
// independent of that shape in three steps:
//
// - Inserting: a key above the greatest record (below the least) hangs
//   from that record's free greater (lesser) link, found without a descent;
//   sorted input, as an earlier inventory read back, costs O(1) a record.
//   Other keys descend, at most kDescentBudget steps.
// - Looking up: an array of the records in walk order, built by one walk
//   when lookups come without changes in between (or a descent ran out of
//   budget), searched from where the last lookup ended, so a walk of another
//   tree in ascending order meets its records in O(1) each, as a merge of
//   two sorted sequences would. Appends at the greatest end keep it.
// - Any operation whose descent runs out of budget, and lookups that would
//   rebuild the array too often, switch the tree to the full index: an
//   ordered multiset of the records plus a map from each record to its parent
//   link, kept from then on; every operation is then logarithmic whatever
//   the shape.
//
// The full index (DeepIndex):
// - `order` holds every linked record in walk order. It is ordered by the
//   tree's comparator; equal keys keep insertion order because
//   multiset::insert places a new element after its equals, exactly as the
//   descent sends an equal key to `greater`.
// - `links` maps each linked record to the record whose link holds it (the
//   head for the root) and to its place in `order`, so a record is unlinked
//   without a descent and without comparing keys.
//
// Facts about the links that both rely on (keys: lesser < record <=
// greater, which insertion and deletion both preserve):
// - A new key k hangs under its in-order predecessor (the last record whose
//   key is <= k) when that record has no greater child, and otherwise under
//   its in-order successor (the first record whose key is > k), whose lesser
//   link is then free.
// - The first record on the search path with a key equal to k is the first
//   of the equal records in walk order: the others all lie in its greater
//   subtree.
// - The smallest record of a non-empty greater subtree is the in-order
//   successor.
struct DeepIndex {
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

  explicit DeepIndex(BintreeCompare compare) : order(Less{compare}) {}

  Order order;
  std::unordered_map<const BintreeNode*, Entry> links;
};

struct BintreeIndex {
  // First and last records in walk order (null when empty, or not known
  // yet: see KnowEnds).
  BintreeNode* least = nullptr;
  BintreeNode* greatest = nullptr;
  bool ends_known = false;
  // Records in walk order for lookups: built when a lookup needs it, kept up
  // to date by appends at the greatest end, dropped by other changes.
  std::vector<BintreeNode*> sorted;
  bool sorted_valid = false;
  size_t finger = 0;  // where the last lookup ended: ascending probes are cheap
  size_t lookups_since_change = 0;
  int rebuilds = 0;
  // The full index, made once a shape turns out to be costly to descend.
  std::unique_ptr<DeepIndex> deep;
  bool owns_head = false;
  TextArena* arena = nullptr;  // records and texts of NewBintreeRecord & co.
};


namespace {

// Steps a descent may take before the tree switches to the full index.
constexpr size_t kDescentBudget = 256;
// Lookups in a row, without changes, after which the lookup array pays.
constexpr size_t kLookupsBeforeArray = 16;
// Array rebuilds after which lookups switch to the full index instead.
constexpr int kMaxRebuilds = 16;

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

// --- The full index ---

void SetParent(DeepIndex* index, BintreeNode* child, BintreeNode* parent) {
  if (child != nullptr) {
    index->links.at(child).parent = parent;
  }
}

// Add a record to the index at `hint` (its place in walk order) under `parent`.
void AddToIndex(DeepIndex* index, DeepIndex::Order::const_iterator hint, BintreeNode* node,
                BintreeNode* parent) {
  try {
    auto pos = index->order.insert(hint, node);
    try {
      index->links.emplace(node, DeepIndex::Entry{parent, pos});
    } catch (...) {
      index->order.erase(pos);
      throw;
    }
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
}

// The first record equal to the probe in walk order, or end().
DeepIndex::Order::iterator FindFirstEqual(Bintree* tree, const void* probe) {
  DeepIndex::Order& order = tree->index->deep->order;
  auto it = order.lower_bound(DeepIndex::ProbeRef{probe});
  if (it != order.end() && tree->compare(probe, *it) == 0) {
    return it;
  }
  return order.end();
}

// Unlink the linked record `n` with the replacement rule of the plain tree
// and drop it from the index. No key is compared and nothing is walked.
void Unlink(DeepIndex* index, BintreeNode* n) {
  const DeepIndex::Entry entry = index->links.at(n);
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

// Calls visit(node, parent) for every linked record in walk order.
template <typename Visit>
void InOrderWithParents(Bintree* tree, Visit visit) {
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
    visit(frame.node, frame.parent);
    parent = frame.node;
    node = frame.node->greater;
  }
}

// Switch to the full index: index the records already linked, in walk order.
void GoDeep(Bintree* tree) {
  BintreeIndex* index = tree->index;
  if (index->deep) {
    return;
  }
  try {
    index->deep = std::make_unique<DeepIndex>(tree->compare);
    DeepIndex* deep = index->deep.get();
    InOrderWithParents(tree, [deep](BintreeNode* node, BintreeNode* parent) {
      AddToIndex(deep, deep->order.end(), node, parent);
    });
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  index->sorted.clear();
  index->sorted.shrink_to_fit();
  index->sorted_valid = false;
}

// --- Without the full index ---

// Finds the first and last records by following the outer links (once, for
// records a caller linked below the head before NewBintree).
// False when either end lies further than the descent budget.
bool KnowEnds(Bintree* tree) {
  BintreeIndex* index = tree->index;
  if (index->ends_known) {
    return true;
  }
  BintreeNode* least = Root(tree);
  BintreeNode* greatest = Root(tree);
  for (size_t steps = 0; least != nullptr && least->lesser != nullptr; ++steps) {
    if (steps == kDescentBudget) {
      return false;
    }
    least = least->lesser;
  }
  for (size_t steps = 0; greatest != nullptr && greatest->greater != nullptr; ++steps) {
    if (steps == kDescentBudget) {
      return false;
    }
    greatest = greatest->greater;
  }
  index->least = least;
  index->greatest = greatest;
  index->ends_known = true;
  return true;
}

void Changed(BintreeIndex* index) {
  index->sorted_valid = false;
  index->lookups_since_change = 0;
}

void BuildSorted(Bintree* tree) {
  BintreeIndex* index = tree->index;
  try {
    index->sorted.clear();
    InOrderWithParents(tree, [index](BintreeNode* node, BintreeNode*) {
      index->sorted.push_back(node);
    });
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  index->sorted_valid = true;
  index->finger = 0;
  ++index->rebuilds;
}

// First position in the lookup array whose key is not below the probe's,
// searched outwards from the finger.
size_t LowerBound(Bintree* tree, const void* probe) {
  BintreeIndex* index = tree->index;
  const std::vector<BintreeNode*>& v = index->sorted;
  auto below = [&](size_t i) { return tree->compare(probe, v[i]) > 0; };
  const size_t n = v.size();
  const size_t f = std::min(index->finger, n);
  // Narrow [lo, hi] around the answer: everything before lo is below the
  // probe, hi is not below it (or is the end).
  size_t lo = 0;
  size_t hi = n;
  if (f < n && below(f)) {
    lo = f + 1;
    for (size_t step = 1;; step *= 2) {
      size_t i = lo + step - 1;
      if (i >= n) {
        break;
      }
      if (!below(i)) {
        hi = i;
        break;
      }
      lo = i + 1;
    }
  } else {
    hi = f;
    for (size_t step = 1; hi >= step; step *= 2) {
      size_t i = hi - step;
      if (below(i)) {
        lo = i + 1;
        break;
      }
      hi = i;
    }
  }
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (below(mid)) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  index->finger = lo;
  return lo;
}

// The result of a budgeted descent for a lookup.
enum class Descent { kFound, kAbsent, kOverBudget };

Descent FindByDescent(Bintree* tree, const void* probe, BintreeNode** found,
                      BintreeNode** parent_out) {
  BintreeNode* parent = tree->head;
  BintreeNode* node = Root(tree);
  for (size_t steps = 0; node != nullptr; ++steps) {
    if (steps == kDescentBudget) {
      return Descent::kOverBudget;
    }
    int32_t c = tree->compare(probe, node);
    if (c == 0) {
      *found = node;
      *parent_out = parent;
      return Descent::kFound;
    }
    parent = node;
    node = c < 0 ? node->lesser : node->greater;
  }
  return Descent::kAbsent;
}

// The first record equal to the probe in walk order, or null.
BintreeNode* Lookup(Bintree* tree, const void* probe) {
  BintreeIndex* index = tree->index;
  if (!index->deep && !index->sorted_valid) {
    BintreeNode* found = nullptr;
    BintreeNode* parent = nullptr;
    if (++index->lookups_since_change < kLookupsBeforeArray) {
      Descent d = FindByDescent(tree, probe, &found, &parent);
      if (d != Descent::kOverBudget) {
        return found;
      }
    }
    if (index->rebuilds < kMaxRebuilds) {
      BuildSorted(tree);
    } else {
      GoDeep(tree);
    }
  }
  if (index->deep) {
    auto it = FindFirstEqual(tree, probe);
    return it == index->deep->order.end() ? nullptr : *it;
  }
  size_t pos = LowerBound(tree, probe);
  if (pos < index->sorted.size() && tree->compare(probe, index->sorted[pos]) == 0) {
    return index->sorted[pos];
  }
  return nullptr;
}

// Inserts without the full index; false when the descent ran out of budget
// (nothing changed). *result is InsBintree's result otherwise.
bool InsertPlain(Bintree* tree, BintreeNode* hint, BintreeNode* node, int* result) {
  BintreeIndex* index = tree->index;
  if (!KnowEnds(tree)) {
    return false;
  }
  BintreeNode* parent = nullptr;
  BintreeNode** link = nullptr;
  bool append = false;
  if (index->greatest == nullptr) {
    parent = tree->head;
    link = &tree->head->greater;
  } else if (tree->compare(node, index->greatest) > 0) {
    parent = index->greatest;  // its greater link is free: nothing is above it
    link = &parent->greater;
    append = true;
  } else if (tree->compare(node, index->least) < 0) {
    parent = index->least;  // its lesser link is free: nothing is below it
    link = &parent->lesser;
  } else {
    parent = tree->head;
    BintreeNode* at = hint != nullptr ? hint : Root(tree);
    link = &tree->head->greater;
    for (size_t steps = 0; at != nullptr; ++steps) {
      if (steps == kDescentBudget) {
        return false;
      }
      if (at == node) {
        *result = -1;  // linked already: linking it twice would make a cycle
        return true;
      }
      int32_t c = tree->compare(node, at);
      if (c == 0 && tree->allowDuplicates == 0) {
        *result = -1;
        return true;
      }
      parent = at;
      link = c < 0 ? &at->lesser : &at->greater;
      at = *link;
    }
  }
  node->greater = nullptr;
  node->lesser = nullptr;
  *link = node;
  if (index->least == nullptr || parent == tree->head) {
    index->least = index->greatest = node;
  } else if (link == &index->least->lesser && parent == index->least) {
    index->least = node;
  } else if (link == &index->greatest->greater && parent == index->greatest) {
    index->greatest = node;
  }
  if (append && index->sorted_valid) {
    try {
      index->sorted.push_back(node);
    } catch (const std::bad_alloc&) {
      OutOfMemory();
    }
  } else {
    Changed(index);
  }
  *result = 0;
  return true;
}

// Unlinks `n` (held by `parent`) by the replacement rule without the full
// index; false when finding the successor ran out of budget (nothing
// changed).
bool UnlinkPlain(Bintree* tree, BintreeNode* n, BintreeNode* parent) {
  BintreeNode* g = n->greater;
  BintreeNode* s = nullptr;
  BintreeNode* p = nullptr;
  if (g != nullptr && g->lesser != nullptr) {
    p = g;
    s = g->lesser;
    for (size_t steps = 0; s->lesser != nullptr; ++steps) {
      if (steps == kDescentBudget) {
        return false;
      }
      p = s;
      s = s->lesser;
    }
  }
  BintreeNode** link = LinkTo(parent, n);
  BintreeNode* replacement;
  if (g == nullptr) {
    replacement = n->lesser;
  } else if (s == nullptr) {
    replacement = g;
    g->lesser = n->lesser;
  } else {
    p->lesser = s->greater;
    s->lesser = n->lesser;
    s->greater = g;
    replacement = s;
  }
  *link = replacement;
  BintreeIndex* index = tree->index;
  index->ends_known = false;  // found again by the next insert
  Changed(index);
  return true;
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
    tree->index = new BintreeIndex;
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  tree->index->owns_head = owns_head;
  return tree;
}

void* InitBintreeNode(int16_t size) {
  size_t bytes = size < static_cast<int16_t>(sizeof(BintreeNode)) ? sizeof(BintreeNode)
                                                                  : static_cast<size_t>(size);
  return tmalloc(bytes);
}

namespace {

TextArena* Arena(Bintree* tree) {
  if (tree->index->arena == nullptr) {
    tree->index->arena = NewArena();
  }
  return tree->index->arena;
}

}  // namespace

void* NewBintreeRecord(Bintree* tree, int16_t size) {
  size_t bytes = size < static_cast<int16_t>(sizeof(BintreeNode)) ? sizeof(BintreeNode)
                                                                  : static_cast<size_t>(size);
  return ArenaBlock(Arena(tree), bytes);
}

char* BintreeText(Bintree* tree, const char* text, size_t capacity) {
  return ArenaText(Arena(tree), text != nullptr ? text : "", capacity);
}

char* BintreeSharedText(Bintree* tree, const char* text) {
  return ArenaSharedText(Arena(tree), text != nullptr ? text : "");
}

int InsBintree(Bintree* tree, void* record) { return InsBintreeFrom(tree, nullptr, record); }

int InsBintreeFrom(Bintree* tree, void* hint, void* record) {
  if (tree == nullptr || record == nullptr) {
    return -1;
  }
  BintreeIndex* index = tree->index;
  BintreeNode* node = Node(record);
  if (node == tree->head) {
    return -1;
  }
  if (!index->deep) {
    int result = -1;
    if (InsertPlain(tree, Node(hint), node, &result)) {
      return result;
    }
    GoDeep(tree);
  }
  DeepIndex* deep = index->deep.get();
  if (deep->links.count(node) != 0) {
    return -1;  // linking it twice would make a cycle
  }
  DeepIndex::Order& order = deep->order;
  // First record whose key is greater than the new one: the new record goes
  // just before it in walk order, after every equal key.
  auto successor = order.upper_bound(DeepIndex::ProbeRef{node});
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
  AddToIndex(deep, successor, node, parent);
  node->greater = nullptr;
  node->lesser = nullptr;
  *link = node;
  return 0;
}

void* FindBintree(Bintree* tree, const void* probe) {
  if (tree == nullptr || probe == nullptr) {
    return nullptr;
  }
  return Lookup(tree, probe);
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
  BintreeIndex* index = tree->index;
  if (!index->deep) {
    BintreeNode* found = nullptr;
    BintreeNode* parent = nullptr;
    Descent d = FindByDescent(tree, probe, &found, &parent);
    if (d == Descent::kAbsent) {
      return nullptr;
    }
    if (d == Descent::kFound && UnlinkPlain(tree, found, parent)) {
      return found;
    }
    GoDeep(tree);
  }
  auto it = FindFirstEqual(tree, probe);
  if (it == index->deep->order.end()) {
    return nullptr;
  }
  BintreeNode* node = *it;
  Unlink(index->deep.get(), node);
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

BintreeCursor::BintreeCursor(Bintree* tree)
    : node_(tree != nullptr ? Root(tree) : nullptr) {}

void* BintreeCursor::Next() {
  try {
    for (; node_ != nullptr; node_ = node_->lesser) {
      pending_.push_back(node_);
    }
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  if (pending_.empty()) {
    return nullptr;
  }
  BintreeNode* next = pending_.back();
  pending_.pop_back();
  node_ = next->greater;
  return next;
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
  // Removing the root until none is left releases, by the replacement rule,
  // the root, then every record of its greater subtree in walk order (each
  // removal puts the in-order successor in its place), then, once nothing
  // greater is left, its lesser subtree, untouched all along, by the same
  // rule. The records are released in that order by one walk that reads each
  // record's links before releasing it: no removal, no index, and no key is
  // compared, so a caller may have released the keys already. The head's
  // lesser link is not consulted: the tree never sets it.
  BintreeIndex* index = tree->index;
  auto release_one = [release](BintreeNode* node) {
    if (release != nullptr) {
      release(node);
    }
    tfree(node);
  };
  std::vector<BintreeNode*> stack;
  try {
    for (BintreeNode* top = Root(tree); top != nullptr;) {
      BintreeNode* next_top = top->lesser;
      BintreeNode* node = top->greater;
      release_one(top);
      while (node != nullptr || !stack.empty()) {
        for (; node != nullptr; node = node->lesser) {
          stack.push_back(node);
        }
        BintreeNode* done = stack.back();
        stack.pop_back();
        node = done->greater;
        release_one(done);
      }
      top = next_top;
    }
  } catch (const std::bad_alloc&) {
    OutOfMemory();
  }
  tree->head->greater = nullptr;
  if (index->owns_head) {
    tfree(tree->head);
  }
  FreeArena(index->arena);
  delete index;
  tfree(tree);
}

int32_t CompareFunc(const void* probe, const void* node) {
  const char* a = static_cast<const BintreeNode*>(probe)->key;
  const char* b = static_cast<const BintreeNode*>(node)->key;
  // CompareTo with the case flag set takes the first differing bytes as
  // unsigned values, as strcmp does; only the sign counts, and strcmp's is
  // the same while it compares many bytes at a time.
  return std::strcmp(a != nullptr ? a : "", b != nullptr ? b : "");
}
