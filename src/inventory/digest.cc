#include "inventory/digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kBufOffset = 0;    // 4 state words
constexpr size_t kBitsOffset = 32;  // 2 bit-count words

// Words in the area are little-endian bytes whatever the host; memcpy keeps
// every access aligned-agnostic and free of aliasing questions.
inline uint64_t Load64(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  if constexpr (std::endian::native == std::endian::big)
    v = __builtin_bswap64(v);
  return v;
}

inline void Store64(unsigned char* p, uint64_t v) {
  if constexpr (std::endian::native == std::endian::big)
    v = __builtin_bswap64(v);
  std::memcpy(p, &v, 8);
}

// The 64 steps, written once for a single state word (uint64_t) and for
// four files side by side (a vector of four 64-bit words).
//
// Step functions on full 64-bit words; NOT is a 64-bit NOT. Macros rather
// than functions so that vector words are never passed by value (their
// calling convention depends on the instruction set).
#define WL_F1(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define WL_F2(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define WL_F3(x, y, z) ((x) ^ (y) ^ (z))
#define WL_F4(x, y, z) ((y) ^ ((x) | ~(z)))

// One step. The rotation is applied to the 64-bit word: the bits above bit
// 31 are not cut off, they are shifted down into the result as well.
#define WL_MD5_STEP(f, w, x, y, z, data, s) \
  w += f(x, y, z) + (data);                 \
  w = (w << (s)) | (w >> (32 - (s)));       \
  w += x

