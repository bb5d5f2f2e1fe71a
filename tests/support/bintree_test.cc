#include "support/bintree.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <utility>
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
Rec* AsRec(BintreeNode* p) { return static_cast<Rec*>(static_cast<void*>(p)); }
BintreeNode* AsNode(Rec* r) { return static_cast<BintreeNode*>(static_cast<void*>(r)); }

Rec* NewRec(const std::string& key, int id) {
  Rec* rec = AsRec(InitBintreeNode(sizeof(Rec)));
  safe_cpy(&rec->key, key.c_str());
  rec->id = id;
  return rec;
}

void FreeRecText(void* record) { safe_free(&AsRec(record)->key); }

void FreeRec(Rec* rec) {
  FreeRecText(rec);
  tfree(rec);
}

// Keys in the order DestroyBintree released them.
std::vector<std::string>* g_released = nullptr;

void LogAndFreeText(void* record) {
  if (g_released != nullptr) {
    g_released->push_back(AsRec(record)->key);
  }
  FreeRecText(record);
}

class ReleaseLog {
 public:
  ReleaseLog() { g_released = &keys_; }
  ~ReleaseLog() { g_released = nullptr; }
  ReleaseLog(const ReleaseLog&) = delete;
  ReleaseLog& operator=(const ReleaseLog&) = delete;
  const std::vector<std::string>& keys() const { return keys_; }

 private:
  std::vector<std::string> keys_;
};

// A tree of Rec records over its own head record, destroyed at scope end.
class TestTree {
 public:
  explicit TestTree(int32_t allow_duplicates = 0, BintreeCompare compare = CompareFunc) {
    head_ = NewRec("", -1);
    tree_ = NewBintree(head_, compare, allow_duplicates, sizeof(Rec));
  }
  ~TestTree() {
    Destroy();
    FreeRec(head_);
  }
  TestTree(const TestTree&) = delete;
  TestTree& operator=(const TestTree&) = delete;

  Bintree* get() const { return tree_; }
  Rec* head() const { return head_; }
  Rec* root() const { return AsRec(head_->greater); }

  // Insert a new record; frees it again when refused. Returns InsBintree's result.
  int Insert(const std::string& key, int id = 0) {
    Rec* rec = NewRec(key, id);
    int result = InsBintree(tree_, rec);
    if (result != 0) {
      FreeRec(rec);
    }
    return result;
  }
  void InsertAll(const std::vector<std::string>& keys) {
    int id = 0;
    for (const std::string& key : keys) {
      Insert(key, id++);
    }
  }
  Rec* Delete(const std::string& key) {
    BintreeNode probe{nullptr, nullptr, const_cast<char*>(key.c_str())};
    return AsRec(DelBintree(tree_, &probe));
  }
  void Destroy(BintreeRelease release = LogAndFreeText) {
    DestroyBintree(tree_, release);
    tree_ = nullptr;
  }

 private:
  Rec* head_;
  Bintree* tree_;
};

// The links below `node` written out: "(lesser)key(greater)", empty sides
// left out. Reads the links directly; only for small trees.
std::string Shape(const BintreeNode* node) {
  if (node == nullptr) {
    return "";
  }
  std::string out;
  if (node->lesser != nullptr) {
    out += "(" + Shape(node->lesser) + ")";
  }
  out += node->key;
  if (node->greater != nullptr) {
    out += "(" + Shape(node->greater) + ")";
  }
  return out;
}

std::string Shape(const TestTree& tree) { return Shape(tree.head()->greater); }

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> words;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find(' ', pos);
    if (end == std::string::npos) {
      end = text.size();
    }
    if (end > pos) {
      words.push_back(text.substr(pos, end - pos));
    }
    pos = end + 1;
  }
  return words;
}

std::string Join(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& word : words) {
    out += (out.empty() ? "" : " ") + word;
  }
  return out;
}

// --- Reference: the plain descent, written straight from the rules ---

struct RefNode {
  RefNode* greater = nullptr;
  RefNode* lesser = nullptr;
  std::string key;
  int id = 0;
};

int RefCompare(const std::string& a, const std::string& b) { return a.compare(b); }

class RefTree {
 public:
  explicit RefTree(bool allow_duplicates) : allow_duplicates_(allow_duplicates) {}
  RefNode* root() const { return root_; }

  int Insert(RefNode* node) {
    RefNode** link = &root_;
    while (*link != nullptr) {
      int c = RefCompare(node->key, (*link)->key);
      if (c == 0 && !allow_duplicates_) {
        return -1;
      }
      link = c < 0 ? &(*link)->lesser : &(*link)->greater;
    }
    *link = node;
    return 0;
  }
  RefNode* Find(const std::string& key) const {
    RefNode* node = root_;
    while (node != nullptr) {
      int c = RefCompare(key, node->key);
      if (c == 0) {
        return node;
      }
      node = c < 0 ? node->lesser : node->greater;
    }
    return nullptr;
  }
  RefNode* Delete(const std::string& key) {
    RefNode** link = &root_;
    while (*link != nullptr) {
      int c = RefCompare(key, (*link)->key);
      if (c == 0) {
        break;
      }
      link = c < 0 ? &(*link)->lesser : &(*link)->greater;
    }
    RefNode* n = *link;
    if (n == nullptr) {
      return nullptr;
    }
    RefNode* r;
    if (n->greater == nullptr) {
      r = n->lesser;
    } else if (n->greater->lesser == nullptr) {
      r = n->greater;
      r->lesser = n->lesser;
    } else {
      RefNode* p = n->greater;
      while (p->lesser->lesser != nullptr) {
        p = p->lesser;
      }
      RefNode* s = p->lesser;
      p->lesser = s->greater;
      s->lesser = n->lesser;
      s->greater = n->greater;
      r = s;
    }
    *link = r;
    return n;
  }

