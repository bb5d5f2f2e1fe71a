#include "support/safestring.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

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

// Flag bits of the capacity word of a block an arena holds. No heap block
// comes near these sizes (the allocation would fail first).
constexpr uint64_t kHeldBit = uint64_t{1} << 63;
constexpr uint64_t kSharedBit = uint64_t{1} << 62;
constexpr uint64_t kCapacityMask = kSharedBit - 1;

char* BlockStart(const char* p) { return const_cast<char*>(p) - kHeader; }

void StoreCapacity(char* p, uint64_t capacity) {
  std::memcpy(p - sizeof capacity, &capacity, sizeof capacity);
}

uint64_t LoadWord(const char* p) {
  uint64_t word = 0;
  std::memcpy(&word, p - sizeof word, sizeof word);
  return word;
}

uint64_t LoadCapacity(const char* p) { return LoadWord(p) & kCapacityMask; }

bool Held(const char* p) { return (LoadWord(p) & kHeldBit) != 0; }

bool Shared(const char* p) { return (LoadWord(p) & kSharedBit) != 0; }

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
  if (block != nullptr && !Held(static_cast<const char*>(block))) {
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
  if (Shared(*s) && std::strcmp(*s, text) == 0) {
    return;  // nothing would change
  }
  if (Shared(*s) || LoadCapacity(*s) < len) {
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
  if (add == 0) {
    return;  // nothing would change
  }
  const size_t have = std::strlen(*s);
  const size_t want = CheckedAdd(have, add);
  if (Shared(*s) || want > LoadCapacity(*s)) {
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
    if (!Held(*s)) {
      std::free(BlockStart(*s));
    }
    *s = nullptr;
  }
}

// --- Arenas ---

// Chunks are chained newest first. The first is small, so that a tree of a
// few records costs little; each next one doubles up to kMaxChunk. A block
// larger than that gets a chunk of its own size.
struct ArenaChunk {
  ArenaChunk* next;
};

struct TextArena {
  ArenaChunk* chunks = nullptr;
  char* cursor = nullptr;  // first free byte of the newest chunk
  char* end = nullptr;
  size_t next_size = 0;
  // Shared texts handed out lately, reused for an equal text.
  static constexpr size_t kRecent = 4;
  char* recent[kRecent] = {};
  size_t next_recent = 0;
};

namespace {

constexpr size_t kFirstChunk = 4096;
constexpr size_t kMaxChunk = size_t{1} << 20;
constexpr size_t kChunkHeader = alignof(std::max_align_t);
constexpr size_t kWord = sizeof(uint64_t);

static_assert(sizeof(ArenaChunk) <= kChunkHeader);

char* AlignUp(char* p, size_t align) {
  auto at = reinterpret_cast<uintptr_t>(p);
  return p + ((align - at % align) % align);
}

// Room for a capacity word and `bytes` payload bytes with the payload
// aligned to `align`; returns the payload (zero-filled: chunks come zeroed
// and are never reused).
char* Take(TextArena* arena, size_t bytes, size_t align) {
  const size_t need = CheckedAdd(CheckedAdd(bytes, kWord), align);
  if (arena->cursor == nullptr || static_cast<size_t>(arena->end - arena->cursor) < need) {
    size_t size = arena->next_size == 0 ? kFirstChunk : arena->next_size;
    arena->next_size = size < kMaxChunk ? size * 2 : kMaxChunk;
    if (size - kChunkHeader < need) {
      size = CheckedAdd(need, kChunkHeader);
    }
    void* raw = std::calloc(1, size);
    if (raw == nullptr) {
      OutOfMemory();
    }
    auto* chunk = static_cast<ArenaChunk*>(raw);
    chunk->next = arena->chunks;
    arena->chunks = chunk;
    arena->cursor = static_cast<char*>(raw) + kChunkHeader;
    arena->end = static_cast<char*>(raw) + size;
  }
  char* payload = AlignUp(arena->cursor + kWord, align);
  arena->cursor = payload + bytes;
  return payload;
}

char* HeldText(TextArena* arena, const char* text, size_t capacity, uint64_t flags) {
  const size_t len = std::strlen(text);
  if (capacity < len) {
    capacity = len;
  }
  char* p = Take(arena, CheckedAdd(capacity, 1), 1);
  std::memcpy(p, text, len);
  StoreCapacity(p, capacity | kHeldBit | flags);
  return p;
}

}  // namespace

TextArena* NewArena() {
  void* raw = std::calloc(1, sizeof(TextArena));
  if (raw == nullptr) {
    OutOfMemory();
  }
  return new (raw) TextArena;
}

void FreeArena(TextArena* arena) {
  if (arena == nullptr) {
    return;
  }
  for (ArenaChunk* chunk = arena->chunks; chunk != nullptr;) {
    ArenaChunk* next = chunk->next;
    std::free(chunk);
    chunk = next;
  }
  arena->~TextArena();
  std::free(arena);
}

void* ArenaBlock(TextArena* arena, size_t size) {
  char* p = Take(arena, size, alignof(uint64_t) > alignof(void*) ? alignof(uint64_t)
                                                                    : alignof(void*));
  StoreCapacity(p, size | kHeldBit);
  return p;
}

char* ArenaText(TextArena* arena, const char* text, size_t capacity) {
  return HeldText(arena, text, capacity, 0);
}

char* ArenaSharedText(TextArena* arena, const char* text) {
  for (char* known : arena->recent) {
    if (known != nullptr && std::strcmp(known, text) == 0) {
      return known;
    }
  }
  char* p = HeldText(arena, text, 0, kSharedBit);
  arena->recent[arena->next_recent] = p;
  arena->next_recent = (arena->next_recent + 1) % TextArena::kRecent;
  return p;
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