// state += the 64 steps over the 16 message words x.
template <class W>
[[gnu::always_inline]] inline void Rounds(W state[4], const W x[16]) {
  W a = state[0];
  W b = state[1];
  W c = state[2];
  W d = state[3];

  WL_MD5_STEP(WL_F1, a, b, c, d, x[0] + 0xd76aa478u, 7);
  WL_MD5_STEP(WL_F1, d, a, b, c, x[1] + 0xe8c7b756u, 12);
  WL_MD5_STEP(WL_F1, c, d, a, b, x[2] + 0x242070dbu, 17);
  WL_MD5_STEP(WL_F1, b, c, d, a, x[3] + 0xc1bdceeeu, 22);
  WL_MD5_STEP(WL_F1, a, b, c, d, x[4] + 0xf57c0fafu, 7);
  WL_MD5_STEP(WL_F1, d, a, b, c, x[5] + 0x4787c62au, 12);
  WL_MD5_STEP(WL_F1, c, d, a, b, x[6] + 0xa8304613u, 17);
  WL_MD5_STEP(WL_F1, b, c, d, a, x[7] + 0xfd469501u, 22);
  WL_MD5_STEP(WL_F1, a, b, c, d, x[8] + 0x698098d8u, 7);
  WL_MD5_STEP(WL_F1, d, a, b, c, x[9] + 0x8b44f7afu, 12);
  WL_MD5_STEP(WL_F1, c, d, a, b, x[10] + 0xffff5bb1u, 17);
  WL_MD5_STEP(WL_F1, b, c, d, a, x[11] + 0x895cd7beu, 22);
  WL_MD5_STEP(WL_F1, a, b, c, d, x[12] + 0x6b901122u, 7);
  WL_MD5_STEP(WL_F1, d, a, b, c, x[13] + 0xfd987193u, 12);
  WL_MD5_STEP(WL_F1, c, d, a, b, x[14] + 0xa679438eu, 17);
  WL_MD5_STEP(WL_F1, b, c, d, a, x[15] + 0x49b40821u, 22);

  WL_MD5_STEP(WL_F2, a, b, c, d, x[1] + 0xf61e2562u, 5);
  WL_MD5_STEP(WL_F2, d, a, b, c, x[6] + 0xc040b340u, 9);
  WL_MD5_STEP(WL_F2, c, d, a, b, x[11] + 0x265e5a51u, 14);
  WL_MD5_STEP(WL_F2, b, c, d, a, x[0] + 0xe9b6c7aau, 20);
  WL_MD5_STEP(WL_F2, a, b, c, d, x[5] + 0xd62f105du, 5);
  WL_MD5_STEP(WL_F2, d, a, b, c, x[10] + 0x02441453u, 9);
  WL_MD5_STEP(WL_F2, c, d, a, b, x[15] + 0xd8a1e681u, 14);
  WL_MD5_STEP(WL_F2, b, c, d, a, x[4] + 0xe7d3fbc8u, 20);
  WL_MD5_STEP(WL_F2, a, b, c, d, x[9] + 0x21e1cde6u, 5);
  WL_MD5_STEP(WL_F2, d, a, b, c, x[14] + 0xc33707d6u, 9);
  WL_MD5_STEP(WL_F2, c, d, a, b, x[3] + 0xf4d50d87u, 14);
  WL_MD5_STEP(WL_F2, b, c, d, a, x[8] + 0x455a14edu, 20);
  WL_MD5_STEP(WL_F2, a, b, c, d, x[13] + 0xa9e3e905u, 5);
  WL_MD5_STEP(WL_F2, d, a, b, c, x[2] + 0xfcefa3f8u, 9);
  WL_MD5_STEP(WL_F2, c, d, a, b, x[7] + 0x676f02d9u, 14);
  WL_MD5_STEP(WL_F2, b, c, d, a, x[12] + 0x8d2a4c8au, 20);

  WL_MD5_STEP(WL_F3, a, b, c, d, x[5] + 0xfffa3942u, 4);
  WL_MD5_STEP(WL_F3, d, a, b, c, x[8] + 0x8771f681u, 11);
  WL_MD5_STEP(WL_F3, c, d, a, b, x[11] + 0x6d9d6122u, 16);
  WL_MD5_STEP(WL_F3, b, c, d, a, x[14] + 0xfde5380cu, 23);
  WL_MD5_STEP(WL_F3, a, b, c, d, x[1] + 0xa4beea44u, 4);
  WL_MD5_STEP(WL_F3, d, a, b, c, x[4] + 0x4bdecfa9u, 11);
  WL_MD5_STEP(WL_F3, c, d, a, b, x[7] + 0xf6bb4b60u, 16);
  WL_MD5_STEP(WL_F3, b, c, d, a, x[10] + 0xbebfbc70u, 23);
  WL_MD5_STEP(WL_F3, a, b, c, d, x[13] + 0x289b7ec6u, 4);
  WL_MD5_STEP(WL_F3, d, a, b, c, x[0] + 0xeaa127fau, 11);
  WL_MD5_STEP(WL_F3, c, d, a, b, x[3] + 0xd4ef3085u, 16);
  WL_MD5_STEP(WL_F3, b, c, d, a, x[6] + 0x04881d05u, 23);
  WL_MD5_STEP(WL_F3, a, b, c, d, x[9] + 0xd9d4d039u, 4);
  WL_MD5_STEP(WL_F3, d, a, b, c, x[12] + 0xe6db99e5u, 11);
  WL_MD5_STEP(WL_F3, c, d, a, b, x[15] + 0x1fa27cf8u, 16);
  WL_MD5_STEP(WL_F3, b, c, d, a, x[2] + 0xc4ac5665u, 23);

  WL_MD5_STEP(WL_F4, a, b, c, d, x[0] + 0xf4292244u, 6);
  WL_MD5_STEP(WL_F4, d, a, b, c, x[7] + 0x432aff97u, 10);
  WL_MD5_STEP(WL_F4, c, d, a, b, x[14] + 0xab9423a7u, 15);
  WL_MD5_STEP(WL_F4, b, c, d, a, x[5] + 0xfc93a039u, 21);
  WL_MD5_STEP(WL_F4, a, b, c, d, x[12] + 0x655b59c3u, 6);
  WL_MD5_STEP(WL_F4, d, a, b, c, x[3] + 0x8f0ccc92u, 10);
  WL_MD5_STEP(WL_F4, c, d, a, b, x[10] + 0xffeff47du, 15);
  WL_MD5_STEP(WL_F4, b, c, d, a, x[1] + 0x85845dd1u, 21);
  WL_MD5_STEP(WL_F4, a, b, c, d, x[8] + 0x6fa87e4fu, 6);
  WL_MD5_STEP(WL_F4, d, a, b, c, x[15] + 0xfe2ce6e0u, 10);
  WL_MD5_STEP(WL_F4, c, d, a, b, x[6] + 0xa3014314u, 15);
  WL_MD5_STEP(WL_F4, b, c, d, a, x[13] + 0x4e0811a1u, 21);
  WL_MD5_STEP(WL_F4, a, b, c, d, x[4] + 0xf7537e82u, 6);
  WL_MD5_STEP(WL_F4, d, a, b, c, x[11] + 0xbd3af235u, 10);
  WL_MD5_STEP(WL_F4, c, d, a, b, x[2] + 0x2ad7d2bbu, 15);
  WL_MD5_STEP(WL_F4, b, c, d, a, x[9] + 0xeb86d391u, 21);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

#undef WL_MD5_STEP
#undef WL_F1
#undef WL_F2
#undef WL_F3
#undef WL_F4

void TransformArea(unsigned char* area) {
  uint64_t state[4];
  for (int i = 0; i < 4; ++i)
    state[i] = Load64(area + kBufOffset + 8 * i);
  MD5Transform(state, area + kMd5InOffset);
  for (int i = 0; i < 4; ++i)
    Store64(area + kBufOffset + 8 * i, state[i]);
}

// The procedure's byte handling never reads the state words; only the
// transforms do. So it is written once over a `transform` callable that
// receives the area at each point where the procedure transforms: the plain
// digest transforms right there, the batch records the 16 message words and
// runs the transforms later, several files at a time.
struct TransformNow {
  void operator()(unsigned char* area) const { TransformArea(area); }
};

template <class Transform>
void UpdateWith(unsigned char* a, const unsigned char* data, uint32_t len, Transform& transform) {
  unsigned char* in = a + kMd5InOffset;

  uint64_t t = Load64(a + kBitsOffset);
  uint64_t low = t + (static_cast<uint64_t>(len) << 3);
  Store64(a + kBitsOffset, low);
  uint64_t high = Load64(a + kBitsOffset + 8);
  if (low < t)
    ++high;
  high += len >> 29;
  Store64(a + kBitsOffset + 8, high);

  t = (t >> 3) & 0x3f;  // bytes already waiting in `in`
  // data may lie in the read buffer, which the conversion below writes to:
  // memmove and the in-place order keep that overlap well defined.
  if (t != 0) {
    unsigned char* p = in + t;
    uint64_t room = 64 - t;
    if (len < room) {
      std::memmove(p, data, len);
      return;
    }
    std::memmove(p, data, room);
    byteReverse(in, 16);
    transform(a);
    data += room;
    len -= static_cast<uint32_t>(room);
  }
  while (len >= 64) {
    std::memmove(in, data, 64);
    byteReverse(in, 16);
    transform(a);
    data += 64;
    len -= 64;
  }
  std::memmove(in, data, len);
}

// MD5Final up to and including its last transform.
template <class Transform>
void FinalBlocks(unsigned char* a, Transform& transform) {
  unsigned char* in = a + kMd5InOffset;

  unsigned count = static_cast<unsigned>((Load64(a + kBitsOffset) >> 3) & 0x3f);
  unsigned char* p = in + count;
  *p++ = 0x80;
  unsigned room = 63 - count;
  if (room < 8) {
    std::memset(p, 0, room);
    byteReverse(in, 16);
    transform(a);
    std::memset(in, 0, 56);
  } else {
    std::memset(p, 0, room - 8);
  }
  byteReverse(in, 14);

  // The bit counts land at in+112 and in+120: inside the read buffer, where
  // the transform reads its last two words.
  std::memcpy(in + 112, a + kBitsOffset, 8);
  std::memcpy(in + 120, a + kBitsOffset + 8, 8);
  transform(a);
}

// MD5Final after its last transform: only the low 32 bits of the first state
// word survive the conversion of the state words.
void FinalOutput(unsigned char out[16], unsigned char* a) {
  byteReverse(a + kBufOffset, 4);
  std::memcpy(out, a, 16);
  std::memset(a, 0, 8);
}

}  // namespace

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

