#include "inventory/scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "inventory/digest.h"
#include "inventory/digest_batch.h"
#include "inventory/inventory.h"
#include "support/handles.h"

#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::kAbcDigest;
using wltest::kEmptyDigest;
using wltest::ScopedFileTree;
using wltest::TempDir;

// The digest through the stream procedure, checked against the descriptor
// procedure the scan uses (whole reads, full pieces without block copies),
// with and without reading ahead.
std::string DigestOf(const std::string& path) {
  unsigned char out[16];
  EXPECT_EQ(md_filename(path.c_str(), out), 0) << path;
  char text[33];
  print_digest(out, text);
  for (ReadAhead ahead : {ReadAhead::kNo, ReadAhead::kForLongFiles}) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ReadBuffer buffer;
    DescriptorDigest result;
    EXPECT_TRUE(DigestDescriptor(fd.get(), &result, buffer, ahead));
    EXPECT_STREQ(result.text, text) << path;
  }
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
  // Long enough to be read ahead, over several chunks and a short last one.
  wltest::WriteFile(dir / "long", PatternBytes(kReadAheadMinSize + 3 * (1 << 20) + 77));
  DigestOf(dir / "long");
}

int Scan(const TempDir& dir, const ScopedFileTree& tree) {
  return LoadRecursiveFiles(dir.path().c_str(), dir.path().c_str(), tree.get());
}

// Every skip rule and kind of entry in one tree, and the record each gives.
TEST(Scan, SkipRulesAndTheRecordOfEachEntry) {
  TempDir dir;
  std::string deep;  // a path of more than 1,024 bytes
  for (char c = 'a'; c < 'i'; ++c)
    deep += std::string(200, c) + "/";
  deep += "leaf.c";
  // clang-format off
  for (const char* f : {"a.c", "sub/b.c", ".profile", "sub/.profile", "Harvest.sig", "cvs/d.c",
                        "harvest.sig.d/e.c", "sub/cvsfile", "semi;colon", "eq=sign", "new\nline",
                        "two  blanks ", "latin\xe9\xff", "a\\b.c", deep.c_str(),  // kept
                        ".hidden/c.c", "sub/.git/y", "CVS/Entries", "sub/CVS/x", "harvest.sig",
                        "sub/harvest.sig"})  // skipped
    wltest::WriteFile(dir / f, "abc");
  for (const auto& [link, target] : std::vector<std::pair<const char*, const char*>>{
           {"dirlink", "sub"}, {"filelink", "a.c"}, {"dangling", "missing"}, {"loop1", "loop2"},
           {"loop2", "loop1"}, {"zero", "/dev/zero"}})
    ASSERT_EQ(symlink(target, (dir / link).c_str()), 0);
  // clang-format on
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  wltest::WriteFile(dir / "secret", "abc");
  wltest::WriteFile(dir / "closed/a", "abc");
  ASSERT_EQ(chmod((dir / "secret").c_str(), 0) + chmod((dir / "closed").c_str(), 0), 0);
  const bool root = geteuid() == 0;  // root reads what permissions close
  struct stat dir_status, a_status;
  ASSERT_EQ(stat((dir / "sub").c_str(), &dir_status), 0);
  ASSERT_EQ(stat((dir / "a.c").c_str(), &a_status), 0);
  ScopedFileTree tree;
  EXPECT_EQ(Scan(dir, tree), 1);
  // Name, start of the digest, size. Entries that cannot be opened keep an
  // empty digest and zeros; a backslash name becomes a path naming no file;
  // a link to a directory reads as nothing; an unreadable directory adds nothing.
  const std::string abc = " a5bfcc84 3";
  // clang-format off
  std::vector<std::string> want = {
      ".profile" + abc, "Harvest.sig" + abc, "a.c" + abc, "a/b.c  0", deep + abc, "cvs/d.c" + abc,
      "dangling  0", "dirlink e4c23762 " + std::to_string(dir_status.st_size), "eq=sign" + abc,
      "filelink" + abc, "harvest.sig.d/e.c" + abc, "latin\xe9\xff" + abc, "loop1  0", "loop2  0",
      "new\nline" + abc, "pipe  0", "semi;colon" + abc, "sub/.profile" + abc, "sub/b.c" + abc,
      "sub/cvsfile" + abc, "two  blanks " + abc, "zero  0", "secret" + (root ? abc : "  0")};
  // clang-format on
  if (root)
    want.push_back("closed/a" + abc);
  std::sort(want.begin(), want.end());
  std::vector<std::string> got;
  for (const auto& r : tree.Records()) {
    got.push_back(r.name + " " + r.digest.substr(0, 8) + " " + std::to_string(r.size));
    EXPECT_EQ(r.path, dir.path() + "/" + r.name);
    EXPECT_EQ(r.dir, dir.path());
    EXPECT_EQ(r.mtime == 0, r.digest.empty()) << r.name;
    EXPECT_EQ(r.mtime, r.name == "a.c" ? a_status.st_mtime : r.mtime);
  }
  EXPECT_EQ(got, want);
}

std::vector<std::string> OpenDescriptors() {
  std::vector<std::string> fds;
  UniqueDir d(opendir("/proc/self/fd"));
  while (dirent* e = readdir(d.get()))
    if (e->d_name[0] != '.')
      fds.push_back(e->d_name);
  fds.erase(std::find(fds.begin(), fds.end(), std::to_string(dirfd(d.get()))));
  std::sort(fds.begin(), fds.end());
  return fds;
}

