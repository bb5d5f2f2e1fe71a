#include "inventory/digest.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "inventory/digest_batch.h"
#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

// The digest through the stream procedure, checked against the descriptor
// procedure the scan uses (whole reads, full pieces without block copies).
std::string DigestOf(const std::string& path) {
  unsigned char out[16];
  EXPECT_EQ(md_filename(path.c_str(), out), 0) << path;
  char text[33];
  print_digest(out, text);
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ReadBuffer buffer;
  DescriptorDigest result;
  EXPECT_TRUE(DigestDescriptor(fd.get(), &result, buffer));
  EXPECT_STREQ(result.text, text) << path;
  return text;
}

std::string PatternBytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i)
    s[i] = static_cast<char>(((i * 7 + 3) ^ (i >> 8)) & 0xff);
  return s;
}

// Known answers, then pattern contents at the lengths where the padding
// changes shape (55/56: the count still fits or needs a block; 1,024: the
// read size). Only the first 8 of the 32 digits vary.
TEST(Digest, KnownAnswersAndPaddingBoundaries) {
  std::string all_bytes;
  for (int i = 0; i < 256; ++i)
    all_bytes += static_cast<char>(i);
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {"", "e4c23762"}, {"abc", "a5bfcc84"}, {all_bytes, "0ade47b4"},
      {PatternBytes(4097), "9d359956"}, {PatternBytes(55), "da4917a4"},
      {PatternBytes(56), "db624335"}, {PatternBytes(63), "ba9aaac1"},
      {PatternBytes(64), "6ee77e8d"}, {PatternBytes(119), "ec28c57d"},
      {PatternBytes(120), "7bb00109"}, {PatternBytes(1023), "2928feb6"},
      {PatternBytes(1024), "6c54209c"}, {PatternBytes(1025), "9e45327e"},
      {PatternBytes(ReadBuffer::size() + 5000), "56f1e2fd"}};
  // clang-format on
  wltest::TempDir dir;
  for (const auto& [content, digest] : cases) {
    wltest::WriteFile(dir / "f", content);
    EXPECT_EQ(DigestOf(dir / "f"), digest + std::string(24, '0')) << "length " << content.size();
  }
}

// Many files of mixed sizes through the batch (lanes start and finish at
// different times): every result equals the single-file digest, on the
// kernel this processor uses and on the portable one.
class DigestBatchKernels : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { UsePortableDigestKernel(GetParam()); }
  void TearDown() override { UsePortableDigestKernel(false); }
};

TEST_P(DigestBatchKernels, EqualsSingleFileDigests) {
  wltest::TempDir dir;
  std::mt19937 gen(7);
  std::vector<std::string> paths, want;
  for (int i = 0; i < 60; ++i) {
    std::string content((i % 7 == 0) ? gen() % 300000 : gen() % 5000, '\0');
    for (auto& ch : content)
      ch = static_cast<char>(gen() & 0xff);
    paths.push_back(dir / ("f" + std::to_string(i)));
    wltest::WriteFile(paths.back(), content);
    want.push_back(DigestOf(paths.back()) + " " + std::to_string(content.size()) + " 0;");
  }
  std::vector<std::string> results(paths.size());  // "digest size result;" per call
  {
    DigestBatch batch([](void* target, const char* text, const struct stat& st, int rc) {
      *static_cast<std::string*>(target) +=
          std::string(text) + " " + std::to_string(st.st_size) + " " + std::to_string(rc) + ";";
    });
    for (size_t i = 0; i < paths.size(); ++i)
      ASSERT_TRUE(batch.Add(UniqueFd(open(paths[i].c_str(), O_RDONLY | O_CLOEXEC)), &results[i]));
  }  // the destructor finishes what is queued
  EXPECT_EQ(results, want);
}

INSTANTIATE_TEST_SUITE_P(Kernels, DigestBatchKernels, ::testing::Values(false, true),
                         [](const auto& param_info) {
                           return param_info.param ? "Portable" : "Detected";
                         });

}  // namespace