bool DigestStream::Open(const char* path, int dir_fd, char* buffer) {
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
  if (!buffer)
    buffer = own_buffer_ = static_cast<char*>(std::malloc(kDigestStdioBufferSize));
  if (buffer)
    (void)std::setvbuf(file_, buffer, _IOFBF, kDigestStdioBufferSize);
  return true;
}

void DigestStream::Close() {
  if (file_)
    std::fclose(file_);
  file_ = nullptr;
  std::free(own_buffer_);  // only after fclose: the stream uses it until then
  own_buffer_ = nullptr;
}

// --- Several files side by side ---

namespace {

// Eight 64-bit words, one per file. The operators act on each lane.
//
// One transform is a single dependency chain, so the processor is mostly
// waiting on it; files side by side fill that time. Four files in one chain
// cost little more than one file. With AVX2 the eight lanes run as two
// independent 4-lane chains and take about as long as four; without it they
// are run as two 4-lane halves one after the other (on plain x86-64 each
// 4-lane operation is already two SSE2 operations, so a second interleaved
// chain would only queue behind the first).
using Lanes = uint64_t __attribute__((vector_size(64)));
using HalfLanes = uint64_t __attribute__((vector_size(32)));
constexpr int kLanes = 8;
// Transform inputs queued per lane. One 1,024-byte read causes at most 16
// transforms and the finish at most 2, so a lane is refilled while at most
// kRows - kMaxRowsPerStep rows are queued.
constexpr int kRows = 32;
constexpr int kMaxRowsPerStep = 18;

void TransformPortable(Lanes state[4], const Lanes (*rows)[16], int count) {
  for (int half = 0; half < 2; ++half) {
    const size_t offset = half * sizeof(HalfLanes);
    HalfLanes s[4];
    for (int i = 0; i < 4; ++i) {
      std::memcpy(&s[i], reinterpret_cast<const char*>(&state[i]) + offset, sizeof s[i]);
    }
    for (int r = 0; r < count; ++r) {
      HalfLanes x[16];
      for (int k = 0; k < 16; ++k) {
        std::memcpy(&x[k], reinterpret_cast<const char*>(&rows[r][k]) + offset, sizeof x[k]);
      }
      Rounds(s, x);
    }
    for (int i = 0; i < 4; ++i) {
      std::memcpy(reinterpret_cast<char*>(&state[i]) + offset, &s[i], sizeof s[i]);
    }
  }
}

#if defined(__x86_64__) && defined(__GNUC__)
#define WL_HAVE_AVX2_KERNEL 1
[[gnu::target("avx2")]] void TransformAvx2(Lanes state[4], const Lanes (*rows)[16], int count) {
  Lanes s[4] = {state[0], state[1], state[2], state[3]};
  for (int r = 0; r < count; ++r)
    Rounds(s, rows[r]);
  for (int i = 0; i < 4; ++i)
    state[i] = s[i];
}
#endif

using TransformKernel = void (*)(Lanes state[4], const Lanes (*rows)[16], int count);

TransformKernel DetectedKernel() {
#ifdef WL_HAVE_AVX2_KERNEL
  // This runs from a static initializer, possibly before the compiler's own
  // processor detection has run.
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2"))
    return TransformAvx2;
#endif
  return TransformPortable;
}

TransformKernel g_kernel = DetectedKernel();

}  // namespace

