#include "support/bintree.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <algorithm>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/strings.h"

namespace {

// A test record: the tree's common prefix, then an id the tree never sees.
struct Rec {
  BintreeNode* greater;
  BintreeNode* lesser;
  char* key;
  int id;
};

Rec* AsRec(const void* p) { return static_cast<Rec*>(const_cast<void*>(p)); }

Rec* NewRec(const std::string& key, int id) {
  Rec* rec = AsRec(InitBintreeNode(sizeof(Rec)));
  safe_cpy(&rec->key, key.c_str());
  rec->id = id;
  return rec;
}

void FreeRecText(void* record) { safe_free(&AsRec(record)->key); }
void FreeRec(void* rec) {
  FreeRecText(rec);
  tfree(rec);
}

// Appends "key" to a blank-separated list.
void Note(std::string* out, const void* record) {
  *out += (out->empty() ? "" : " ") + std::string(static_cast<const BintreeNode*>(record)->key);
}

// Keys in the order DestroyBintree released them.
std::string g_released;
void LogAndFreeText(void* record) {
  Note(&g_released, record);
  FreeRecText(record);
}

// Reads a field that a bare FindKey probe does not have: under the address
// sanitizer this fails if the tree ever passes the probe as the node.
int32_t CompareReadingNodeId(const void* probe, const void* node) {
  volatile int id = static_cast<const Rec*>(node)->id;
  (void)id;
  return CompareFunc(probe, node);
}

// Rec records (ids from 0 in insertion order) over their own head record.
struct TestTree {
  explicit TestTree(int32_t duplicates = 0, const std::string& keys = "") : dups(duplicates) {
    std::istringstream words(keys);
    for (std::string key; words >> key;) {
      results += std::to_string(Insert(key, static_cast<int>(results.size())));
    }
  }
  ~TestTree() {
    DestroyBintree(tree, FreeRecText);
    FreeRec(head);
  }
  int Insert(const std::string& key, int id) {  // frees the record when refused
    Rec* rec = NewRec(key, id);
    const int result = InsBintree(tree, rec);
    if (result != 0) {
      FreeRec(rec);
    }
    return result;
  }
  Rec* Delete(const std::string& key) {
    BintreeNode probe{nullptr, nullptr, const_cast<char*>(key.c_str())};
    return AsRec(DelBintree(tree, &probe));
  }
  // DestroyBintree, then a fresh empty tree; the keys in release order.
  std::string Destroy(BintreeRelease release = LogAndFreeText) {
    g_released.clear();
    DestroyBintree(tree, release);
    tree = NewBintree(head, CompareReadingNodeId, dups, sizeof(Rec));
    return g_released;
  }
  int32_t dups;
  std::string results;  // InsBintree's, one per key
  Rec* head = NewRec("", -1);
  Bintree* tree = NewBintree(head, CompareReadingNodeId, dups, sizeof(Rec));
};

// The links below `node`: "(lesser)key(greater)", empty sides left out.
template <typename Node>
std::string Shape(const Node* node) {
  if (node == nullptr) {
    return "";
  }
  std::string out = node->lesser ? "(" + Shape(node->lesser) + ")" : "";
  return out + node->key + (node->greater ? "(" + Shape(node->greater) + ")" : "");
}
std::string Shape(const TestTree& tree) { return Shape(tree.head->greater); }

// "in order with depths | post order"; *results gets the two results added.
std::string Walks(Bintree* tree, int* results) {
  std::string in, post;
  *results = WalkBintree(
      tree,
      [](void* record, uint32_t depth, void* arg) {
        Note(static_cast<std::string*>(arg), record);
        *static_cast<std::string*>(arg) += ":" + std::to_string(depth);
        return 7;  // ignored
      },
      &in);
  *results += WalkDepBintree(
      tree,
      [](void* record, void* a1, void*, void*, void*, void*, void*, int32_t, void*) {
        Note(static_cast<std::string*>(a1), record);
        return 0;
      },
      &post, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
  return in + " | " + post;
}

// Per row: keys and whether duplicates are allowed, then InsBintree's results
// and the shape, "in order with depths | post order", and the release order.
// Keys compare bytewise and unsigned; the links of bigger trees are checked
// against the plain descent below.
TEST(BintreeInsert, LinksWalksAndReleaseOrder) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"d b f a c e g", 0,
       "0000000 ((a)b(c))d((e)f(g)) | a:2 b:1 c:2 d:0 e:2 f:1 g:2 | a c b e g f d | d e f g b c a"},
      {"d b h f g", 0, "00000 (b)d((f(g))h) | b:1 d:0 f:2 g:3 h:1 | b g f h d | d f g h b"},
      {"b a c a c b", 0, "000-1-1-1 (a)b(c) | a:1 b:0 c:1 | a c b | b c a"},
      {"b a c b", 1, "0000 (a)b((b)c) | a:1 b:0 b:2 c:1 | a b c b | b b c a"},
      {"Makefile makefile \xC3\xA9 B", 0,
       "0000 (B)Makefile(makefile(\xC3\xA9)) | B:1 Makefile:0 makefile:1 \xC3\xA9:2 | "
       "B \xC3\xA9 makefile Makefile | Makefile makefile \xC3\xA9 B"},
      {"", 0, "  |  |  | "},
  };
  for (const auto& [keys, duplicates, want] : cases) {
    TestTree tree(duplicates, keys);
    int results = 9;
    std::string got = tree.results + " " + Shape(tree) + " | " + Walks(tree.tree, &results);
    EXPECT_EQ(results, *keys ? 0 : -2) << keys;  // -1 each for an empty tree
    EXPECT_EQ(got + " | " + tree.Destroy(), want);
    EXPECT_STREQ(tree.head->key, "");  // the head is not released
  }
  TestTree tree(1, "m c");  // a record linked already is refused, even with duplicates
  EXPECT_EQ(InsBintree(tree.tree, FindKey(tree.tree, "c")), -1);
  EXPECT_EQ(InsBintree(tree.tree, tree.head), -1);
  EXPECT_EQ(FindKey(tree.tree, nullptr), nullptr);
  EXPECT_EQ(FindKey(nullptr, "m"), nullptr);
}

