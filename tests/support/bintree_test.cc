#include "support/bintree.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <algorithm>
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
int IdOf(const void* p) { return p == nullptr ? -1 : AsRec(p)->id; }

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

TEST(BintreeInit, TooSmallSizesStillHoldTheCommonPrefix) {
  for (int16_t size : {0, -32768}) {
    auto* bytes = static_cast<char*>(InitBintreeNode(size));
    EXPECT_EQ(std::string(bytes, sizeof(BintreeNode)), std::string(sizeof(BintreeNode), '\0'));
    std::memset(bytes, 0xA5, sizeof(BintreeNode));  // the sanitizer checks the extent
    tfree(bytes);
  }
}

TEST(BintreeNew, NullHeadOrLinksAlreadyBelowTheHead) {
  Bintree* own = NewBintree(nullptr, CompareFunc, 0, sizeof(BintreeNode));
  EXPECT_EQ(LoadKey(own, "dir/sub"), 0);
  EXPECT_EQ(LoadKey(own, "dir/sub"), -1);  // the refused copy is freed again
  DestroyBintree(own, FreeRecText);        // the leak checker sees the made head go
  Rec* head = NewRec("", -1);
  Rec* b = NewRec("b", 0);
  head->greater = reinterpret_cast<BintreeNode*>(b);
  b->lesser = reinterpret_cast<BintreeNode*>(NewRec("a", 1));
  b->greater = reinterpret_cast<BintreeNode*>(NewRec("c", 2));
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(Rec));  // takes over the links
  EXPECT_EQ(InsBintree(tree, NewRec("d", 3)), 0);
  g_released.clear();
  DestroyBintree(tree, LogAndFreeText);
  EXPECT_EQ(g_released, "b c d a");
  FreeRec(head);
}

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
TEST(BintreeInsert, LinksWalksAndReleaseOrder) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"b a c", 0, "000 (a)b(c) | a:1 b:0 c:1 | a c b | b c a"},
      {"a b c", 0, "000 a(b(c)) | a:0 b:1 c:2 | c b a | a b c"},
      {"c b a", 0, "000 ((a)b)c | a:2 b:1 c:0 | a b c | c b a"},
      {"a e b d c", 0, "00000 a((b((c)d))e) | a:0 b:2 c:4 d:3 e:1 | c d b e a | a b c d e"},
      {"d b f a c e g", 0,
       "0000000 ((a)b(c))d((e)f(g)) | a:2 b:1 c:2 d:0 e:2 f:1 g:2 | a c b e g f d | d e f g b c a"},
      {"b a c a c b", 0, "000-1-1-1 (a)b(c) | a:1 b:0 c:1 | a c b | b c a"},
      {"b a c b", 1, "0000 (a)b((b)c) | a:1 b:0 b:2 c:1 | a b c b | b b c a"},
      {"b a b a", 1, "0000 (a(a))b(b) | a:1 a:2 b:0 b:1 | a a b b | b b a a"},
      {"Makefile makefile a B", 0,
       "0000 (B)Makefile((a)makefile) | B:1 Makefile:0 a:2 makefile:1 | B a makefile Makefile | "
       "Makefile a makefile B"},
      {"\xC3\xA9 z", 0, "00 (z)\xC3\xA9 | z:1 \xC3\xA9:0 | z \xC3\xA9 | \xC3\xA9 z"},  // unsigned
      {"", 0, "  |  |  | "},
  };
  for (const auto& [keys, duplicates, want] : cases) {
    TestTree tree(duplicates, keys);
    int results = 9;
    std::string got = tree.results + " " + Shape(tree) + " | " + Walks(tree.tree, &results);
    EXPECT_EQ(results, *keys ? 0 : -2) << keys;  // -1 each for an empty tree
    EXPECT_EQ(got + " | " + tree.Destroy(), want);
    EXPECT_EQ(tree.head->lesser, nullptr);
    EXPECT_STREQ(tree.head->key, "");  // the head is not released
  }
}

TEST(BintreeInsert, RefusedRecordsStayUntouchedAndFindMatchesExactly) {
  TestTree tree(1, "m c");
  EXPECT_EQ(InsBintree(tree.tree, FindKey(tree.tree, "c")), -1);  // linked already
  EXPECT_EQ(InsBintree(tree.tree, tree.head), -1);
  TestTree unique(0, "m c x Makefile ab");
  Rec* dup = NewRec("c", 99);
  dup->greater = reinterpret_cast<BintreeNode*>(dup);  // no valid link; must stay
  EXPECT_EQ(InsBintree(unique.tree, dup), -1);
  EXPECT_EQ(dup->greater, reinterpret_cast<BintreeNode*>(dup));
  std::string found;
  for (const char* key : {"c", "Makefile", "ab", "makefile", "a", "abc", "", "zzz", "d"}) {
    found += std::to_string(IdOf(FindKey(unique.tree, key)));
  }
  EXPECT_EQ(found, "134-1-1-1-1-1-1");
  EXPECT_EQ(FindKey(unique.tree, nullptr), nullptr);  // null reads as ""
  EXPECT_EQ(FindKey(nullptr, "m"), nullptr);
  FreeRec(dup);
  EXPECT_EQ(Shape(tree), "(c)m");
}