void UsePortableDigestKernel(bool portable) {
  g_kernel = portable ? TransformPortable : DetectedKernel();
}

struct DigestBatch::Impl {
  struct Lane {
    Md5WorkArea area;
    // Declared before the stream, so it is freed after the stream is closed.
    std::unique_ptr<char[]> stdio_buffer{new char[DigestStream::kDigestStdioBufferSize]};
    DigestStream stream;
    void* target = nullptr;
    bool active = false;
    bool finishing = false;  // the finish's transforms are queued
    int read_result = 0;
    int queued = 0;  // rows 0..queued-1 of this lane's column
  };

  // The 16 message words of each queued transform, lane by lane: row r holds
  // the r-th pending transform of every lane. All lanes consume the same
  // number of rows per pump, so the rows stay aligned.
  Lanes rows[kRows][16] = {};
  Lanes state[4] = {};  // state word i of lane l is state[i][l]
  Lane lanes[kLanes];
  Done done;
  int active = 0;

  explicit Impl(Done d) : done(d) {}

  // Records the message words at one transform point of lane l.
  struct Capture {
    Impl* impl;
    int l;
    void operator()(unsigned char* area) const {
      Lane& lane = impl->lanes[l];
      if (lane.queued >= kRows)
        std::abort();  // the fill rule makes this unreachable
      Lanes* row = impl->rows[lane.queued++];
      for (int k = 0; k < 16; ++k)
        row[k][l] = Load64(area + kMd5InOffset + 8 * k);
    }
  };