// The plain descent, straight from the rules: where each new key is linked.
struct RefNode {
  RefNode* greater = nullptr;
  RefNode* lesser = nullptr;
  std::string key;
};

// Unlinks *link from the reference by the replacement rule.
void RemoveRef(RefNode** link) {
  RefNode* n = *link;
  if (n->greater == nullptr) {
    *link = n->lesser;
  } else if (n->greater->lesser == nullptr) {
    n->greater->lesser = n->lesser;
    *link = n->greater;
  } else {
    RefNode* p = n->greater;
    while (p->lesser->lesser != nullptr)
      p = p->lesser;
    RefNode* succ = p->lesser;
    p->lesser = succ->greater;
    succ->lesser = n->lesser;
    succ->greater = n->greater;
    *link = succ;
  }
}

// Random keys, a zigzag (a, z, b, y, ...) whose descents grow past any
// budget so that the tree changes how it finds places, and a root whose
// successor lies beyond that budget: the links stay the plain descent's,
// every key is found (in random and ascending order) and removals splice as
// the rules say.
TEST(BintreeReference, SameLinksAsThePlainDescent) {
  for (int pattern = 0; pattern < 4; ++pattern) {
    const int duplicates = pattern == 1;
    std::mt19937 rng(12345 + pattern);
    // The reference zigzag is quadratic.
    const int kCount = pattern == 3 ? 402 : pattern == 2 ? 2000 : 20000;
    std::vector<std::string> keys(kCount);
    for (int id = 0; id < kCount; ++id) {
      char buf[16];
      int n = pattern == 2 ? (id % 2 ? kCount - id : id) : static_cast<int>(rng() % 15000);
      if (pattern == 3)  // the root; below its greater record a lesser chain with a greater end
        n = id == 0 ? 0 : 200000 - 2 * id + (id == kCount - 1 ? 3 : 0);
      std::snprintf(buf, sizeof buf, "k%06d", n);
      keys[id] = buf;
    }
    TestTree tree(duplicates);
    std::vector<RefNode> refs(static_cast<size_t>(kCount));
    RefNode* root = nullptr;
    for (int id = 0; id < kCount; ++id) {
      const std::string& key = refs[id].key = keys[id];
      RefNode** link = &root;
      while (*link != nullptr && (duplicates || key != (*link)->key)) {
        link = key < (*link)->key ? &(*link)->lesser : &(*link)->greater;
      }
      const int want = *link == nullptr ? 0 : -1;
      *link = *link == nullptr ? &refs[id] : *link;
      ASSERT_EQ(tree.Insert(key, id), want) << key;
    }
    EXPECT_TRUE(Shape(tree.head->greater) == Shape(root)) << "pattern " << pattern;
    std::vector<std::string> sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    int missing = 0;
    for (const auto* order : {&keys, &sorted})
      for (const std::string& key : *order)
        missing += FindKey(tree.tree, key.c_str()) == nullptr;
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(FindKey(tree.tree, "k"), nullptr);
    EXPECT_EQ(FindKey(tree.tree, "l"), nullptr);
    // Remove a third of the keys from the reference by the same rules.
    for (int id = 0; id < kCount; id += 3) {
      RefNode** link = &root;
      while (*link != nullptr && (*link)->key != keys[id])
        link = keys[id] < (*link)->key ? &(*link)->lesser : &(*link)->greater;
      Rec* removed = tree.Delete(keys[id]);
      ASSERT_EQ(removed != nullptr, *link != nullptr);
      if (!removed)
        continue;
      FreeRec(removed);
      RemoveRef(link);
    }
    EXPECT_TRUE(Shape(tree.head->greater) == Shape(root)) << "pattern " << pattern;
    std::string released;  // the root until none is left
    while (root != nullptr) {
      released += (released.empty() ? "" : " ") + root->key;
      RemoveRef(&root);
    }
    EXPECT_TRUE(tree.Destroy() == released) << "pattern " << pattern;
  }
}

