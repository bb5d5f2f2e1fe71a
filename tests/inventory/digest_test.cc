#include "inventory/digest.h"

#include <sys/stat.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testlib/testlib.h"

namespace {

std::string Zeros(size_t n) { return std::string(n, '0'); }

std::string DigestText(const unsigned char bytes[16]) {
  char text[33];
  return print_digest(bytes, text);
}

std::string DigestOfFile(const std::string& path) {
  unsigned char out[16];
  EXPECT_EQ(md_filename(path.c_str(), out), 0) << path;
  return DigestText(out);
}

std::string PatternBytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(((i * 7 + 3) ^ (i >> 8)) & 0xff);
  return s;
}

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen() & 0xff);
  return s;
}

// A second, deliberately plain rendering of the procedure, step by step as
// it is described: one byte area of context + read buffer, 64-bit words
// stored little-endian with overlapping stores. It shares no code with the
// product and covers lengths the known answers do not (the padding that
// needs an extra block).
class ReferenceDigest {
 public:
  std::string Of(const std::string& content) {
    std::memset(area_, 0, sizeof area_);
    Set(0, 0x67452301);
    Set(8, 0xefcdab89);
    Set(16, 0x98badcfe);
    Set(24, 0x10325476);
    Set(32, 0);
    Set(40, 0);
    for (size_t pos = 0; pos < content.size(); pos += 1024) {
      size_t n = std::min<size_t>(1024, content.size() - pos);
      std::memcpy(area_ + 112, content.data() + pos, n);
      Update(112, static_cast<uint32_t>(n));
    }
    return Final();
  }