TEST(BintreeInsert, DuplicatesWalkOldestFirstAndFindNearestRoot) {
  TestTree tree(1, "m c m x m");  // ids 0..4
  EXPECT_EQ(Shape(tree), "(c)m(m((m)x))");
  int results = 9;  // the depths tell the m records apart: ids 0, 2, 4
  EXPECT_EQ(Walks(tree.tree, &results), "c:1 m:0 m:1 m:3 x:2 | c m x m m");
  const char* shapes[] = {"(c)m((m)x)", "(c)m(x)", "(c)x"};
  for (int step = 0; step < 3; ++step) {
    EXPECT_EQ(IdOf(FindKey(tree.tree, "m")), step * 2);
    Rec* removed = tree.Delete("m");
    EXPECT_EQ(IdOf(removed), step * 2);
    EXPECT_EQ(Shape(tree), shapes[step]);
    FreeRec(removed);
  }
}

// A record without a greater child is replaced by its lesser subtree; else a
// greater child without a lesser child takes its place; else the smallest
// record of the greater subtree moves up.
TEST(BintreeDelete, ReplacementRules) {
  // keys, key to remove, shape after.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"b a c", "b", "(a)c"},
      {"b a c", "a", "b(c)"},
      {"a d b c", "d", "a(b(c))"},
      {"d b f a c e g", "d", "((a)b(c))e(f(g))"},
      {"d b h f e eb g i", "d", "(b)e(((eb)f(g))h(i))"},
      {"a d h f e g", "d", "a(e((f(g))h))"},
      {"b a c", "B", "(a)b(c)"},
      {"", "a", ""},
  };
  for (const auto& [keys, remove, shape] : cases) {
    TestTree tree(0, keys);
    Rec* removed = tree.Delete(remove);
    if (removed != nullptr) {
      EXPECT_STREQ(removed->key, remove);
      FreeRec(removed);
    }
    EXPECT_EQ(Shape(tree), shape) << keys << " remove " << remove;
  }
  TestTree tree(0, "b a c");  // the removed record keeps its links; reinserting drops them
  Rec* b = tree.Delete("b");
  EXPECT_EQ(IdOf(b->lesser) * 10 + IdOf(b->greater), 12);
  EXPECT_EQ(InsBintree(tree.tree, b), 0);
  EXPECT_EQ(b->greater, b->lesser);
  EXPECT_EQ(Shape(tree), "(a(b))c");
}

// A caller may free every record's text before destroying, and may pass no
// release function.
TEST(BintreeDestroy, NeedsNoKeysAndNoReleaseFunction) {
  static std::string ids;
  for (BintreeRelease release : {+[](void* record) { ids += std::to_string(IdOf(record)); },
                                 static_cast<BintreeRelease>(nullptr)}) {
    TestTree tree(0, "d b f a c e g");
    WalkWildCardBintree(
        tree.tree, [](void* r, void*, void*, void*, void*) { return (FreeRecText(r), 0); }, nullptr,
        nullptr, nullptr, nullptr);
    tree.Destroy(release);
  }
  EXPECT_EQ(ids, "0526143");  // d e f g b c a
  DestroyBintree(nullptr, LogAndFreeText);
}

// The plain descent, straight from the rules: where each new key is linked.
struct RefNode {
  RefNode* greater = nullptr;
  RefNode* lesser = nullptr;
  std::string key;
};

// Random keys, and a zigzag (a, z, b, y, ...) whose descents grow past any
// budget so that the tree changes how it finds places: the links stay the
// plain descent's, every key is found (in random and ascending order) and
// removals splice as the rules say.
TEST(BintreeReference, SameLinksAsThePlainDescent) {
  for (int pattern = 0; pattern < 3; ++pattern) {
    const int duplicates = pattern == 1;
    std::mt19937 rng(12345 + pattern);
    const int kCount = pattern == 2 ? 2000 : 20000;  // the reference zigzag is quadratic
    std::vector<std::string> keys(kCount);
    for (int id = 0; id < kCount; ++id) {
      char buf[16];
      int n = pattern == 2 ? (id % 2 ? kCount - id : id) : static_cast<int>(rng() % 15000);
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
    EXPECT_TRUE(Shape(tree.head->greater) == Shape(root)) << "pattern " << pattern;
  }
}

// One million records in ascending order form a chain of that depth.
TEST(BintreeChain, MillionSortedKeys) {
  constexpr int kChain = 1000000;
  auto key_at = [](int i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%07d", i);
    return std::string(buf);
  };
  Bintree* tree = NewBintree(nullptr, CompareFunc, 0, sizeof(BintreeNode));
  int failures = 0;
  std::string in_order, post, released;
  for (int i = 0; i < kChain; ++i) {
    failures += LoadKey(tree, key_at(i).c_str()) != 0;
    in_order += (i ? " " : "") + key_at(i) + ":" + std::to_string(i);
    post += " " + key_at(kChain - 1 - i);
    released += (i ? " " : "") + key_at(i);
  }
  ASSERT_EQ(failures, 0);
  EXPECT_EQ(tree->head->greater->lesser, nullptr);
  for (int i = 0; i < kChain; ++i) {
    auto* found = static_cast<BintreeNode*>(FindKey(tree, key_at(i).c_str()));
    failures += found == nullptr || key_at(i) != found->key;
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(FindKey(tree, "9999999"), nullptr);
  EXPECT_EQ(LoadKey(tree, key_at(kChain / 2).c_str()), -1);
  int results = 9;
  EXPECT_TRUE(Walks(tree, &results) == in_order + " |" + post);
  EXPECT_EQ(results, 0);
  g_released.clear();
  DestroyBintree(tree, LogAndFreeText);  // the root each time: ascending again
  EXPECT_TRUE(g_released == released);
}

}  // namespace
