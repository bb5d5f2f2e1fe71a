#include "inventory/scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "inventory/digest.h"
#include "inventory/digest_workers.h"
#include "inventory/filenode.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

// The single test the scan makes on a mode: this bit is set for directories
// but also for block devices and sockets, which is why those are treated as
// directories (and then fail to open as one).
constexpr mode_t kDirectoryBit = 0x4000;

// Directory descriptors kept open along the current path. Deeper ancestors
// are closed and opened again on the way back up, so depth costs no
// descriptors beyond these.
constexpr size_t kOpenAncestors = 8;

// Bytes of directory entries fetched per listing call.
constexpr size_t kListingBufferSize = 64 * 1024;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;

bool OutOfDescriptors(int err) { return err == EMFILE || err == ENFILE; }

std::string Slashed(const std::string& name) {
  std::string out = name;
  ReplaceSlash(out);
  return out;
}

// Makes the record of key `full` and links it into tree, the descent begun at
// `hint` (see InsBintreeFrom); null when the key is already present (the new
// record is then released).
FileNode* LinkRecord(Bintree* tree, const char* rootDir, const std::string& full,
                     BintreeNode* hint = nullptr) {
  // The name is what follows the root and its "/". The scan always passes a
  // curDir below rootDir; for anything else the name stays empty.
  size_t skip = std::strlen(rootDir) + 1;
  FileNode* node =
      NewFileNodeIn(tree, full.c_str(), rootDir, full.size() > skip ? full.c_str() + skip : "");
  if (InsBintreeFrom(tree, hint, node) != 0)
    return nullptr;  // the record stays in the tree's arena, unused
  return node;
}

struct Entry {
  std::string name;
  unsigned char type;  // d_type; DT_UNKNOWN when the listing does not say
};

// One directory on the current path of the walk.
struct Frame {
  std::string open_name;  // how it was opened relative to its parent
  size_t key_length = 0;  // length of its key text in Walk::dir_
  std::vector<Entry> entries;
  size_t next = 0;
  // Shared with the files queued from this directory, which open their
  // names relative to it; null while the walk has closed its hold to save
  // descriptors.
  SharedDirFd dir;
  dev_t dev = 0;
  ino_t ino = 0;
  // The status the previous entry left: a failed status query keeps it.
  mode_t mode = 0;
  bool lost = false;  // could not be opened again: the rest is skipped
  // The topmost record of this directory's key range (keys beginning with
  // its key text and "/"): every key recorded below this directory passes it
  // on its way down from the root, so insertions start there instead of at
  // the root. `hint_known` is false when the range's top could not be
  // determined; the parent's hint, which holds for this range too, is used.
  BintreeNode* hint = nullptr;
  bool hint_known = false;
};

int FdOf(const Frame& frame) { return frame.dir ? frame.dir->get() : -1; }

// The topmost record whose key begins with `prefix`, searched from `from`
// (which must lie on the path of such keys; null: the root). Sets *found
// false when the search is cut short.
BintreeNode* RangeTop(Bintree* tree, BintreeNode* from, const std::string& prefix, bool* known) {
  BintreeNode* node = from != nullptr ? from : tree->head->greater;
  for (size_t steps = 0; node != nullptr; ++steps) {
    if (steps == 4096) {
      *known = false;
      return nullptr;
    }
    const char* key = node->key != nullptr ? node->key : "";
    if (std::strncmp(key, prefix.c_str(), prefix.size()) == 0)
      break;
    // Keys with the prefix form one contiguous run in byte order: all of
    // them lie on the same side of any key outside it.
    node = std::strcmp(prefix.c_str(), key) < 0 ? node->lesser : node->greater;
  }
  *known = true;
  return node;
}

class Walk {
 public:
  Walk(const char* rootDir, Bintree* tree, DigestWorkers& workers)
      : root_(rootDir), tree_(tree), workers_(workers) {}

  // Scans start (with backslashes already turned into "/"); 1 when a file of
  // start itself was recorded.
  int Run(const std::string& start);
  // The first name that could not be opened for want of descriptors, or "".
  const std::string& Starved() const { return starved_; }

 private:
  int OpenAt(int dir_fd, const char* name, int flags, bool needed = true);
  bool Push(int fd, const std::string& open_name, const std::string& key_part);
  void Pop();
  bool EnsureOpen(size_t level);
  mode_t Classify(Frame& frame, const Entry& entry);
  void RecordFile(Frame& frame, const Entry& entry);
  void EnterDirectory(Frame& frame, const Entry& entry);
  BintreeNode* Hint() const;

  const char* root_;
  Bintree* tree_;
  DigestWorkers& workers_;
  std::vector<Frame> stack_;
  std::string dir_;  // key text of the directory on top of the stack
  std::string full_;
  std::vector<char> listing_;  // directory entries as the system returns them
  std::string starved_;
};

