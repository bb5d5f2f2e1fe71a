#pragma once
// The steps of the content digest shared by the one-file procedure
// (inventory/digest.cc) and the batch engine (inventory/digest_batch.cc).
// Internal to those two files; see inventory/digest.h for the work area and
// the procedure's rules.

#include <bit>
#include <cstdint>
#include <cstring>

#include "inventory/digest.h"

namespace md5_steps {

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
// The second function selects x where z is set and y elsewhere; as the two
// parts share no bits, it is written as a sum, which lets the part that does
// not depend on the newest word be added ahead of it.
#define WL_F2(x, y, z) (((x) & (z)) + ((y) & ~(z)))
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

inline void TransformArea(unsigned char* area) {
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

// What UpdateWith leaves, besides the state, after a full read buffer with
// nothing waiting in `in`, for callers that transform its 16 blocks
// themselves: `in` holds the last block's first four bytes and zeros, and
// the bit count has grown by the piece.
inline void FinishFullPiece(unsigned char* a, const unsigned char* data) {
  unsigned char* in = a + kMd5InOffset;
  std::memcpy(in, data + kMd5ReadSize - 64, 4);
  std::memset(in + 4, 0, 60);
  const uint64_t low = Load64(a + kBitsOffset);
  const uint64_t bits = low + 8 * kMd5ReadSize;
  Store64(a + kBitsOffset, bits);
  if (bits < low)
    Store64(a + kBitsOffset + 8, Load64(a + kBitsOffset + 8) + 1);
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
inline void FinalOutput(unsigned char out[16], unsigned char* a) {
  byteReverse(a + kBufOffset, 4);
  std::memcpy(out, a, 16);
  std::memset(a, 0, 8);
}


}  // namespace md5_steps