 private:
  bool allow_duplicates_;
  RefNode* root_ = nullptr;
};

int IdOf(const BintreeNode* node) { return node == nullptr ? -1 : AsRec(node)->id; }
int IdOf(const RefNode* node) { return node == nullptr ? -1 : node->id; }

// --- Creation and records ---

TEST(BintreeInit, RecordsAreZeroFilledAndAtLeastTheCommonPrefix) {
  struct Case {
    int16_t size;
    size_t zeroed;  // bytes that must read as zero (and be writable)
  };
  const Case cases[] = {
      {static_cast<int16_t>(sizeof(BintreeNode)), sizeof(BintreeNode)},
      {static_cast<int16_t>(sizeof(BintreeNode) + 1), sizeof(BintreeNode) + 1},
      {64, 64},
      {32767, 32767},
      // Too small or negative: a record of exactly the common prefix.
      {0, sizeof(BintreeNode)},
      {1, sizeof(BintreeNode)},
      {static_cast<int16_t>(sizeof(BintreeNode) - 1), sizeof(BintreeNode)},
      {-1, sizeof(BintreeNode)},
      {-32768, sizeof(BintreeNode)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    auto* bytes = static_cast<unsigned char*>(InitBintreeNode(c.size));
    ASSERT_NE(bytes, nullptr);
    size_t nonzero = 0;
    for (size_t i = 0; i < c.zeroed; ++i) {
      nonzero += bytes[i] != 0;
    }
    EXPECT_EQ(nonzero, 0u);
    std::memset(bytes, 0xA5, c.zeroed);  // the sanitizer build checks the extent
    tfree(bytes);
  }
}

TEST(BintreeNew, RecordsItsSettingsAndStartsEmpty) {
  Rec* head = NewRec("", -1);
  Bintree* tree = NewBintree(head, CompareFunc, 1, 1234);
  ASSERT_NE(tree, nullptr);
  EXPECT_EQ(tree->head, static_cast<void*>(head));
  EXPECT_EQ(tree->compare, &CompareFunc);
  EXPECT_EQ(tree->allowDuplicates, 1);
  EXPECT_EQ(tree->nodeSize, 1234);
  EXPECT_EQ(head->greater, nullptr);
  EXPECT_EQ(head->lesser, nullptr);
  DestroyBintree(tree, FreeRecText);
  // The head is the caller's and is left alone.
  EXPECT_STREQ(head->key, "");
  EXPECT_EQ(head->greater, nullptr);
  FreeRec(head);
}

TEST(BintreeNew, NullHeadGetsAHeadTheTreeFrees) {
  Bintree* tree = NewBintree(nullptr, CompareFunc, 0, sizeof(BintreeNode));
  ASSERT_NE(tree, nullptr);
  ASSERT_NE(tree->head, nullptr);
  EXPECT_EQ(LoadKey(tree, "x"), 0);
  EXPECT_NE(FindKey(tree, "x"), nullptr);
  DestroyBintree(tree, FreeRecText);  // the leak checker sees the head go
}

TEST(BintreeNew, TakesOverLinksAlreadyBelowTheHead) {
  Rec* head = NewRec("", -1);
  Rec* b = NewRec("b", 0);
  Rec* a = NewRec("a", 1);
  Rec* c = NewRec("c", 2);
  head->greater = AsNode(b);
  b->lesser = AsNode(a);
  b->greater = AsNode(c);
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(Rec));
  EXPECT_EQ(FindKey(tree, "a"), static_cast<void*>(a));
  EXPECT_EQ(FindKey(tree, "c"), static_cast<void*>(c));
  Rec* d = NewRec("d", 3);
  EXPECT_EQ(InsBintree(tree, d), 0);
  EXPECT_EQ(Shape(head->greater), "(a)b(c(d))");
  std::vector<std::string> released;
  g_released = &released;
  DestroyBintree(tree, LogAndFreeText);
  g_released = nullptr;
  EXPECT_EQ(Join(released), "b c d a");
  FreeRec(head);
}

// --- Shape after inserts ---