// 5,000 directories deep (keys of 10,000 bytes, beyond any path limit of the
// system calls), with files, a FIFO and an unreadable file at several levels,
// scanned with 32 descriptors allowed: every file is recorded with its
// digest, and the descriptors open afterwards are those open before.
TEST(Scan, DeepTreeUnderLowDescriptorLimitKeepsEveryFileAndNoDescriptor) {
  constexpr int kDepth = 5000;
  // Deep trees are slow to make and remove on a journalled disk; memory
  // serves where it can.
  std::optional<wltest::ScopedEnv> in_memory;
  if (access("/dev/shm", W_OK) == 0)
    in_memory.emplace("TMPDIR", "/dev/shm");
  TempDir dir;
  std::string key = dir.path();
  std::vector<std::string> want;
  {
    UniqueFd fd(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int level = 1; level <= kDepth; ++level) {
      ASSERT_EQ(mkdirat(fd.get(), "d", 0700), 0);
      fd.Reset(openat(fd.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      ASSERT_GE(fd.get(), 0);
      key += "/d";
      if (level % 1000 != 0 && level != 7)
        continue;
      UniqueFd file(openat(fd.get(), "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
      ASSERT_EQ(write(file.get(), "abc", 3), 3);
      ASSERT_EQ(mkfifoat(fd.get(), "p", 0600), 0);
      want.push_back(key + "/f " + kAbcDigest);
      want.push_back(key + "/p ");
      if (geteuid() != 0) {
        UniqueFd secret(openat(fd.get(), "s", O_WRONLY | O_CREAT | O_CLOEXEC, 0));
        want.push_back(key + "/s ");
      }
    }
  }
  std::sort(want.begin(), want.end());
  CloseLoadedInventories();  // earlier tests of this program keep theirs open
  std::vector<std::string> before = OpenDescriptors();
  ASSERT_LT(before.size(), 8u);
  struct rlimit old_limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old_limit), 0);
  struct rlimit low = old_limit;
  low.rlim_cur = 32;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old_limit), 0);
  EXPECT_EQ(OpenDescriptors(), before);
  std::vector<std::string> got;
  for (const auto& r : tree.Records())
    got.push_back(r.path + " " + r.digest);
  EXPECT_EQ(got, want);
  // The fixture removes trees by full paths; this one is too deep for that.
  UniqueFd fd(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < kDepth; ++level)
    fd.Reset(openat(fd.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < kDepth; ++level) {
    for (const char* name : {"f", "p", "s"})
      unlinkat(fd.get(), name, 0);
    fd.Reset(openat(fd.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(unlinkat(fd.get(), "d", AT_REMOVEDIR), 0);
  }
}

// More files than descriptors left, for four workers: the files a worker
// could not open are opened again once the others are closed, so every
// record gets its digest, and no descriptor stays open.
TEST(Scan, WorkersOutOfDescriptorsStillDigestEveryFile) {
  TempDir dir;
  std::vector<std::string> want;
  for (int i = 0; i < 200; ++i) {
    wltest::WriteFile(dir / ("f" + std::to_string(1000 + i)), "abc");
    want.push_back(dir / ("f" + std::to_string(1000 + i)) + " " + kAbcDigest);
  }
  CloseLoadedInventories();
  std::vector<std::string> before = OpenDescriptors();
  struct rlimit old_limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old_limit), 0);
  struct rlimit low = old_limit;
  low.rlim_cur = before.size() + 8;
  ScopedFileTree tree;
  {
    wltest::ScopedEnv threads("WEFTLANE_THREADS", "4");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    Scan(dir, tree);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old_limit), 0);
  }
  EXPECT_EQ(OpenDescriptors(), before);
  std::vector<std::string> got;
  for (const auto& r : tree.Records())
    got.push_back(r.path + " " + r.digest);
  EXPECT_EQ(got, want);
}

// Files of many sizes (around the piece and read sizes, and large) over
// several directories: one digest thread, and several on each kernel this
// processor can run, give the same records, byte for byte, and each digest
// is the stream procedure's.
TEST(Scan, ThreadsAndKernelsGiveTheSameRecords) {
  TempDir dir;
  std::mt19937 gen(11);
  const size_t sizes[] = {0, 1, 55, 64, 1023, 1024, 1025, 65536, 65537, 262144, 300000, 1 << 20};
  for (int i = 0; i < 120; ++i) {
    size_t n = i < 12 ? sizes[i] : gen() % 20000;
    std::string content(n, '\0');
    for (auto& c : content)
      c = static_cast<char>(gen());
    wltest::WriteFile(dir / ("d" + std::to_string(i % 5) + "/f" + std::to_string(i)), content);
  }
  const struct {
    const char* threads;
    DigestKernel kernel;
  } runs[] = {{"1", DigestKernel::kFastest},
              {"4", DigestKernel::kFastest},
              {"4", DigestKernel::kPortable},
              {"4", DigestKernel::kAvx2},
              {"4", DigestKernel::kAvx512}};
  std::string first;
  for (const auto& run : runs) {
    if (!UseDigestKernel(run.kernel))
      continue;  // not on this processor
    wltest::ScopedEnv threads("WEFTLANE_THREADS", run.threads);
    ScopedFileTree tree;
    Scan(dir, tree);
    UseDigestKernel(DigestKernel::kFastest);
    for (const auto& r : tree.Records())
      EXPECT_EQ(r.digest, DigestOf(r.path)) << r.name;
    if (first.empty())
      first = tree.Text();
    EXPECT_EQ(tree.Text(), first) << run.threads << " threads, kernel "
                                  << static_cast<int>(run.kernel);
  }
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 120);
}

}  // namespace
