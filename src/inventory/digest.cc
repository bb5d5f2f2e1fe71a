#include "inventory/digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "inventory/md5_steps.h"

using namespace md5_steps;

void byteReverse(unsigned char* p, unsigned n) {
  if (n == 0)
    return;
  // Each 8-byte store of a zero-extended 32-bit value clears the 4 bytes
  // that the next step then reads, so after the first step every value is 0:
  // the first word keeps its bytes and the following 4n bytes are cleared.
  std::memset(p + 4, 0, 4 * static_cast<size_t>(n));
}

void MD5Init(Md5WorkArea* ctx) {
  unsigned char* a = ctx->bytes;
  Store64(a + kBufOffset + 0, 0x67452301u);
  Store64(a + kBufOffset + 8, 0xefcdab89u);
  Store64(a + kBufOffset + 16, 0x98badcfeu);
  Store64(a + kBufOffset + 24, 0x10325476u);
  Store64(a + kBitsOffset + 0, 0);
  Store64(a + kBitsOffset + 8, 0);
}

void MD5Update(Md5WorkArea* ctx, const unsigned char* data, uint32_t len) {
  TransformNow transform;
  UpdateWith(ctx->bytes, data, len, transform);
}

void MD5Final(unsigned char out[16], Md5WorkArea* ctx) {
  TransformNow transform;
  FinalBlocks(ctx->bytes, transform);
  FinalOutput(out, ctx->bytes);
}

void MD5Transform(uint64_t state[4], const unsigned char* in) {
  uint64_t x[16];
  for (int k = 0; k < 16; ++k)
    x[k] = Load64(in + 8 * k);
  Rounds(state, x);
}

int mdfile(FILE* stream, unsigned char out[16]) {
  Md5WorkArea area;
  // Bytes the procedure reads without ever setting (the tail of `in` and of
  // the read buffer for short files) must be the same on every run.
  std::memset(area.bytes, 0, sizeof area.bytes);
  MD5Init(&area);
  unsigned char* buffer = area.read_buffer();
  size_t n;
  while ((n = std::fread(buffer, 1, kMd5ReadSize, stream)) > 0) {
    MD5Update(&area, buffer, static_cast<uint32_t>(n));
  }
  MD5Final(out, &area);
  return std::ferror(stream) ? -1 : 0;
}

int md_filename(const char* path, unsigned char out[16]) {
  DigestStream file;
  if (!file.Open(path))
    return -1;
  return mdfile(file.get(), out);
}

char* print_digest(const unsigned char digest[16], char* out) {
  static const char kHex[] = "0123456789abcdef";
  for (int i = 0; i < 16; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 0x0f];
  }
  out[32] = '\0';
  return out;
}

static_assert(DigestStream::kCurrentDirectory == AT_FDCWD);

bool DigestStream::Open(const char* path, int dir_fd) {
  Close();
  // O_NONBLOCK only so that opening a FIFO cannot wait for a writer; such
  // files are refused right below, and it has no effect on regular files.
  int fd = ::openat(dir_fd, path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0)
    return false;
  if (::fstat(fd, &status_) != 0 || !(S_ISREG(status_.st_mode) || S_ISDIR(status_.st_mode))) {
    ::close(fd);
    status_ = {};
    return false;
  }
  file_ = ::fdopen(fd, "rb");
  if (!file_) {
    ::close(fd);
    status_ = {};
    return false;
  }
  own_buffer_ = static_cast<char*>(std::malloc(kDigestStdioBufferSize));
  if (own_buffer_)
    (void)std::setvbuf(file_, own_buffer_, _IOFBF, kDigestStdioBufferSize);
  return true;
}

void DigestStream::Close() {
  if (file_)
    std::fclose(file_);
  file_ = nullptr;
  std::free(own_buffer_);  // only after fclose: the stream uses it until then
  own_buffer_ = nullptr;
}


// --- Whole files read from a descriptor ---

namespace {

// The transform of a block whose conversion left only its first four bytes:
// message words 1 to 7 are zero and words 8 to 15 come from the start of the
// read buffer, the same for every block of one 1,024-byte piece. Spelled out
// so that the zero words and their additions disappear from the steps.
[[gnu::always_inline]] inline void SparseRounds(uint64_t state[4], uint64_t x0,
                                                const uint64_t head[8]) {
  const uint64_t x[16] = {x0,      0,       0,       0,       0,       0,       0,       0,
                          head[0], head[1], head[2], head[3], head[4], head[5], head[6], head[7]};
  Rounds(state, x);
}

inline uint64_t Load32(const unsigned char* p) {
  return static_cast<uint64_t>(p[0]) | static_cast<uint64_t>(p[1]) << 8 |
         static_cast<uint64_t>(p[2]) << 16 | static_cast<uint64_t>(p[3]) << 24;
}

}  // namespace

void PieceDigest::Begin() {
  std::memset(area_.bytes, 0, sizeof area_.bytes);
  MD5Init(&area_);
}

