#pragma once
// Content digest of a file: the message-digest procedure (the published
// 4-round, 64-step routine with its standard constants) carried out on 64-bit
// words, rendered as 32 lowercase hex characters of which only the first 8
// vary.
//
// The word width is part of the format: inventories of earlier runs hold
// digests made this way, and a 32-bit digest would never match them. So the
// procedure is reproduced exactly, including the way it works inside one
// contiguous work area:
//
//   offset    0  buf   4 state words (unsigned 64-bit, little-endian bytes)
//   offset   32  bits  2 bit-count words (low, high)
//   offset   48  in    the 64-byte block buffer
//   offset  112        the 1,024-byte read buffer of mdfile
//
// The transform reads 16 message words at an 8-byte stride starting at `in`,
// so the second half of its words comes from the first 64 bytes of the read
// buffer; the word conversion and the final bit counts also write past `in`
// into the read buffer. Every function here therefore addresses the whole
// area, never just the 64-byte block, and the area is zero-filled at the
// start of each digest so that bytes the procedure reads but never sets are
// defined.

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

inline constexpr size_t kMd5ContextSize = 112;  // buf, bits, in
inline constexpr size_t kMd5InOffset = 48;      // start of `in` in the area
inline constexpr size_t kMd5ReadSize = 1024;    // mdfile's read buffer
inline constexpr size_t kMd5AreaSize = kMd5ContextSize + kMd5ReadSize;

// The contiguous work area of one digest: the context followed by the read
// buffer. Plain bytes; words are read and written with memcpy.
struct Md5WorkArea {
  alignas(8) unsigned char bytes[kMd5AreaSize];
  unsigned char* in() { return bytes + kMd5InOffset; }
  unsigned char* read_buffer() { return bytes + kMd5ContextSize; }
};

// Sets the four state words to the initial values and the bit count to 0;
// `in` and the read buffer are left as they are.
void MD5Init(Md5WorkArea* ctx);
// Hashes len bytes of data. data may point into the area's read buffer (that
// is how mdfile calls it); the procedure's own writes into the read buffer
// then take effect on the data exactly as they would in place.
void MD5Update(Md5WorkArea* ctx, const unsigned char* data, uint32_t len);
// Pads, finishes and writes the 16 digest bytes (4 significant, 12 zero).
void MD5Final(unsigned char out[16], Md5WorkArea* ctx);
// One 64-step compression of state over the 16 words at in[0..127] (`in`
// followed by the first 64 bytes of the read buffer).
void MD5Transform(uint64_t state[4], const unsigned char* in);
// The word conversion: for k = 0..n-1 the little-endian 32-bit value at
// p+4k is stored as a little-endian 64-bit value at p+4k. The stores overlap,
// so p[0..3] keep their value and p[4..4n+3] become zero; the caller must own
// 4n + 4 bytes at p.
void byteReverse(unsigned char* p, unsigned n);

// Digest of everything from the stream's position to its end into out,
// reading 1,024 bytes at a time; 0, or -1 when the stream reports a read
// error (out is written either way).
int mdfile(FILE* stream, unsigned char out[16]);
// Open path ("r"), examine it, digest it, close; -1 (out untouched) when it
// cannot be opened or examined, else mdfile's result.
int md_filename(const char* path, unsigned char out[16]);
// The 16 bytes as 32 "%02x" characters plus NUL into out (33 bytes);
// returns out.
char* print_digest(const unsigned char digest[16], char* out);

// A file opened for digesting its content, the way the scan needs it: binary
// read mode, examined with fstat, and a 64 KiB stdio buffer so that the
// 1,024-byte reads of mdfile cost one system call per 64 KiB. Only regular
// files and directories are opened (a directory opens and then reports a read
// error, as a plain stdio stream on it would); FIFOs, devices and sockets
// count as unopenable, so that no digest can block or read forever.
// Move-only; closes the stream (then frees its buffer) on destruction.
class DigestStream {
 public:
  DigestStream() = default;
  DigestStream(const DigestStream&) = delete;
  DigestStream& operator=(const DigestStream&) = delete;
  ~DigestStream() { Close(); }

  // True when path was opened and examined; status() then holds its fstat.
  bool Open(const char* path);
  FILE* get() const { return file_; }
  const struct stat& status() const { return status_; }
  // Close the stream (if open) and free the buffer.
  void Close();

 private:
  FILE* file_ = nullptr;
  char* buffer_ = nullptr;
  struct stat status_ {};
};

// Digests several files at once for the directory scan. Each file still goes
// through exactly the procedure above (same work area, same 1,024-byte reads);
// only the transforms of up to four files are computed side by side, because
// a single file's transform chain is too sequential to keep the processor
// busy. Results are identical to md_filename's.
//
// Add() opens a file and queues it; when all lanes are busy it first digests
// until a lane is free. Finish() (also run by the destructor) completes every
// queued file. For each file, `done` is called exactly once, in completion
// order (not necessarily the order of Add), with the digest text, the fstat
// of the open file and mdfile's result (0, or -1 after a read error).
class DigestBatch {
 public:
  using Done = void (*)(void* target, const char* digest_text, const struct stat& status,
                        int read_result);
  explicit DigestBatch(Done done);
  ~DigestBatch();
  DigestBatch(const DigestBatch&) = delete;
  DigestBatch& operator=(const DigestBatch&) = delete;

  // False when path cannot be opened as a DigestStream: nothing is queued
  // and `done` is not called for it.
  bool Add(const char* path, void* target);
  void Finish();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};
