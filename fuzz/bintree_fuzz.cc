// Ordered tree: a sequence of inserts, lookups, deletions and walks driven
// by the input, checked against a sorted model after every step that
// changes the tree.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "inventory/filenode.h"
#include "support/bintree.h"
#include "support/strings.h"

namespace {

struct Walk {
  std::vector<std::string> keys;
};

int Collect(void* record, uint32_t /*depth*/, void* arg) {
  static_cast<Walk*>(arg)->keys.emplace_back(static_cast<BintreeNode*>(record)->key);
  return 0;
}

int Collect4(void* record, void* a1, void*, void*, void*) {
  return Collect(record, 0, a1);
}

int Collect8(void* record, void* a1, void*, void*, void*, void*, void*, int32_t, void*) {
  return Collect(record, 0, a1);
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "bintree: %s\n", what);
  std::abort();
}

// The keys in the order the links themselves give (lesser, record,
// greater), independent of anything the tree keeps beside its links. A
// cycle or a record reached twice shows as more keys than the model holds.
std::vector<std::string> LinkOrder(Bintree* tree, size_t limit) {
  std::vector<std::string> keys;
  std::vector<BintreeNode*> stack;
  BintreeNode* node = tree->head->greater;
  while ((node != nullptr || !stack.empty()) && keys.size() <= limit) {
    while (node != nullptr && stack.size() <= limit) {
      stack.push_back(node);
      node = node->lesser;
    }
    if (stack.size() > limit)
      Fail("the links hold a cycle");
    node = stack.back();
    stack.pop_back();
    keys.emplace_back(node->key);
    node = node->greater;
  }
  return keys;
}

void Check(Bintree* tree, const std::multiset<std::string>& model) {
  const std::vector<std::string> linked = LinkOrder(tree, model.size());
  if (!std::equal(linked.begin(), linked.end(), model.begin(), model.end()))
    Fail("the links' order differs from the model");
  Walk walk;
  WalkBintree(tree, Collect, &walk);
  if (!std::equal(walk.keys.begin(), walk.keys.end(), model.begin(), model.end()))
    Fail("in-order walk differs from the model");
  Walk walk4;
  WalkWildCardBintree(tree, Collect4, &walk4, nullptr, nullptr, nullptr);
  if (walk4.keys != walk.keys)
    Fail("four-argument walk differs from the in-order walk");
  Walk post;
  WalkDepBintree(tree, Collect8, &post, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
  if (post.keys.size() != model.size())
    Fail("post-order walk missed records");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const int duplicates = in.Byte() & 1;
  Bintree* tree = NewBintree(nullptr, CompareFunc, duplicates, sizeof(DirNode));
  std::multiset<std::string> model;
  int steps = 0;
  while (!in.empty() && ++steps <= 2000) {
    const uint8_t op = in.Byte();
    const std::string raw = in.Line();
    const std::string key(raw.c_str());  // the tree sees the text up to a NUL
    switch (op % 4) {
      case 0:
      case 1: {
        const bool present = model.count(key) != 0;
        const int result = LoadKey(tree, raw.c_str());
        if (result == 0) {
          if (present && !duplicates)
            Fail("duplicate accepted");
          model.insert(key);
        } else if (!present || duplicates) {
          Fail("insert refused");
        }
        break;
      }
      case 2: {
        void* found = FindKey(tree, raw.c_str());
        if ((found != nullptr) != (model.count(key) != 0))
          Fail("lookup disagrees with the model");
        if (found && std::strcmp(static_cast<BintreeNode*>(found)->key, key.c_str()) != 0)
          Fail("lookup found another key");
        break;
      }
      default: {
        BintreeNode probe{nullptr, nullptr, const_cast<char*>(key.c_str())};
        void* gone = DelBintree(tree, &probe);
        auto it = model.find(key);
        if ((gone != nullptr) != (it != model.end()))
          Fail("deletion disagrees with the model");
        if (gone) {
          model.erase(it);
          FreeBNode(gone);
          tfree(gone);
        }
        break;
      }
    }
    if (op & 0x80)
      Check(tree, model);
  }
  Check(tree, model);
  DestroyBintree(tree, FreeBNode);
  return 0;
}