// Where insertions for the top directory start: the nearest hint known on
// the path.
BintreeNode* Walk::Hint() const {
  for (size_t i = stack_.size(); i-- > 0;)
    if (stack_[i].hint != nullptr)
      return stack_[i].hint;
  return nullptr;
}

// openat that, when descriptors run out, waits for the digest workers to
// close theirs, then also closes the walk's own holds on ancestors other
// than `dir_fd`'s (they are opened again by name when needed) and tries
// again. A `needed` name that still cannot be opened is noted: the scan is
// then incomplete, and saying nothing would make its files look deleted.
int Walk::OpenAt(int dir_fd, const char* name, int flags, bool needed) {
  int fd = openat(dir_fd, name, flags);
  if (fd >= 0 || !OutOfDescriptors(errno))
    return fd;
  workers_.Finish();
  fd = openat(dir_fd, name, flags);
  if (fd >= 0 || !OutOfDescriptors(errno))
    return fd;
  for (Frame& frame : stack_)
    if (frame.dir && frame.dir->get() != dir_fd)
      frame.dir.reset();
  fd = openat(dir_fd, name, flags);
  if (fd < 0 && OutOfDescriptors(errno) && needed && starved_.empty())
    starved_ = stack_.empty() ? std::string(name) : dir_ + "/" + name;
  return fd;
}

// Lists the directory open as fd and makes it the top of the stack. False
// (fd closed) when it cannot be listed.
bool Walk::Push(int fd, const std::string& open_name, const std::string& key_part) {
  UniqueFd dir_fd(fd);
  struct stat status;
  if (fstat(dir_fd.get(), &status) != 0)
    return false;
  // The names are read straight from the descriptor, which the listing
  // leaves usable for opening the entries. A read error ends the listing
  // with the names read so far.
  Frame frame;
  listing_.resize(kListingBufferSize);
  for (;;) {
    ssize_t n = getdents64(dir_fd.get(), listing_.data(), listing_.size());
    if (n <= 0)
      break;
    for (ssize_t at = 0; at < n;) {
      const auto* entry = reinterpret_cast<const dirent64*>(listing_.data() + at);
      at += entry->d_reclen;
      const char* name = entry->d_name;
      // "." and ".." begin with "." and are directories: never descended into.
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
        continue;
      frame.entries.push_back({name, entry->d_type});
    }
  }
  frame.open_name = open_name;
  frame.dev = status.st_dev;
  frame.ino = status.st_ino;
  frame.dir = std::make_shared<const UniqueFd>(std::move(dir_fd));
  if (!stack_.empty())
    dir_.append("/").append(key_part);
  frame.key_length = dir_.size();
  frame.hint = RangeTop(tree_, Hint(), dir_ + "/", &frame.hint_known);
  stack_.push_back(std::move(frame));
  if (stack_.size() > kOpenAncestors)
    stack_[stack_.size() - 1 - kOpenAncestors].dir.reset();
  return true;
}

// Leaves the top directory; its parent's descriptor is opened again first if
// it was closed (through "..", checked to be the same directory, else by
// names from the nearest open ancestor).
void Walk::Pop() {
  size_t parent = stack_.size() - 2;
  if (stack_.size() >= 2 && !stack_[parent].dir && !stack_[parent].lost && stack_.back().dir) {
    // Not needed: without it, the parent is opened again by names.
    UniqueFd up(OpenAt(FdOf(stack_.back()), "..", kDirectoryFlags & ~O_NOFOLLOW, false));
    struct stat status;
    if (up.get() >= 0 && fstat(up.get(), &status) == 0 && status.st_dev == stack_[parent].dev &&
        status.st_ino == stack_[parent].ino)
      stack_[parent].dir = std::make_shared<const UniqueFd>(std::move(up));
  }
  stack_.pop_back();
  if (!stack_.empty())
    dir_.resize(stack_.back().key_length);
}

// Makes sure the directory at `level` has an open descriptor, opening it by
// names from the nearest open ancestor if needed. False when that fails (the
// directory was moved or removed meanwhile).
bool Walk::EnsureOpen(size_t level) {
  Frame& frame = stack_[level];
  if (frame.dir)
    return true;
  if (frame.lost)
    return false;
  size_t base = level;
  while (base > 0 && !stack_[base - 1].dir)
    --base;
  for (size_t i = base; i <= level; ++i) {
    int parent_fd = i == 0 ? AT_FDCWD : FdOf(stack_[i - 1]);
    int flags = i == 0 ? kDirectoryFlags & ~O_NOFOLLOW : kDirectoryFlags;
    UniqueFd fd(OpenAt(parent_fd, stack_[i].open_name.c_str(), flags));
    struct stat status;
    if (fd.get() < 0 || fstat(fd.get(), &status) != 0 || status.st_dev != stack_[i].dev ||
        status.st_ino != stack_[i].ino) {
      frame.lost = true;
      return false;
    }
    stack_[i].dir = std::make_shared<const UniqueFd>(std::move(fd));
    // Keep within the budget while going down the chain.
    if (i >= 1 && i - 1 + kOpenAncestors < stack_.size())
      stack_[i - 1].dir.reset();
  }
  return true;
}