 private:
  uint64_t Get(size_t off) const {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | area_[off + i];
    return v;
  }
  void Set(size_t off, uint64_t v) {
    for (int i = 0; i < 8; ++i) area_[off + i] = static_cast<unsigned char>(v >> (8 * i));
  }
  void Reverse(size_t off, unsigned n) {
    for (unsigned k = 0; k < n; ++k) {
      uint32_t v = area_[off + 4 * k] | area_[off + 4 * k + 1] << 8 |
                   area_[off + 4 * k + 2] << 16 | static_cast<uint32_t>(area_[off + 4 * k + 3]) << 24;
      Set(off + 4 * k, v);
    }
  }
  void Transform() {
    static const uint32_t kT[64] = {
        0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613,
        0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193,
        0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d,
        0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
        0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
        0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
        0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244,
        0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
        0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb,
        0xeb86d391};
    static const int kS[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
    uint64_t x[16];
    for (int k = 0; k < 16; ++k) x[k] = Get(48 + 8 * k);
    uint64_t v[4] = {Get(0), Get(8), Get(16), Get(24)};
    for (int i = 0; i < 64; ++i) {
      int round = i / 16;
      uint64_t b = v[1], c = v[2], d = v[3];
      uint64_t f;
      int k;
      if (round == 0) {
        f = (b & c) | (~b & d);
        k = i;
      } else if (round == 1) {
        f = (b & d) | (c & ~d);
        k = (1 + 5 * i) % 16;
      } else if (round == 2) {
        f = b ^ c ^ d;
        k = (5 + 3 * i) % 16;
      } else {
        f = c ^ (b | ~d);
        k = (7 * i) % 16;
      }
      int s = kS[round][i % 4];
      uint64_t w = v[0] + f + x[k] + kT[i];
      w = (w << s) | (w >> (32 - s));
      uint64_t a_new = b + w;
      v[0] = d;  // rotate the roles: (a, b, c, d) <- (d, a', b, c)
      v[3] = c;
      v[2] = b;
      v[1] = a_new;
    }
    for (int i = 0; i < 4; ++i) Set(8 * i, Get(8 * i) + v[i]);
  }
  void Update(size_t data, uint32_t len) {
    uint64_t t = Get(32);
    Set(32, t + (uint64_t{len} << 3));
    if (Get(32) < t) Set(40, Get(40) + 1);
    Set(40, Get(40) + (len >> 29));
    t = (t >> 3) & 63;
    if (t) {
      if (len < 64 - t) {
        std::memmove(area_ + 48 + t, area_ + data, len);
        return;
      }
      std::memmove(area_ + 48 + t, area_ + data, 64 - t);
      Reverse(48, 16);
      Transform();
      data += 64 - t;
      len -= static_cast<uint32_t>(64 - t);
    }
    while (len >= 64) {
      std::memmove(area_ + 48, area_ + data, 64);
      Reverse(48, 16);
      Transform();
      data += 64;
      len -= 64;
    }
    std::memmove(area_ + 48, area_ + data, len);
  }
  std::string Final() {
    unsigned c = static_cast<unsigned>((Get(32) >> 3) & 63);
    area_[48 + c] = 0x80;
    unsigned r = 63 - c;
    if (r < 8) {
      std::memset(area_ + 48 + c + 1, 0, r);
      Reverse(48, 16);
      Transform();
      std::memset(area_ + 48, 0, 56);
    } else {
      std::memset(area_ + 48 + c + 1, 0, r - 8);
    }
    Reverse(48, 14);
    Set(48 + 112, Get(32));
    Set(48 + 120, Get(40));
    Transform();
    Reverse(0, 4);
    unsigned char out[16];
    std::memcpy(out, area_, 16);
    return DigestText(out);
  }

  unsigned char area_[112 + 1024 + 8];  // + the overlap of the last store
};

struct KnownAnswer {
  const char* name;
  std::string content;
  std::string digest;
};

std::vector<KnownAnswer> KnownAnswers() {
  std::string all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes += static_cast<char>(i);
  return {
      {"empty", "", "e4c23762" + Zeros(24)},
      {"abc", "abc", "a5bfcc84" + Zeros(24)},
      {"bytes 0x00..0xff", all_bytes, "0ade47b4" + Zeros(24)},
      {"4097 pattern bytes", PatternBytes(4097), "9d359956" + Zeros(24)},
  };
}

TEST(Digest, KnownAnswersThroughEveryPath) {
  wltest::TempDir dir;
  DigestBatch::Done store = [](void* target, const char* text, const struct stat&, int) {
    *static_cast<std::string*>(target) = text;
  };
  auto answers = KnownAnswers();
  std::vector<std::string> batch_results(answers.size());
  DigestBatch batch(store);
  for (size_t i = 0; i < answers.size(); ++i) {
    const auto& ka = answers[i];
    std::string path = dir / ("f" + std::to_string(i));
    wltest::WriteFile(path, ka.content);
    EXPECT_EQ(DigestOfFile(path), ka.digest) << ka.name;
    EXPECT_EQ(ReferenceDigest().Of(ka.content), ka.digest) << ka.name << " (reference)";
    ASSERT_TRUE(batch.Add(path.c_str(), &batch_results[i])) << ka.name;
  }
  batch.Finish();
  for (size_t i = 0; i < answers.size(); ++i) {
    EXPECT_EQ(batch_results[i], answers[i].digest) << answers[i].name << " (batch)";
  }
}

TEST(Digest, MatchesReferenceForEveryLengthAroundTheBlockBoundaries) {
  wltest::TempDir dir;
  std::string path = dir / "f";
  std::vector<size_t> lengths;
  for (size_t n = 0; n <= 200; ++n) lengths.push_back(n);
  for (size_t n : {1000, 1023, 1024, 1025, 1079, 1080, 1087, 1088, 2047, 2048, 2049, 5000, 70000}) {
    lengths.push_back(n);
  }
  ReferenceDigest reference;
  for (size_t n : lengths) {
    std::string content = RandomBytes(n, static_cast<unsigned>(n));
    wltest::WriteFile(path, content);
    std::string got = DigestOfFile(path);
    EXPECT_EQ(got, reference.Of(content)) << "length " << n;
    ASSERT_EQ(got.size(), 32u);
    EXPECT_EQ(got.substr(8), Zeros(24)) << "length " << n;
  }
}

TEST(Digest, SameContentTwiceGivesTheSameTextAfterOtherFiles) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "short", "x");
  wltest::WriteFile(dir / "long", RandomBytes(3000, 1));
  std::string first = DigestOfFile(dir / "short");
  DigestOfFile(dir / "long");
  EXPECT_EQ(DigestOfFile(dir / "short"), first);
}

TEST(Digest, PrintDigestWritesTwoLowercaseDigitsPerByte) {
  unsigned char bytes[16] = {0x0a, 0xff};
  char text[33];
  EXPECT_STREQ(print_digest(bytes, text), ("0aff" + Zeros(28)).c_str());
}

TEST(Digest, ByteReverseKeepsTheFirstWordAndClearsTheNextFourNBytes) {
  for (unsigned n : {1u, 4u, 14u, 16u}) {
    std::string before = RandomBytes(4 * n + 12, n);
    std::string after = before;
    byteReverse(reinterpret_cast<unsigned char*>(after.data()), n);
    EXPECT_EQ(after.substr(0, 4), before.substr(0, 4)) << n;
    EXPECT_EQ(after.substr(4, 4 * n), std::string(4 * n, '\0')) << n;
    EXPECT_EQ(after.substr(4 + 4 * n), before.substr(4 + 4 * n)) << n;
  }
}

