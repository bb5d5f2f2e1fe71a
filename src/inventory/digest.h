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

  // True when path was opened and examined; status() then holds its fstat
  // (and keeps it after Close). A relative path is taken relative to the
  // directory descriptor dir_fd (AT_FDCWD: the current directory).
  bool Open(const char* path, int dir_fd = kCurrentDirectory);
  FILE* get() const { return file_; }
  const struct stat& status() const { return status_; }
  // Close the stream (if open) and free its own buffer.
  void Close();

  static constexpr int kCurrentDirectory = -100;  // AT_FDCWD on Linux
  static constexpr size_t kDigestStdioBufferSize = 64 * 1024;

 private:
  FILE* file_ = nullptr;
  char* own_buffer_ = nullptr;
  struct stat status_ {};
};

// The procedure fed with pieces of a file's content as mdfile feeds it:
// 1,024-byte pieces, only the last one shorter. A full piece is transformed
// without copying its blocks (the conversion leaves only the first four bytes
// of each block and the first 64 bytes of the piece to look at); the result
// equals mdfile's over the same bytes.
class PieceDigest {
 public:
  void Begin();
  // n <= kMd5ReadSize; only the last piece may be shorter.
  void Piece(const unsigned char* data, size_t n);
  void End(unsigned char out[16]);

 private:
  Md5WorkArea area_;
};

// A read buffer for whole-file digests: a multiple of the piece size, so that
// every read but the last ends on a piece boundary.
class ReadBuffer {
 public:
  static constexpr size_t kSize = 256 * 1024;
  ReadBuffer() : bytes_(new unsigned char[kSize]) {}
  unsigned char* data() const { return bytes_.get(); }
  static constexpr size_t size() { return kSize; }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
};

// The result of digesting an open file.
struct DescriptorDigest {
  char text[33];        // print_digest of the digest
  struct stat status;   // fstat of the descriptor
  int read_result;      // 0, or -1 after a read error (the digest is kept)
};

// How much to read next of a file whose fstat is `status` after `done`
// bytes, at most `capacity`: a regular file of known size is read up to the
// size seen at open and no further (0 when that is reached, so no read is
// spent on finding the end); anything else is read until a read returns 0.
size_t NextReadSize(const struct stat& status, uint64_t done, size_t capacity);
// read() until `want` bytes, end of file or an error (then *failed is set);
// retries interrupted reads. Returns the bytes read.
size_t ReadFully(int fd, unsigned char* buffer, size_t want, bool* failed);
// fstat of fd into *status; true for a regular file or a directory (a
// directory reads as a read error, as a stream on it does). Anything else
// (FIFO, device, socket) is refused with *status zeroed, so that no digest
// can block or read forever.
bool IsDigestible(int fd, struct stat* status);
// Whether DigestDescriptor may read a long file on a thread of its own.
enum class ReadAhead { kNo, kForLongFiles };
// Regular files of at least this many bytes are read ahead when allowed.
inline constexpr uint64_t kReadAheadMinSize = uint64_t{8} << 20;
// Digest of the open file fd (not closed here) through `buffer`, equal to
// what md_filename gives for the same content. False, with nothing read,
// when IsDigestible refuses it. With ReadAhead::kForLongFiles, a long file
// is read by a second thread a few chunks ahead of the digest, so that
// copying the content in and digesting it overlap (worth it when a
// processor would otherwise wait); the chunks are read and the pieces
// digested exactly as without it.
bool DigestDescriptor(int fd, DescriptorDigest* result, ReadBuffer& buffer,
                      ReadAhead ahead = ReadAhead::kNo);