// The entry's mode as far as the scan looks at it. The listing's type is
// the entry's type when it was listed; only where the listing does not say
// is the entry examined (without following links), and a failed examination
// keeps the previous entry's status.
mode_t Walk::Classify(Frame& frame, const Entry& entry) {
  if (entry.type != DT_UNKNOWN) {
    frame.mode = DTTOIF(entry.type);
  } else {
    struct stat status;
    if (EnsureOpen(stack_.size() - 1) &&
        fstatat(FdOf(frame), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
      frame.mode = status.st_mode;
  }
  return frame.mode;
}

void Walk::RecordFile(Frame& frame, const Entry& entry) {
  const bool plain_name = entry.name.find('\\') == std::string::npos;
  const std::string& name = plain_name ? entry.name : Slashed(entry.name);
  full_.assign(dir_).append("/").append(name);
  FileNode* node = LinkRecord(tree_, root_, full_, Hint());
  if (!node)
    return;
  // The first record of an empty range is its top for good.
  for (size_t i = stack_.size(); i-- > 0 && stack_[i].hint == nullptr && stack_[i].hint_known;)
    stack_[i].hint = reinterpret_cast<BintreeNode*>(node);
  // FIFOs and devices are never opened: the record keeps its empty digest
  // and zero numbers, as when a file cannot be opened. A name with a
  // backslash is opened by its key (which names another path, or none).
  if (plain_name && (S_ISFIFO(frame.mode) || S_ISCHR(frame.mode)))
    return;
  if (!EnsureOpen(stack_.size() - 1))
    return;
  // Opened by the worker that reads it: the name is the key's end.
  workers_.Submit(frame.dir, node->path + dir_.size() + 1, node);
}

void Walk::EnterDirectory(Frame& frame, const Entry& entry) {
  if (!EnsureOpen(stack_.size() - 1))
    return;
  // A name with a backslash is entered as the path its key names.
  std::string key_part = Slashed(entry.name);
  int fd = OpenAt(FdOf(frame), key_part.c_str(), kDirectoryFlags);
  if (fd >= 0)
    (void)Push(fd, key_part, key_part);  // unreadable: nothing recorded, no message
}

int Walk::Run(const std::string& start) {
  int fd = OpenAt(AT_FDCWD, start.c_str(), kDirectoryFlags & ~O_NOFOLLOW);
  if (fd < 0)
    return 0;
  dir_ = start;
  if (!Push(fd, start, start))
    return 0;
  int result = 0;
  while (!stack_.empty()) {
    Frame& frame = stack_.back();
    if (frame.next == frame.entries.size() || frame.lost) {
      Pop();
      continue;
    }
    const Entry& entry = frame.entries[frame.next++];
    bool directory = (Classify(frame, entry) & kDirectoryBit) != 0;
    if (!directory && entry.name != "harvest.sig") {
      RecordFile(frame, entry);
      if (stack_.size() == 1)
        result = 1;
    } else if (directory && entry.name[0] != '.' && entry.name != "CVS") {
      EnterDirectory(frame, entry);  // may grow the stack: `frame` is not used after
    }
  }
  return result;
}

}  // namespace

int LoadRecursiveFiles(const char* rootDir, const char* curDir, Bintree* tree,
                       std::string* starved) {
  std::string start(curDir);
  ReplaceSlash(start);
  DigestWorkers workers(DigestThreadCount());
  Walk walk(rootDir, tree, workers);
  int result = walk.Run(start);
  workers.Finish();
  if (starved != nullptr)
    *starved = !walk.Starved().empty() ? walk.Starved() : workers.Starved();
  return result;
}

int LoadRecursiveFiles(const char* rootDir, const char* curDir, Bintree* tree) {
  return LoadRecursiveFiles(rootDir, curDir, tree, nullptr);
}

void Add2FileTree(Bintree* tree, const char* rootDir, const char* curDir, const char* entryName) {
  std::string full = std::string(curDir) + "/" + entryName;
  ReplaceSlash(full);
  FileNode* node = LinkRecord(tree, rootDir, full);
  if (!node)
    return;
  UniqueFd fd(open(full.c_str(), kDigestOpenFlags));
  if (fd.get() < 0)
    return;
  ReadBuffer buffer;
  DescriptorDigest result;
  if (!DigestDescriptor(fd.get(), &result, buffer))
    return;
  safe_cpy(&node->digest, result.text);
  node->mtime = static_cast<int64_t>(result.status.st_mtime);
  node->size = static_cast<int64_t>(result.status.st_size);
}