// Records and texts from the tree's arena link like any others and go with
// the tree; the release function still frees a text moved to the heap.
TEST(BintreeArena, RecordsAndTextsGoWithTheTree) {
  Rec* head = NewRec("", -1);
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(Rec));
  for (const char* key : {"m", "c", "x", "c"}) {
    auto* rec = AsRec(NewBintreeRecord(tree, sizeof(Rec)));
    rec->key = BintreeText(tree, key);
    if (InsBintree(tree, rec) != 0) {
      FreeRec(rec);  // leaves the arena's blocks alone
    }
  }
  safe_cpy(&AsRec(FindKey(tree, "x"))->key, "xyz");  // the heap now holds it
  char* shared = BintreeSharedText(tree, "s");
  EXPECT_EQ(BintreeSharedText(tree, "s"), shared);
  EXPECT_EQ(Shape(head->greater), "(c)m(xyz)");
  DestroyBintree(tree, FreeRecText);
  FreeRec(head);
}

// A descent begun at a record on the path links where the plain one does.
TEST(BintreeInsert, FromARecordOnThePath) {
  TestTree tree(0, "m c x");
  void* c = FindKey(tree.tree, "c");
  for (const char* key : {"a", "e", "d", "e"}) {
    Rec* rec = NewRec(key, 9);
    if (InsBintreeFrom(tree.tree, c, rec) != 0)
      FreeRec(rec);
  }
  EXPECT_EQ(Shape(tree), "((a)c((d)e))m(x)");
}

// Runs body on a thread with a 256 KiB stack, which code recursing once per
// level of a deep tree would overflow.
void OnSmallStack(const std::function<void()>& body) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 << 10);
  pthread_t thread;
  auto run = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()>*>(&body)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

// Keys in ascending order (an earlier inventory read back) make a chain as
// deep as the tree is big: the depths of the walk pin its links. The million
// keys of a large build are a bench/bintree_bench run.
TEST(BintreeChain, SortedKeysOnASmallStack) {
  OnSmallStack([] {
    constexpr int kChain = 50000;
    auto key_at = [](int i) { return std::to_string(100000 + i); };
    TestTree tree;
    std::string in_order, post, ascending;
    for (int i = 0; i < kChain; ++i) {
      tree.results += std::to_string(tree.Insert(key_at(i), i));
      in_order += (i ? " " : "") + key_at(i) + ":" + std::to_string(i);
      post += (i ? " " : "") + key_at(kChain - 1 - i);
      ascending += (i ? " " : "") + key_at(i);
    }
    EXPECT_EQ(tree.results, std::string(kChain, '0'));
    int missing = 0;
    for (int i = 0; i < kChain; ++i)
      missing += FindKey(tree.tree, key_at(i).c_str()) == nullptr;
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(tree.Insert(key_at(kChain / 2), -1), -1);
    int results = 9;
    EXPECT_TRUE(Walks(tree.tree, &results) == in_order + " | " + post);
    EXPECT_EQ(results, 0);
    EXPECT_TRUE(tree.Destroy() == ascending);  // the root each time
  });
}

}  // namespace