TEST(BintreeInsert, LinksWhereTheDescentPutsThem) {
  struct Case {
    const char* keys;
    int32_t allow_duplicates;
    const char* results;  // InsBintree's result per key
    const char* shape;
  };
  const Case cases[] = {
      {"b a c", 0, "0 0 0", "(a)b(c)"},
      {"a b c", 0, "0 0 0", "a(b(c))"},
      {"c b a", 0, "0 0 0", "((a)b)c"},
      {"d b f a c e g", 0, "0 0 0 0 0 0 0", "((a)b(c))d((e)f(g))"},
      {"a e b d c", 0, "0 0 0 0 0", "a((b((c)d))e)"},
      {"b a c b", 0, "0 0 0 -1", "(a)b(c)"},
      {"b a c a c b", 0, "0 0 0 -1 -1 -1", "(a)b(c)"},
      {"b a c b", 1, "0 0 0 0", "(a)b((b)c)"},
      {"b b b", 1, "0 0 0", "b(b(b))"},
      {"b a b a", 1, "0 0 0 0", "(a(a))b(b)"},
      {"Makefile makefile", 0, "0 0", "Makefile(makefile)"},
      {"a B", 0, "0 0", "(B)a"},
      {"0 /", 0, "0 0", "(/)0"},
      {"ab a abc", 0, "0 0 0", "(a)ab(abc)"},
      {"\xC3\xA9 z", 0, "0 0", "(z)\xC3\xA9"},  // bytes compare unsigned
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("keys \"") + c.keys + "\" duplicates " +
                 std::to_string(c.allow_duplicates));
    TestTree tree(c.allow_duplicates);
    std::vector<std::string> results;
    for (const std::string& key : Split(c.keys)) {
      results.push_back(std::to_string(tree.Insert(key)));
    }
    EXPECT_EQ(Join(results), c.results);
    EXPECT_EQ(Shape(tree), c.shape);
    EXPECT_EQ(tree.head()->lesser, nullptr);
  }
}

TEST(BintreeInsert, RefusedRecordIsUntouchedAndTreeUnchanged) {
  TestTree tree;
  tree.InsertAll({"m", "c", "x"});
  Rec* original = AsRec(FindKey(tree.get(), "c"));
  Rec* dup = NewRec("c", 99);
  BintreeNode* marker = AsNode(dup);
  dup->greater = marker;  // not a valid link; must stay as it is
  EXPECT_EQ(InsBintree(tree.get(), dup), -1);
  EXPECT_EQ(dup->greater, marker);
  EXPECT_EQ(Shape(tree), "(c)m(x)");
  EXPECT_EQ(FindKey(tree.get(), "c"), static_cast<void*>(original));
  FreeRec(dup);
}

TEST(BintreeInsert, SameRecordTwiceIsRefusedEvenWithDuplicates) {
  TestTree tree(1);
  tree.InsertAll({"m", "c"});
  Rec* c = AsRec(FindKey(tree.get(), "c"));
  EXPECT_EQ(InsBintree(tree.get(), c), -1);
  EXPECT_EQ(InsBintree(tree.get(), tree.head()), -1);
  EXPECT_EQ(Shape(tree), "(c)m");
}

