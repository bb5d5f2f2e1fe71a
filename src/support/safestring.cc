#include "support/safestring.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Every sized block starts with a header whose last 8 bytes are the capacity
// word, so the word sits directly before the pointer handed out. The header is
// as large as the strictest fundamental alignment, which keeps the returned
// pointer suitably aligned for any record a caller places there.
constexpr size_t kHeader = alignof(std::max_align_t) > sizeof(uint64_t) ? alignof(std::max_align_t)
                                                                        : sizeof(uint64_t);
constexpr size_t kMinSafeCapacity = 50;
constexpr const char kOutOfMemory[] = "Out of memory (tmalloc)";

[[noreturn]] void OutOfMemory() {
  std::puts(kOutOfMemory);
  std::fflush(stdout);
  std::exit(1);
}

// a + b, or the out-of-memory exit when the sum would wrap.
size_t CheckedAdd(size_t a, size_t b) {
  if (a > SIZE_MAX - b) {
    OutOfMemory();
  }
  return a + b;
}

char* BlockStart(const char* p) { return const_cast<char*>(p) - kHeader; }

void StoreCapacity(char* p, uint64_t capacity) {
  std::memcpy(p - sizeof capacity, &capacity, sizeof capacity);
}

uint64_t LoadCapacity(const char* p) {
  uint64_t capacity = 0;
  std::memcpy(&capacity, p - sizeof capacity, sizeof capacity);
  return capacity;
}

// A zero-filled block with room for `bytes` payload bytes and the capacity
// word set to `capacity`.
char* NewBlock(size_t bytes, uint64_t capacity) {
  void* raw = std::calloc(1, CheckedAdd(bytes, kHeader));
  if (raw == nullptr) {
    OutOfMemory();
  }
  char* p = static_cast<char*>(raw) + kHeader;
  StoreCapacity(p, capacity);
  return p;
}

// A safe string block of the given capacity: capacity characters, the
// terminator, and `spare` extra bytes beyond it.
char* NewSafeBlock(size_t capacity, size_t spare) {
  return NewBlock(CheckedAdd(CheckedAdd(capacity, 1), spare), capacity);
}

}  // namespace

// --- Memory ---

void* tmalloc(size_t size) { return NewBlock(size, size); }

void tfree(void* block) {
  if (block != nullptr) {
    std::free(BlockStart(static_cast<const char*>(block)));
  }
}

char* str_malloc(const char* text) {
  size_t len = std::strlen(text);
  return NewSafeBlock(len > kMinSafeCapacity ? len : kMinSafeCapacity, 0);
}

size_t safe_capacity(const char* s) {
  return s == nullptr ? 0 : static_cast<size_t>(LoadCapacity(s));
}

// The old block is released only after the text has been copied, so text may
// point into *s.
void safe_cpy(char** s, const char* text) {
  if (text == nullptr) {
    return;
  }
  const size_t len = std::strlen(text);
  if (*s == nullptr) {
    char* fresh = str_malloc(text);
    std::memcpy(fresh, text, len + 1);
    *s = fresh;
    return;
  }
  if (LoadCapacity(*s) < len) {
    char* fresh = NewSafeBlock(len, 0);
    std::memcpy(fresh, text, len + 1);
    safe_free(s);
    *s = fresh;
    return;
  }
  std::memmove(*s, text, len + 1);
}

// As in safe_cpy, text may point into *s: the old block outlives the copy.
void safe_cat(char** s, const char* text) {
  if (text == nullptr) {
    return;
  }
  const size_t add = std::strlen(text);
  if (*s == nullptr) {
    char* fresh = str_malloc(text);
    if (add > 0) {
      std::memcpy(fresh, text, add + 1);
    }
    *s = fresh;
    return;
  }
  const size_t have = std::strlen(*s);
  const size_t want = CheckedAdd(have, add);
  if (want > LoadCapacity(*s)) {
    // One spare byte beyond the terminator, as the old allocator kept.
    char* fresh = NewSafeBlock(want, 1);
    std::memcpy(fresh, *s, have);
    std::memcpy(fresh + have, text, add);
    fresh[want] = '\0';
    safe_free(s);
    *s = fresh;
    return;
  }
  std::memmove(*s + have, text, add);
  (*s)[want] = '\0';
}

void safe_free(char** s) {
  if (s != nullptr && *s != nullptr) {
    std::free(BlockStart(*s));
    *s = nullptr;
  }
}

// --- Growable string holder ---

namespace {

// The holder's capacity is a signed 32-bit count; larger texts store the
// largest count, which stays below the real buffer size, so the holder keeps
// working (it only regrows more often than needed).
int32_t HolderCapacity(size_t n) {
  return n > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(n);
}

bool HolderFits(const StringHolder* holder, size_t need) {
  return holder->buf != nullptr && holder->capacity > 0 &&
         static_cast<size_t>(holder->capacity) > need;
}

char* ZeroedBuffer(size_t bytes) {
  void* raw = std::calloc(1, bytes);
  if (raw == nullptr) {
    OutOfMemory();
  }
  return static_cast<char*>(raw);
}

}  // namespace

char* StringCopy(StringHolder* holder, const char* text) {
  const size_t len = std::strlen(text);
  if (!HolderFits(holder, len)) {
    char* fresh = ZeroedBuffer(CheckedAdd(len, 2));
    std::memcpy(fresh, text, len + 1);
    std::free(holder->buf);
    holder->buf = fresh;
    holder->capacity = HolderCapacity(len);
    return holder->buf;
  }
  std::memmove(holder->buf, text, len + 1);
  return holder->buf;
}

// The old code saved the current text in a 4,120-byte working buffer while
// regrowing; here the new buffer receives it directly, so any length works.
char* StringConcat(StringHolder* holder, const char* text) {
  const size_t add = std::strlen(text);
  const size_t have = holder->buf == nullptr ? 0 : std::strlen(holder->buf);
  const size_t want = CheckedAdd(have, add);
  if (!HolderFits(holder, want)) {
    char* fresh = ZeroedBuffer(CheckedAdd(want, 2));
    if (have > 0) {
      std::memcpy(fresh, holder->buf, have);
    }
    std::memcpy(fresh + have, text, add);
    std::free(holder->buf);
    holder->buf = fresh;
    holder->capacity = HolderCapacity(want);
    return holder->buf;
  }
  std::memmove(holder->buf + have, text, add);
  holder->buf[want] = '\0';
  return holder->buf;
}
