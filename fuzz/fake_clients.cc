#include "fake_clients.h"

#include <cstdio>

namespace fuzz {

namespace {
FakeClients* current = nullptr;
}  // namespace

FakeClients::FakeClients(std::vector<std::string> outputs)
    : outputs_(std::move(outputs)), saved_(ScmClientOpen) {
  current = this;
  ScmClientOpen = &FakeClients::Open;
}

FakeClients::~FakeClients() {
  ScmClientOpen = saved_;
  current = nullptr;
}

FILE* FakeClients::Open(const char* /*command*/) {
  if (current == nullptr || current->next_ >= current->outputs_.size())
    return nullptr;
  std::string& out = current->outputs_[current->next_++];
  // An empty memory stream cannot be made; /dev/null reads as empty.
  // The pipe is closed with pclose, which closes any stream.
  if (out.empty())
    return std::fopen("/dev/null", "re");
  return fmemopen(out.data(), out.size(), "r");
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

}  // namespace fuzz