TEST(BintreeInsert, ReinsertedRecordDropsItsOldLinks) {
  TestTree tree;
  tree.InsertAll({"b", "a", "c"});
  Rec* b = tree.Delete("b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Shape(tree), "(a)c");
  EXPECT_EQ(InsBintree(tree.get(), b), 0);
  EXPECT_EQ(b->greater, nullptr);
  EXPECT_EQ(b->lesser, nullptr);
  EXPECT_EQ(Shape(tree), "(a(b))c");
}

TEST(BintreeInsert, DuplicatesWalkOldestFirstAndFindNearestRoot) {
  TestTree tree(1);
  // m0 is the root; m2 hangs at m0.greater, x at m2.greater, m4 at x.lesser.
  const std::vector<std::pair<std::string, int>> records = {
      {"m", 0}, {"c", 1}, {"m", 2}, {"x", 3}, {"m", 4}};
  for (const auto& [key, id] : records) {
    ASSERT_EQ(tree.Insert(key, id), 0);
  }
  EXPECT_EQ(Shape(tree), "(c)m(m((m)x))");
  std::vector<int> ids;
  WalkBintree(
      tree.get(),
      [](void* record, uint32_t, void* arg) -> int {
        static_cast<std::vector<int>*>(arg)->push_back(AsRec(record)->id);
        return 0;
      },
      &ids);
  EXPECT_EQ(ids, (std::vector<int>{1, 0, 2, 4, 3}));
  // Each delete takes the equal record nearest the root; the next one up is
  // then found.
  const int expected_found[] = {0, 2, 4};
  const char* expected_shape[] = {"(c)m((m)x)", "(c)m(x)", "(c)x"};
  for (int step = 0; step < 3; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    EXPECT_EQ(IdOf(static_cast<BintreeNode*>(FindKey(tree.get(), "m"))), expected_found[step]);
    Rec* removed = tree.Delete("m");
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(removed->id, expected_found[step]);
    EXPECT_EQ(Shape(tree), expected_shape[step]);
    FreeRec(removed);
  }
  EXPECT_EQ(FindKey(tree.get(), "m"), nullptr);
}

// --- Lookups ---

TEST(BintreeFind, FindsPresentKeysAndNothingElse) {
  TestTree tree;
  tree.InsertAll({"m", "c", "x", "Makefile", "ab"});
  struct Case {
    const char* key;
    int id;  // -1: absent
  };
  const Case cases[] = {
      {"m", 0},  {"c", 1},    {"x", 2}, {"Makefile", 3}, {"ab", 4}, {"makefile", -1}, {"M", -1},
      {"a", -1}, {"abc", -1}, {"", -1}, {"zzz", -1},     {"0", -1}, {"d", -1},        {"mm", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("key \"") + c.key + "\"");
    EXPECT_EQ(IdOf(static_cast<BintreeNode*>(FindKey(tree.get(), c.key))), c.id);
    Rec* probe = NewRec(c.key, 77);
    EXPECT_EQ(IdOf(static_cast<BintreeNode*>(FindBintree(tree.get(), probe))), c.id);
    FreeRec(probe);
  }
  EXPECT_EQ(FindKey(tree.get(), nullptr), nullptr);  // null reads as ""
  EXPECT_EQ(FindKey(nullptr, "m"), nullptr);
}

TEST(BintreeFind, EmptyTreeFindsNothing) {
  TestTree tree;
  EXPECT_EQ(FindKey(tree.get(), ""), nullptr);
  EXPECT_EQ(FindKey(tree.get(), "a"), nullptr);
  EXPECT_EQ(tree.Delete("a"), nullptr);
}

// Reads a field of the node argument that a bare FindKey probe does not
// have; under the address sanitizer this fails if the tree ever passes the
// probe in the node position.
int32_t CompareReadingNodeId(const void* probe, const void* node) {
  volatile int id = static_cast<const Rec*>(node)->id;
  (void)id;
  return CompareFunc(probe, node);
}

TEST(BintreeFind, ComparatorGetsTheProbeFirst) {
  TestTree tree(0, CompareReadingNodeId);
  tree.InsertAll({"m", "c", "x", "a", "z"});
  EXPECT_EQ(IdOf(static_cast<BintreeNode*>(FindKey(tree.get(), "a"))), 3);
  EXPECT_EQ(FindKey(tree.get(), "b"), nullptr);
  EXPECT_EQ(FindKey(tree.get(), "zz"), nullptr);
}

TEST(BintreeCompareFunc, CaseSensitiveUnsignedByteOrder) {
  struct Case {
    const char* a;
    const char* b;
    int sign;
  };
  const Case cases[] = {
      {"a", "a", 0},    {"B", "a", -1},        {"a", "B", 1}, {"/", "0", -1},
      {"ab", "a", 1},   {"", "a", -1},         {"", "", 0},   {"Makefile", "makefile", -1},
      {"\x80", "z", 1}, {"a\xFF", "a\x01", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("\"") + c.a + "\" vs \"" + c.b + "\"");
    BintreeNode pa{nullptr, nullptr, const_cast<char*>(c.a)};
    BintreeNode pb{nullptr, nullptr, const_cast<char*>(c.b)};
    int32_t r = CompareFunc(&pa, &pb);
    EXPECT_EQ((r > 0) - (r < 0), c.sign);
  }
  BintreeNode null_key{nullptr, nullptr, nullptr};
  BintreeNode empty{nullptr, nullptr, const_cast<char*>("")};
  EXPECT_EQ(CompareFunc(&null_key, &empty), 0);
}

// --- LoadKey ---

TEST(BintreeLoadKey, InsertsACopyAndRefusesDuplicates) {
  TestTree tree;
  char text[] = "dir/sub";
  EXPECT_EQ(LoadKey(tree.get(), text), 0);
  text[0] = 'X';
  auto* found = static_cast<BintreeNode*>(FindKey(tree.get(), "dir/sub"));
  ASSERT_NE(found, nullptr);
  EXPECT_NE(found->key, text);
  EXPECT_STREQ(found->key, "dir/sub");
  EXPECT_EQ(found->greater, nullptr);
  EXPECT_EQ(found->lesser, nullptr);
  // A refused copy is freed again (the leak checker watches).
  EXPECT_EQ(LoadKey(tree.get(), "dir/sub"), -1);
  EXPECT_EQ(LoadKey(tree.get(), "dir"), 0);
  EXPECT_EQ(LoadKey(tree.get(), "dir/z"), 0);
  EXPECT_EQ(Shape(tree), "(dir)dir/sub(dir/z)");
}

TEST(BintreeLoadKey, AllowsDuplicatesWhenTheTreeDoes) {
  TestTree tree(1);
  EXPECT_EQ(LoadKey(tree.get(), "k"), 0);
  EXPECT_EQ(LoadKey(tree.get(), "k"), 0);
  EXPECT_EQ(Shape(tree), "k(k)");
}

// --- Delete ---

TEST(BintreeDelete, ReplacementRules) {
  struct Case {
    const char* keys;
    const char* remove;
    const char* shape;  // after the delete
    bool found;
  };
  const Case cases[] = {
      // Greater child without lesser child: it takes the place.
      {"b a c", "b", "(a)c", true},
      {"a b c d", "b", "a(c(d))", true},
      // No greater child: the lesser subtree takes the place.
      {"b a c", "a", "b(c)", true},
      {"b a c", "c", "(a)b", true},
      {"c b a", "c", "(a)b", true},
      {"a d b c", "d", "a(b(c))", true},
      // Deeper greater subtree: its smallest record moves up.
      {"d b f a c e g", "d", "((a)b(c))e(f(g))", true},
      {"d b h f e eb g i", "d", "(b)e(((eb)f(g))h(i))", true},
      {"a d h f e g", "d", "a(e((f(g))h))", true},
      // Nothing matches: nothing changes.
      {"b a c", "x", "(a)b(c)", false},
      {"b a c", "B", "(a)b(c)", false},
      {"", "a", "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("keys \"") + c.keys + "\" remove " + c.remove);
    TestTree tree;
    tree.InsertAll(Split(c.keys));
    Rec* removed = tree.Delete(c.remove);
    EXPECT_EQ(removed != nullptr, c.found);
    if (removed != nullptr) {
      EXPECT_STREQ(removed->key, c.remove);
      EXPECT_EQ(FindKey(tree.get(), c.remove), nullptr);
      FreeRec(removed);
    }
    EXPECT_EQ(Shape(tree), c.shape);
  }
}

