#pragma once
// The safe-string allocator: sized heap blocks (tmalloc/tfree) and the
// growable heap "safe string".
//
// Safe strings: a `char*` that points just past a 64-bit capacity word. The
// capacity counts the characters the block holds without its terminator; one
// more byte always follows for the terminator, so the text is always
// NUL-terminated. A safe string is handled through the address of the owner's
// pointer variable; a null pointer variable means "no string yet". Only
// safe_free may release one. Every grow checks for size_t wrap-around; if an
// allocation fails, "Out of memory (tmalloc)" is printed and the process ends
// with status 1. Nothing here takes a lock; blocks may be made and freed on
// any thread.
//
// Arenas: records and safe strings of one owner (a tree) can instead come from
// a TextArena and are then released all at once with it. Their capacity word
// carries two flag bits above the capacity: "held by an arena" (tfree and
// safe_free leave the block alone; safe_free only forgets it) and "shared"
// (the same text serves many owners, so it is never written: safe_cpy and
// safe_cat give the owner a heap block of its own first). A held text that is
// not shared is written in place while it fits, like any other.

#include <cstddef>
#include <cstdint>

// --- Memory ---

// size bytes, zero-filled, preceded by a capacity word holding size, aligned
// for any fundamental type. Release with tfree. Prints "Out of memory
// (tmalloc)" and exits 1 on failure (also when size + header would wrap).
void* tmalloc(size_t size);
// Release a block from tmalloc. Null is ignored.
void tfree(void* block);
// A zero-filled safe string block of capacity max(strlen(text), 50); the text
// is not copied.
char* str_malloc(const char* text);
// Capacity word of a safe string (0 for null).
size_t safe_capacity(const char* s);
// Copy text into *s: null text does nothing; a null *s is made with
// str_malloc(text); a block smaller than the text is replaced by one of
// capacity exactly strlen(text). text may point into *s.
void safe_cpy(char** s, const char* text);
// Append text to *s: null text does nothing; a null *s is made with
// str_malloc(text); a block too small is replaced by one of capacity
// strlen(*s) + strlen(text) (with one spare byte beyond the terminator).
// text may point into *s.
void safe_cat(char** s, const char* text);
// Free *s (if not null) and set it to null.
void safe_free(char** s);

// --- Arenas ---

// A region of held blocks, grown in chunks and freed at once. It takes no
// lock: one thread at a time may use an arena (threads may each use their
// own). Blocks never move. Writing into an unshared text in place is allowed
// from any thread while nobody else touches that text.
struct TextArena;
// A new empty arena; FreeArena releases it with every block it handed out.
TextArena* NewArena();
// Release the arena and all its blocks. Null is ignored.
void FreeArena(TextArena* arena);
// size zero-filled bytes aligned for pointers and 64-bit numbers, preceded by
// a held capacity word holding size. tfree ignores the block.
void* ArenaBlock(TextArena* arena, size_t size);
// A held safe string holding a copy of text, with capacity
// max(strlen(text), capacity) (the bytes beyond the text are zero).
char* ArenaText(TextArena* arena, const char* text, size_t capacity = 0);
// A held, shared safe string holding text: the arena hands out the same
// block again for the same text asked for recently (the last few distinct
// texts are remembered). Its capacity reads as the text's length.
char* ArenaSharedText(TextArena* arena, const char* text);

// Growable string holder for StringCopy / StringConcat. `buf` is owned (free
// with std::free), `capacity` counts characters without the terminator; start
// from {nullptr, 0}. Both functions regrow when capacity is not greater than
// the length needed, to a zeroed buffer of that length + 2 bytes with
// capacity = that length, and return buf. Any length works.
struct StringHolder {
  char* buf;
  int32_t capacity;
};
char* StringCopy(StringHolder* holder, const char* text);
char* StringConcat(StringHolder* holder, const char* text);