void PieceDigest::Piece(const unsigned char* data, size_t n) {
  unsigned char* a = area_.bytes;
  unsigned char* read_buffer = area_.read_buffer();
  // What a read of these bytes into the read buffer leaves where the
  // procedure looks: only the first 64 bytes of that buffer are ever read
  // back (as the second half of each block's words).
  std::memcpy(read_buffer, data, std::min<size_t>(n, 64));
  bool aligned = (Load64(a + kBitsOffset) & 0x1ff) == 0;  // no bytes waiting in `in`
  if (n != kMd5ReadSize || !aligned) {
    TransformNow transform;
    UpdateWith(a, data, static_cast<uint32_t>(n), transform);
    return;
  }
  // A full piece with nothing waiting: each of its 16 blocks is copied to
  // `in` and converted, which keeps the block's first four bytes, clears
  // the rest of `in` and the first four bytes of the read buffer, and then
  // transformed. The same effect, without the copies:
  std::memset(read_buffer, 0, 4);
  uint64_t head[8];
  for (int k = 0; k < 8; ++k)
    head[k] = Load64(read_buffer + 8 * k);
  uint64_t state[4];
  for (int i = 0; i < 4; ++i)
    state[i] = Load64(a + kBufOffset + 8 * i);
  for (size_t block = 0; block < kMd5ReadSize; block += 64)
    SparseRounds(state, Load32(data + block), head);
  for (int i = 0; i < 4; ++i)
    Store64(a + kBufOffset + 8 * i, state[i]);
  FinishFullPiece(a, data);
}

void PieceDigest::End(unsigned char out[16]) { MD5Final(out, &area_); }

size_t NextReadSize(const struct stat& status, uint64_t done, size_t capacity) {
  if (S_ISREG(status.st_mode) && status.st_size > 0) {
    uint64_t size = static_cast<uint64_t>(status.st_size);
    return done >= size ? 0 : static_cast<size_t>(std::min<uint64_t>(size - done, capacity));
  }
  return capacity;  // size unknown: read to the end
}

size_t ReadFully(int fd, unsigned char* buffer, size_t want, bool* failed) {
  size_t got = 0;
  while (got < want) {
    ssize_t n = ::read(fd, buffer + got, want - got);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      *failed = true;
    if (n <= 0)
      break;
    got += static_cast<size_t>(n);
  }
  return got;
}

bool IsDigestible(int fd, struct stat* status) {
  if (::fstat(fd, status) != 0 || !(S_ISREG(status->st_mode) || S_ISDIR(status->st_mode))) {
    *status = {};
    return false;
  }
  return true;
}

namespace {

// The digest of what the chunks hold, fed in order, the last one possibly
// short.
void DigestChunk(PieceDigest& digest, const unsigned char* data, size_t got) {
  for (size_t at = 0; at < got; at += kMd5ReadSize)
    digest.Piece(data + at, std::min(kMd5ReadSize, got - at));
}

// One chunk read by the reading thread of DigestReadingAhead.
struct AheadSlot {
  std::unique_ptr<unsigned char[]> data;
  size_t got = 0;
  bool failed = false;
  bool last = false;
  bool ready = false;  // read and not yet digested
};

constexpr size_t kAheadChunk = 1u << 20;  // a multiple of the piece size
constexpr int kAheadSlots = 3;

// The loop of DigestDescriptor with its reads on a second thread. False
// when the slots or the thread cannot be had (nothing has been read then).
bool DigestReadingAhead(int fd, DescriptorDigest* result, PieceDigest& digest) {
  AheadSlot slots[kAheadSlots];
  for (AheadSlot& slot : slots) {
    slot.data.reset(new (std::nothrow) unsigned char[kAheadChunk]);
    if (!slot.data)
      return false;
  }
  std::mutex mutex;
  std::condition_variable changed;
  const struct stat status = result->status;
  auto read_all = [&] {
    uint64_t done = 0;
    for (int i = 0;; i = (i + 1) % kAheadSlots) {
      AheadSlot& slot = slots[i];
      {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return !slot.ready; });
      }
      size_t want = NextReadSize(status, done, kAheadChunk);
      bool failed = false;
      size_t got = want == 0 ? 0 : ReadFully(fd, slot.data.get(), want, &failed);
      done += got;
      bool last = want == 0 || got < want;
      {
        std::lock_guard<std::mutex> lock(mutex);
        slot.got = got;
        slot.failed = failed;
        slot.last = last;
        slot.ready = true;
      }
      changed.notify_all();
      if (last)
        return;
    }
  };
  std::thread reader;
  try {
    reader = std::thread(read_all);
  } catch (const std::system_error&) {
    return false;
  }
  for (int i = 0;; i = (i + 1) % kAheadSlots) {
    AheadSlot& slot = slots[i];
    {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [&] { return slot.ready; });
    }
    DigestChunk(digest, slot.data.get(), slot.got);
    if (slot.failed)
      result->read_result = -1;
    const bool last = slot.last;
    {
      std::lock_guard<std::mutex> lock(mutex);
      slot.ready = false;
    }
    changed.notify_all();
    if (last)
      break;
  }
  reader.join();
  return true;
}

}  // namespace

bool DigestDescriptor(int fd, DescriptorDigest* result, ReadBuffer& buffer, ReadAhead ahead) {
  if (!IsDigestible(fd, &result->status))
    return false;
  PieceDigest digest;
  digest.Begin();
  result->read_result = 0;
  const bool long_file = S_ISREG(result->status.st_mode) &&
                         static_cast<uint64_t>(result->status.st_size) >= kReadAheadMinSize;
  if (!(ahead == ReadAhead::kForLongFiles && long_file &&
        DigestReadingAhead(fd, result, digest))) {
    uint64_t done = 0;
    for (;;) {
      size_t want = NextReadSize(result->status, done, buffer.size());
      if (want == 0)
        break;
      bool failed = false;
      size_t got = ReadFully(fd, buffer.data(), want, &failed);
      DigestChunk(digest, buffer.data(), got);
      done += got;
      if (failed)
        result->read_result = -1;
      if (got < want)
        break;  // end of file before the size seen at open, or a read error
    }
  }
  unsigned char out[16];
  digest.End(out);
  print_digest(out, result->text);
  return true;
}
