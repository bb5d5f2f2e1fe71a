// Times the ordered tree on the shapes the run meets: one million keys
// inserted in ascending order (an earlier inventory read back), in
// descending order, in random order, and in a zigzag whose root removals
// each move a successor up. Prints one line per phase. It exits with 1 when
// a key is not found or the ascending keys do not form a chain as deep as
// their count (the test suite checks the chain's links at a smaller scale).
//
//   bintree_bench [count]    (default 1000000)

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/bintree.h"
#include "support/strings.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

void FreeKey(void* record) { safe_free(&static_cast<BintreeNode*>(record)->key); }

int CountVisit(void*, uint32_t depth, void* arg) {
  auto* max_depth = static_cast<uint32_t*>(arg);
  if (depth > *max_depth) {
    *max_depth = depth;
  }
  return 0;
}

// Returns the height of the tree the keys made, 0 when a key was not found.
uint32_t Run(const char* name, const std::vector<std::string>& keys) {
  auto* head = static_cast<BintreeNode*>(InitBintreeNode(sizeof(BintreeNode)));
  safe_cpy(&head->key, "");
  Bintree* tree = NewBintree(head, CompareFunc, 0, sizeof(BintreeNode));

  auto start = Clock::now();
  for (const std::string& key : keys) {
    LoadKey(tree, key.c_str());
  }
  double insert = Seconds(start);

  start = Clock::now();
  size_t found = 0;
  for (const std::string& key : keys) {
    found += FindKey(tree, key.c_str()) != nullptr;
  }
  double find = Seconds(start);

  start = Clock::now();
  uint32_t height = 0;
  WalkBintree(tree, CountVisit, &height);
  double walk = Seconds(start);

  start = Clock::now();
  DestroyBintree(tree, FreeKey);
  double destroy = Seconds(start);

  safe_free(&head->key);
  tfree(head);
  std::printf(
      "%-10s %8zu keys  height %8u  insert %6.2fs  find %6.2fs  walk %6.2fs  destroy %6.2fs\n",
      name, found, height + 1, insert, find, walk, destroy);
  std::fflush(stdout);
  return found == keys.size() ? height + 1 : 0;
}

std::string Key(size_t i) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "/build/dir%03zu/file%07zu.o", i % 1000, i);
  return buf;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 1000000;
  if (argc > 1) {
    count = std::strtoul(argv[1], nullptr, 10);
  }
  std::vector<std::string> keys;
  keys.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    keys.push_back(Key(i));
  }
  std::vector<std::string> sorted = keys;
  std::sort(sorted.begin(), sorted.end());
  bool ok = count == 0 || Run("ascending", sorted) == count;

  std::vector<std::string> reversed(sorted.rbegin(), sorted.rend());
  ok = Run("descending", reversed) != 0 && ok;

  std::vector<std::string> shuffled = sorted;
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
  ok = Run("random", shuffled) != 0 && ok;

  // Smallest, then largest down to the second smallest.
  std::vector<std::string> zigzag;
  zigzag.reserve(count);
  if (count > 0) {
    zigzag.push_back(sorted.front());
    zigzag.insert(zigzag.end(), sorted.rbegin(), sorted.rend() - 1);
  }
  ok = Run("zigzag", zigzag) != 0 && ok;
  return ok ? 0 : 1;
}