TEST(BintreeDelete, RemovedRecordKeepsItsLinks) {
  TestTree tree;
  tree.InsertAll({"b", "a", "c"});
  Rec* a = AsRec(FindKey(tree.get(), "a"));
  Rec* c = AsRec(FindKey(tree.get(), "c"));
  Rec* b = tree.Delete("b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(AsRec(b->lesser), a);
  EXPECT_EQ(AsRec(b->greater), c);
  EXPECT_EQ(tree.root(), c);
  FreeRec(b);
}

TEST(BintreeDelete, DeleteEverythingLeavesAnEmptyTree) {
  TestTree tree;
  tree.InsertAll({"d", "b", "f", "a", "c", "e", "g"});
  for (const char* key : {"d", "a", "g", "e", "b", "f", "c"}) {
    Rec* removed = tree.Delete(key);
    ASSERT_NE(removed, nullptr) << key;
    FreeRec(removed);
  }
  EXPECT_EQ(tree.root(), nullptr);
  EXPECT_EQ(WalkBintree(
                tree.get(), [](void*, uint32_t, void*) -> int { return 0; }, nullptr),
            -1);
  EXPECT_EQ(tree.Insert("x"), 0);
  EXPECT_EQ(Shape(tree), "x");
}

// --- Walks ---

struct Visit {
  std::string key;
  uint32_t depth;
  bool operator==(const Visit& o) const { return key == o.key && depth == o.depth; }
};

std::vector<Visit> InOrder(Bintree* tree, int* result) {
  std::vector<Visit> visits;
  *result = WalkBintree(
      tree,
      [](void* record, uint32_t depth, void* arg) -> int {
        static_cast<std::vector<Visit>*>(arg)->push_back({AsRec(record)->key, depth});
        return 7;  // ignored
      },
      &visits);
  return visits;
}

std::string ToString(const std::vector<Visit>& visits) {
  std::string out;
  for (const Visit& v : visits) {
    out += (out.empty() ? "" : " ") + v.key + ":" + std::to_string(v.depth);
  }
  return out;
}

TEST(BintreeWalk, InOrderWithDepths) {
  struct Case {
    const char* keys;
    const char* visits;
  };
  const Case cases[] = {
      {"b a c", "a:1 b:0 c:1"},
      {"a", "a:0"},
      {"a b c", "a:0 b:1 c:2"},
      {"c b a", "a:2 b:1 c:0"},
      {"d b f a c e g", "a:2 b:1 c:2 d:0 e:2 f:1 g:2"},
      {"a e b d c", "a:0 b:2 c:4 d:3 e:1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.keys);
    TestTree tree;
    tree.InsertAll(Split(c.keys));
    int result = 99;
    EXPECT_EQ(ToString(InOrder(tree.get(), &result)), c.visits);
    EXPECT_EQ(result, 0);
  }
}

struct DepArgs {
  std::vector<std::string> keys;
  bool args_ok = true;
};

int DepVisit(void* record, void* a1, void* a2, void* a3, void* a4, void* a5, void* a6, int32_t a7,
             void* a8) {
  auto* out = static_cast<DepArgs*>(a1);
  out->keys.push_back(AsRec(record)->key);
  uintptr_t want = 2;
  for (void* a : {a2, a3, a4, a5, a6}) {
    out->args_ok = out->args_ok && reinterpret_cast<uintptr_t>(a) == want++;
  }
  out->args_ok = out->args_ok && a7 == -7 && reinterpret_cast<uintptr_t>(a8) == 8;
  return 0;
}

std::string PostOrder(Bintree* tree, int* result, bool* args_ok) {
  DepArgs out;
  *result =
      WalkDepBintree(tree, DepVisit, &out, reinterpret_cast<void*>(2), reinterpret_cast<void*>(3),
                     reinterpret_cast<void*>(4), reinterpret_cast<void*>(5),
                     reinterpret_cast<void*>(6), -7, reinterpret_cast<void*>(8));
  *args_ok = out.args_ok;
  return Join(out.keys);
}

TEST(BintreeWalk, PostOrderChildrenFirst) {
  struct Case {
    const char* keys;
    const char* visits;
  };
  const Case cases[] = {
      {"b a c", "a c b"},
      {"a", "a"},
      {"a b c", "c b a"},
      {"c b a", "a b c"},
      {"d b f a c e g", "a c b e g f d"},
      {"a e b d c", "c d b e a"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.keys);
    TestTree tree;
    tree.InsertAll(Split(c.keys));
    int result = 99;
    bool args_ok = false;
    EXPECT_EQ(PostOrder(tree.get(), &result, &args_ok), c.visits);
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(args_ok);
  }
}

struct WildArgs {
  std::vector<std::string> keys;
  bool args_ok = true;
};

int WildVisit(void* record, void* a1, void* a2, void* a3, void* a4) {
  auto* out = static_cast<WildArgs*>(a1);
  out->keys.push_back(AsRec(record)->key);
  out->args_ok = out->args_ok && reinterpret_cast<uintptr_t>(a2) == 2 &&
                 reinterpret_cast<uintptr_t>(a3) == 3 && reinterpret_cast<uintptr_t>(a4) == 4;
  return 1;
}

TEST(BintreeWalk, WildCardWalkIsInOrderWithItsArguments) {
  TestTree tree;
  tree.InsertAll(Split("d b f a c e g"));
  WildArgs out;
  EXPECT_EQ(WalkWildCardBintree(tree.get(), WildVisit, &out, reinterpret_cast<void*>(2),
                                reinterpret_cast<void*>(3), reinterpret_cast<void*>(4)),
            0);
  EXPECT_EQ(Join(out.keys), "a b c d e f g");
  EXPECT_TRUE(out.args_ok);
}

TEST(BintreeWalk, EmptyTreeReportsMinusOneAndNeverVisits) {
  TestTree tree;
  int result = 0;
  EXPECT_TRUE(InOrder(tree.get(), &result).empty());
  EXPECT_EQ(result, -1);
  bool args_ok = false;
  EXPECT_EQ(PostOrder(tree.get(), &result, &args_ok), "");
  EXPECT_EQ(result, -1);
  WildArgs out;
  EXPECT_EQ(WalkWildCardBintree(tree.get(), WildVisit, &out, nullptr, nullptr, nullptr), -1);
  EXPECT_TRUE(out.keys.empty());
  EXPECT_EQ(InOrder(nullptr, &result).size(), 0u);
  EXPECT_EQ(result, -1);
}

// --- Destroy ---

TEST(BintreeDestroy, ReleasesTheRootUntilEmpty) {
  struct Case {
    const char* keys;
    const char* order;
  };
  const Case cases[] = {
      {"b a c", "b c a"},
      {"a b c d", "a b c d"},
      {"d c b a", "d c b a"},
      {"d b f a c e g", "d e f g b c a"},
      {"a e b d c", "a b c d e"},
      {"m", "m"},
      {"", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.keys);
    TestTree tree;
    tree.InsertAll(Split(c.keys));
    ReleaseLog log;
    tree.Destroy();
    EXPECT_EQ(Join(log.keys()), c.order);
    EXPECT_EQ(tree.head()->greater, nullptr);
    EXPECT_STREQ(tree.head()->key, "");  // the head is not released
  }
}

std::vector<int>* g_released_ids = nullptr;

TEST(BintreeDestroy, NeedsNoKeysToUnlink) {
  TestTree tree;
  tree.InsertAll(Split("d b f a c e g"));
  // A caller that releases every record's texts first, then destroys.
  WalkBintree(
      tree.get(),
      [](void* record, uint32_t, void*) -> int {
        FreeRecText(record);
        return 0;
      },
      nullptr);
  std::vector<int> ids;
  g_released_ids = &ids;
  tree.Destroy([](void* record) { g_released_ids->push_back(AsRec(record)->id); });
  g_released_ids = nullptr;
  // d e f g b c a, as when the keys are there.
  EXPECT_EQ(ids, (std::vector<int>{0, 5, 2, 6, 1, 4, 3}));
}

TEST(BintreeDestroy, NullTreeAndNullReleaseAreHarmless) {
  DestroyBintree(nullptr, LogAndFreeText);
  // Keys that are not safe strings: nothing for a release function to do.
  static char keys[][2] = {"b", "a", "c"};
  Rec* head = NewRec("", -1);
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(Rec));
  for (char* key : {keys[0], keys[1], keys[2]}) {
    auto* rec = AsRec(InitBintreeNode(sizeof(Rec)));
    rec->key = key;
    ASSERT_EQ(InsBintree(tree, rec), 0);
  }
  DestroyBintree(tree, nullptr);
  FreeRec(head);
}

// --- Against the reference descent ---

enum class Order { kRandom, kAscending, kDescending, kZigZag, kFewKeys };

std::vector<std::string> MakeKeys(Order order, size_t count, std::mt19937* rng) {
  std::vector<std::string> keys;
  char buf[32];
  for (size_t i = 0; i < count; ++i) {
    size_t n = i;
    switch (order) {
      case Order::kRandom:
        n = (*rng)() % (count * 2);  // some repeats
        break;
      case Order::kAscending:
        break;
      case Order::kDescending:
        n = count - i;
        break;
      case Order::kZigZag:
        n = i % 2 == 0 ? i / 2 : count - i / 2;
        break;
      case Order::kFewKeys:
        n = (*rng)() % 40;
        break;
    }
    std::snprintf(buf, sizeof buf, "k%07zu", n);
    keys.push_back(buf);
  }
  return keys;
}

// Every linked record has the same neighbours in both trees.
void ExpectSameLinks(const TestTree& tree, const RefTree& ref, const std::vector<Rec*>& recs,
                     const std::vector<RefNode>& refs, const std::vector<bool>& linked) {
  ASSERT_EQ(IdOf(tree.head()->greater), IdOf(ref.root()));
  size_t mismatches = 0;
  for (size_t id = 0; id < recs.size(); ++id) {
    if (!linked[id]) {
      continue;
    }
    if (IdOf(recs[id]->greater) != IdOf(refs[id].greater) ||
        IdOf(recs[id]->lesser) != IdOf(refs[id].lesser)) {
      if (++mismatches <= 5) {
        ADD_FAILURE() << "record " << id << " (" << refs[id].key << "): greater "
                      << IdOf(recs[id]->greater) << " vs " << IdOf(refs[id].greater) << ", lesser "
                      << IdOf(recs[id]->lesser) << " vs " << IdOf(refs[id].lesser);
      }
    }
  }
  EXPECT_EQ(mismatches, 0u);
}

TEST(BintreeReference, SameLinksFindsDeletesAndReleaseOrder) {
  struct Case {
    const char* name;
    Order order;
    size_t count;
    int32_t allow_duplicates;
  };
  const Case cases[] = {
      {"random", Order::kRandom, 10000, 0},
      {"random with duplicates", Order::kRandom, 10000, 1},
      {"few keys with duplicates", Order::kFewKeys, 3000, 1},
      {"ascending", Order::kAscending, 4000, 0},
      {"descending", Order::kDescending, 4000, 1},
      {"zigzag", Order::kZigZag, 4000, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::mt19937 rng(12345);
    std::vector<std::string> keys = MakeKeys(c.order, c.count, &rng);
    // Records past the first set are inserted after the deletions.
    std::vector<std::string> more = MakeKeys(Order::kRandom, c.count / 4, &rng);
    keys.insert(keys.end(), more.begin(), more.end());
    const size_t first = c.count;

    TestTree tree(c.allow_duplicates);
    RefTree ref(c.allow_duplicates != 0);
    std::vector<Rec*> recs(keys.size(), nullptr);
    std::vector<RefNode> refs(keys.size());
    std::vector<bool> linked(keys.size(), false);

    auto insert = [&](size_t id) {
      recs[id] = NewRec(keys[id], static_cast<int>(id));
      refs[id].key = keys[id];
      refs[id].id = static_cast<int>(id);
      int got = InsBintree(tree.get(), recs[id]);
      int want = ref.Insert(&refs[id]);
      EXPECT_EQ(got, want) << "insert " << keys[id];
      if (got == 0) {
        linked[id] = true;
      } else {
        FreeRec(recs[id]);
        recs[id] = nullptr;
      }
    };
    for (size_t id = 0; id < first; ++id) {
      insert(id);
    }
    ExpectSameLinks(tree, ref, recs, refs, linked);

    // Delete about half of the keys, some of them absent or already gone.
    size_t delete_mismatches = 0;
    for (size_t i = 0; i < first / 2; ++i) {
      std::string key = keys[rng() % first];
      if (i % 10 == 0) {
        key += "-absent";
      }
      Rec* got = tree.Delete(key);
      RefNode* want = ref.Delete(key);
      if (IdOf(AsNode(got)) != IdOf(want)) {
        ++delete_mismatches;
      }
      if (got != nullptr) {
        linked[static_cast<size_t>(got->id)] = false;
        recs[static_cast<size_t>(got->id)] = nullptr;
        FreeRec(got);
      }
    }
    EXPECT_EQ(delete_mismatches, 0u);
    ExpectSameLinks(tree, ref, recs, refs, linked);

    for (size_t id = first; id < keys.size(); ++id) {
      insert(id);
    }
    ExpectSameLinks(tree, ref, recs, refs, linked);

    size_t find_mismatches = 0;
    for (size_t id = 0; id < keys.size(); ++id) {
      for (const std::string& key : {keys[id], keys[id] + "x"}) {
        if (IdOf(static_cast<BintreeNode*>(FindKey(tree.get(), key.c_str()))) !=
            IdOf(ref.Find(key))) {
          ++find_mismatches;
        }
      }
    }
    EXPECT_EQ(find_mismatches, 0u);

    // Release order: the reference removes its root until empty.
    std::vector<std::string> want_order;
    while (ref.root() != nullptr) {
      want_order.push_back(ref.Delete(ref.root()->key)->key);
    }
    ReleaseLog log;
    tree.Destroy();
    EXPECT_TRUE(log.keys() == want_order) << "release order differs";
  }
}

// --- Chains: one million records in sorted order ---

constexpr int kChain = 1000000;

std::string ChainKey(int i) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%07d", i);
  return buf;
}

struct ChainCheck {
  int next = 0;
  int step = 1;
  bool with_depth = false;
  int depth_base = 0;
  int depth_step = 1;
  size_t bad = 0;
  size_t visits = 0;

  void See(const void* record, uint32_t depth) {
    const char* key = static_cast<const BintreeNode*>(record)->key;
    if (ChainKey(next) != key ||
        (with_depth && depth != static_cast<uint32_t>(depth_base + depth_step * next))) {
      ++bad;
    }
    next += step;
    ++visits;
  }
};

void CheckChain(bool ascending) {
  Rec* head = NewRec("", -1);
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(BintreeNode));
  size_t load_failures = 0;
  for (int n = 0; n < kChain; ++n) {
    int i = ascending ? n : kChain - 1 - n;
    load_failures += LoadKey(tree, ChainKey(i).c_str()) != 0;
  }
  ASSERT_EQ(load_failures, 0u);
  // A chain: every record has one child, on the side of the sort order.
  BintreeNode* root = head->greater;
  ASSERT_NE(root, nullptr);
  EXPECT_STREQ(root->key, ChainKey(ascending ? 0 : kChain - 1).c_str());
  EXPECT_EQ(ascending ? root->lesser : root->greater, nullptr);

  size_t find_failures = 0;
  for (int i = 0; i < kChain; ++i) {
    std::string key = ChainKey(i);
    auto* found = static_cast<BintreeNode*>(FindKey(tree, key.c_str()));
    find_failures += found == nullptr || key != found->key;
  }
  EXPECT_EQ(find_failures, 0u);
  EXPECT_EQ(FindKey(tree, "9999999"), nullptr);
  EXPECT_EQ(LoadKey(tree, ChainKey(kChain / 2).c_str()), -1);

  // In order: ascending keys, depth = distance from the root.
  ChainCheck in_order;
  in_order.with_depth = true;
  in_order.depth_base = ascending ? 0 : kChain - 1;
  in_order.depth_step = ascending ? 1 : -1;
  EXPECT_EQ(WalkBintree(
                tree,
                [](void* record, uint32_t depth, void* arg) -> int {
                  static_cast<ChainCheck*>(arg)->See(record, depth);
                  return 0;
                },
                &in_order),
            0);
  EXPECT_EQ(in_order.visits, static_cast<size_t>(kChain));
  EXPECT_EQ(in_order.bad, 0u);

  ChainCheck wild;
  EXPECT_EQ(WalkWildCardBintree(
                tree,
                [](void* record, void* a1, void*, void*, void*) -> int {
                  static_cast<ChainCheck*>(a1)->See(record, 0);
                  return 0;
                },
                &wild, nullptr, nullptr, nullptr),
            0);
  EXPECT_EQ(wild.visits, static_cast<size_t>(kChain));
  EXPECT_EQ(wild.bad, 0u);

  // Post-order: the deepest record first, the root last.
  ChainCheck post;
  post.next = ascending ? kChain - 1 : 0;
  post.step = ascending ? -1 : 1;
  EXPECT_EQ(
      WalkDepBintree(
          tree,
          [](void* record, void* a1, void*, void*, void*, void*, void*, int32_t, void*) -> int {
            static_cast<ChainCheck*>(a1)->See(record, 0);
            return 0;
          },
          &post, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr),
      0);
  EXPECT_EQ(post.visits, static_cast<size_t>(kChain));
  EXPECT_EQ(post.bad, 0u);

  // Destroy removes the root each time: the chain's order from the root.
  ReleaseLog log;
  DestroyBintree(tree, LogAndFreeText);
  ASSERT_EQ(log.keys().size(), static_cast<size_t>(kChain));
  size_t order_failures = 0;
  for (int n = 0; n < kChain; ++n) {
    order_failures +=
        log.keys()[static_cast<size_t>(n)] != ChainKey(ascending ? n : kChain - 1 - n);
  }
  EXPECT_EQ(order_failures, 0u);
  EXPECT_EQ(head->greater, nullptr);
  FreeRec(head);
}