  bool Start(int l, const char* path, int dir_fd, void* target) {
    Lane& lane = lanes[l];
    if (!lane.stream.Open(path, dir_fd, lane.stdio_buffer.get()))
      return false;
    std::memset(lane.area.bytes, 0, sizeof lane.area.bytes);
    MD5Init(&lane.area);
    for (int i = 0; i < 4; ++i)
      state[i][l] = Load64(lane.area.bytes + kBufOffset + 8 * i);
    lane.target = target;
    lane.active = true;
    lane.finishing = false;
    lane.read_result = 0;
    lane.queued = 0;
    ++active;
    return true;
  }

  // Runs the procedure of lane l ahead until enough transforms are queued
  // or the file is finished.
  void Fill(int l) {
    Lane& lane = lanes[l];
    Capture capture{this, l};
    unsigned char* buffer = lane.area.read_buffer();
    while (!lane.finishing && lane.queued <= kRows - kMaxRowsPerStep) {
      size_t n = std::fread(buffer, 1, kMd5ReadSize, lane.stream.get());
      if (n > 0) {
        UpdateWith(lane.area.bytes, buffer, static_cast<uint32_t>(n), capture);
        continue;
      }
      lane.read_result = std::ferror(lane.stream.get()) ? -1 : 0;
      lane.stream.Close();  // status() stays valid
      FinalBlocks(lane.area.bytes, capture);
      lane.finishing = true;
    }
  }

  void Complete(int l) {
    Lane& lane = lanes[l];
    for (int i = 0; i < 4; ++i)
      Store64(lane.area.bytes + kBufOffset + 8 * i, state[i][l]);
    unsigned char out[16];
    FinalOutput(out, lane.area.bytes);
    char text[33];
    print_digest(out, text);
    lane.active = false;
    --active;
    done(lane.target, text, lane.stream.status(), lane.read_result);
  }

  // Fills every busy lane, runs the transforms all of them have queued, and
  // completes the lanes whose files are done.
  void Pump() {
    if (active == 0)
      return;
    int count = kRows;
    int most = 0;
    for (int l = 0; l < kLanes; ++l) {
      if (!lanes[l].active)
        continue;
      Fill(l);
      count = std::min(count, lanes[l].queued);
      most = std::max(most, lanes[l].queued);
    }
    // Idle lanes compute on stale rows; their state is reset when they start.
    g_kernel(state, rows, count);
    if (most > count)
      std::memmove(rows[0], rows[count], sizeof rows[0] * (most - count));
    for (int l = 0; l < kLanes; ++l) {
      if (!lanes[l].active)
        continue;
      lanes[l].queued -= count;
      if (lanes[l].queued == 0 && lanes[l].finishing)
        Complete(l);
    }
  }
};

DigestBatch::DigestBatch(Done done) : impl_(std::make_unique<Impl>(done)) {}

DigestBatch::~DigestBatch() { Finish(); }

bool DigestBatch::Add(const char* path, void* target, int dir_fd) {
  while (impl_->active == kLanes)
    impl_->Pump();
  for (int l = 0; l < kLanes; ++l) {
    if (!impl_->lanes[l].active)
      return impl_->Start(l, path, dir_fd, target);
  }
  return false;  // not reached: a lane is free after the loop above
}

void DigestBatch::Finish() {
  while (impl_->active > 0)
    impl_->Pump();
}