TEST(Digest, MdFileDigestsFromTheCurrentPosition) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "f", "12abc");
  FILE* f = std::fopen((dir / "f").c_str(), "rb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fseek(f, 2, SEEK_SET), 0);
  unsigned char out[16];
  EXPECT_EQ(mdfile(f, out), 0);
  std::fclose(f);
  EXPECT_EQ(DigestText(out), "a5bfcc84" + Zeros(24));
}

TEST(Digest, MdFilenameLeavesTheOutputAloneWhenTheFileCannotBeOpened) {
  wltest::TempDir dir;
  unsigned char out[16];
  std::memset(out, 0x5a, sizeof out);
  EXPECT_EQ(md_filename((dir / "missing").c_str(), out), -1);
  for (unsigned char b : out) EXPECT_EQ(b, 0x5a);
}

TEST(Digest, DirectoryOpensButReportsAReadErrorWithTheEmptyDigest) {
  wltest::TempDir dir;
  unsigned char out[16];
  EXPECT_EQ(md_filename(dir.path().c_str(), out), -1);
  EXPECT_EQ(DigestText(out), "e4c23762" + Zeros(24));
}

TEST(DigestStream, RefusesFifosWithoutBlocking) {
  wltest::TempDir dir;
  std::string fifo = dir / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  DigestStream stream;
  EXPECT_FALSE(stream.Open(fifo.c_str()));
  EXPECT_EQ(stream.get(), nullptr);
}

TEST(DigestStream, RefusesCharacterDevices) {
  DigestStream stream;
  EXPECT_FALSE(stream.Open("/dev/zero"));
}

TEST(DigestStream, StatusDescribesTheOpenedFile) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "f", "hello");
  DigestStream stream;
  ASSERT_TRUE(stream.Open((dir / "f").c_str()));
  EXPECT_EQ(stream.status().st_size, 5);
  stream.Close();
  EXPECT_EQ(stream.get(), nullptr);
  EXPECT_EQ(stream.status().st_size, 5);
}

// Many files of mixed sizes through the batch: lanes start and finish at
// different times, and every result must equal the single-file digest.
TEST(DigestBatch, EqualsSingleFileDigestsForMixedSizes) {
  wltest::TempDir dir;
  std::mt19937 gen(7);
  std::vector<std::string> paths;
  for (int i = 0; i < 60; ++i) {
    size_t n = (i % 7 == 0) ? gen() % 200000 : gen() % 5000;
    std::string path = dir / ("f" + std::to_string(i));
    wltest::WriteFile(path, RandomBytes(n, static_cast<unsigned>(i)));
    paths.push_back(path);
  }
  struct Result {
    std::string text;
    off_t size = -1;
    int calls = 0;
  };
  std::vector<Result> results(paths.size());
  {
    DigestBatch batch([](void* target, const char* text, const struct stat& status, int rc) {
      auto* r = static_cast<Result*>(target);
      r->text = text;
      r->size = status.st_size;
      r->calls++;
      EXPECT_EQ(rc, 0);
    });
    for (size_t i = 0; i < paths.size(); ++i) ASSERT_TRUE(batch.Add(paths[i].c_str(), &results[i]));
    ASSERT_FALSE(batch.Add((dir / "missing").c_str(), nullptr));
    // The destructor finishes what is queued.
  }
  for (size_t i = 0; i < paths.size(); ++i) {
    EXPECT_EQ(results[i].calls, 1) << paths[i];
    EXPECT_EQ(results[i].text, DigestOfFile(paths[i])) << paths[i];
    struct stat st;
    ASSERT_EQ(stat(paths[i].c_str(), &st), 0);
    EXPECT_EQ(results[i].size, st.st_size) << paths[i];
  }
}

TEST(DigestBatch, ReportsTheReadErrorOfADirectory) {
  wltest::TempDir dir;
  std::string text;
  int result = 0;
  struct Out {
    std::string* text;
    int* result;
  } out{&text, &result};
  {
    DigestBatch batch([](void* target, const char* t, const struct stat&, int rc) {
      auto* o = static_cast<Out*>(target);
      *o->text = t;
      *o->result = rc;
    });
    ASSERT_TRUE(batch.Add(dir.path().c_str(), &out));
  }
  EXPECT_EQ(text, "e4c23762" + Zeros(24));
  EXPECT_EQ(result, -1);
}

}  // namespace