TEST(BintreeChain, MillionAscendingKeys) { CheckChain(true); }

TEST(BintreeChain, MillionDescendingKeys) { CheckChain(false); }

// 0, then n down to 1: the root's greater child heads a lesser chain, so
// every root removal moves the smallest record of that chain up.
TEST(BintreeChain, ZigZagDestroyMovesTheSuccessorUp) {
  constexpr int kCount = 200000;
  Rec* head = NewRec("", -1);
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(BintreeNode));
  ASSERT_EQ(LoadKey(tree, ChainKey(0).c_str()), 0);
  for (int i = kCount; i >= 1; --i) {
    ASSERT_EQ(LoadKey(tree, ChainKey(i).c_str()), 0);
  }
  BintreeNode* top = head->greater->greater;
  EXPECT_STREQ(top->key, ChainKey(kCount).c_str());
  EXPECT_STREQ(top->lesser->key, ChainKey(kCount - 1).c_str());
  // One removal by hand: 1 moves up and keeps the chain below kCount.
  auto* zero = static_cast<BintreeNode*>(DelBintree(tree, head->greater));
  ASSERT_NE(zero, nullptr);
  EXPECT_STREQ(zero->key, ChainKey(0).c_str());
  safe_free(&zero->key);
  tfree(zero);
  EXPECT_STREQ(head->greater->key, ChainKey(1).c_str());
  EXPECT_EQ(head->greater->lesser, nullptr);
  EXPECT_EQ(head->greater->greater, top);
  EXPECT_STREQ(top->lesser->key, ChainKey(kCount - 1).c_str());

  ReleaseLog log;
  DestroyBintree(tree, LogAndFreeText);
  ASSERT_EQ(log.keys().size(), static_cast<size_t>(kCount));
  size_t order_failures = 0;
  for (int n = 0; n < kCount; ++n) {
    order_failures += log.keys()[static_cast<size_t>(n)] != ChainKey(n + 1);
  }
  EXPECT_EQ(order_failures, 0u);
  FreeRec(head);
}

}  // namespace
