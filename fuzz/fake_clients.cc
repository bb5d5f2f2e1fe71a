#include "fake_clients.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "inventory/filenode.h"
#include "scm/scmtool.h"
#include "support/strings.h"

namespace fuzz {

namespace {
FakeClients* current = nullptr;
}  // namespace

FakeClients::FakeClients(std::vector<std::string> outputs)
    : outputs_(std::move(outputs)), saved_(ScmClientSpawn) {
  current = this;
  ScmClientSpawn = &FakeClients::Open;
}

FakeClients::~FakeClients() {
  ScmClientSpawn = saved_;
  current = nullptr;
}

int FakeClients::Open(const char* /*command*/, pid_t* pid) {
  *pid = -1;  // no process: nothing to wait for
  if (current == nullptr || current->next_ >= current->outputs_.size())
    return -1;
  const std::string& out = current->outputs_[current->next_++];
  // The output is read from an in-memory file the runner closes.
  int fd = memfd_create("fake-client", MFD_CLOEXEC);
  if (fd < 0)
    return -1;
  for (size_t done = 0; done < out.size();) {
    ssize_t n = write(fd, out.data() + done, out.size() - done);
    if (n <= 0) {
      close(fd);
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  lseek(fd, 0, SEEK_SET);
  return fd;
}

std::vector<std::string> SplitOutputs(std::string_view text, size_t count) {
  std::vector<std::string> pieces;
  while (pieces.size() + 1 < count) {
    size_t cut = text.find(std::string_view("\n\0", 2));
    if (cut == std::string_view::npos)
      break;
    pieces.emplace_back(text.substr(0, cut + 1));
    text.remove_prefix(cut + 2);
  }
  pieces.emplace_back(text);
  while (pieces.size() < count)
    pieces.emplace_back();
  return pieces;
}

Bintree* FileTreeOf(const std::string& build_dir, const std::string& names, bool with_names) {
  Bintree* tree = NewBintree(nullptr, CompareFunc, 0, sizeof(FileNode));
  size_t start = 0;
  while (start <= names.size()) {
    size_t end = names.find('|', start);
    if (end == std::string::npos)
      end = names.size();
    const std::string name = names.substr(start, end - start);
    FileNode* node = NewFileNode(TreeKey(build_dir, name).c_str());
    safe_cpy(&node->dir, build_dir.c_str());
    if (with_names)
      safe_cpy(&node->name, name.c_str());
    if (InsBintree(tree, node) != 0) {
      FreeFileNode(node);
      tfree(node);
    }
    start = end + 1;
  }
  return tree;
}

}  // namespace fuzz
