#include "testlib/scm_fixtures.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "support/strings.h"

namespace wltest {

ScmTree::ScmTree()
    : head_(NewFileNode("")),
      tree_(NewBintree(head_, CompareFunc, 0, sizeof(FileNode))),
      dir_head_(static_cast<DirNode*>(InitBintreeNode(sizeof(DirNode)))),
      dirs_(nullptr) {
  safe_cpy(&dir_head_->key, "");
  dirs_ = NewBintree(dir_head_, CompareFunc, 0, sizeof(DirNode));
}

ScmTree::~ScmTree() {
  DestroyBintree(tree_, FreeFileNode);
  FreeFileNode(head_);
  tfree(head_);
  DestroyBintree(dirs_, FreeBNode);
  FreeBNode(dir_head_);
  tfree(dir_head_);
}

FileNode* ScmTree::Add(const std::string& root, const std::string& rel,
                       const std::string& version) {
  FileNode* node = NewFileNode((root + "/" + rel).c_str());
  safe_cpy(&node->dir, root.c_str());
  safe_cpy(&node->name, rel.c_str());
  safe_cpy(&node->version, version.c_str());
  if (InsBintree(tree_, node) != 0)
    throw std::runtime_error("duplicate key " + rel);
  return node;
}

FileNode* ScmTree::Find(const std::string& key) const {
  return static_cast<FileNode*>(FindKey(tree_, key.c_str()));
}

std::string ScmTree::Version(const std::string& key) const {
  FileNode* node = Find(key);
  return node ? std::string(node->version ? node->version : "<null>") : "<absent>";
}

std::vector<std::string> ScmTree::Keys() const {
  std::vector<std::string> keys;
  auto add = [](void* record, uint32_t, void* arg) -> int {
    static_cast<std::vector<std::string>*>(arg)->push_back(static_cast<FileNode*>(record)->path);
    return 0;
  };
  WalkBintree(tree_, add, &keys);
  return keys;
}

std::vector<std::string> ScmTree::Versions(const std::string& root,
                                           const std::vector<std::string>& rels) const {
  std::vector<std::string> versions;
  for (const auto& rel : rels)
    versions.push_back(Version(root + "/" + rel));
  return versions;
}

FakeClients::FakeClients(const TempDir& dir)
    : bin_(dir / "fakebin"),
      out_(dir / "fakeout"),
      log_(dir / "fake.log"),
      path_("PATH", bin_ + ":" + OrEmpty(std::getenv("PATH"))) {
  MakeDirs(bin_);
  MakeDirs(out_);
  WriteFile(log_, "");
}

// Each field of a run is followed by a NUL; "\1" and a NUL close the run.
void FakeClients::Add(const std::string& name) {
  AddRaw(name, "{ printf '%s\\000' '" + name +
                   "' \"$(pwd -P)\" \"$@\"; printf '\\001\\000'; } >> '" + log_ + "'\ncat '" +
                   out_ + "/" + name + "' 2>/dev/null\nexit 0\n");
}

void FakeClients::AddRaw(const std::string& name, const std::string& body) {
  WriteScript(bin_, name, body);
}

void FakeClients::Output(const std::string& name, const std::string& text) {
  WriteFile(out_ + "/" + name, text);
}

std::vector<std::vector<std::string>> FakeClients::Runs() const {
  std::vector<std::vector<std::string>> runs(1);
  const std::string text = ReadFile(log_).value_or("");
  for (size_t at = 0, end; (end = text.find('\0', at)) != std::string::npos; at = end + 1) {
    if (text.compare(at, end - at, "\1") == 0) {
      runs.emplace_back();
    } else {
      runs.back().push_back(text.substr(at, end - at));
    }
  }
  runs.pop_back();
  return runs;
}

std::vector<std::vector<std::string>> FakeClients::TakeRuns() {
  auto runs = Runs();
  WriteFile(log_, "");
  return runs;
}

std::vector<std::string> FakeClients::Log() const {
  std::vector<std::string> lines;
  for (const auto& run : Runs()) {
    std::string line = run.at(0) + "|" + run.at(1) + "|";
    for (size_t i = 2; i < run.size(); ++i)
      line += "[" + run[i] + "]";
    lines.push_back(line);
  }
  return lines;
}

namespace {
std::string g_fail_match;
int FailingSpawn(const char* command, pid_t* pid) {
  *pid = -1;
  return std::string(command).find(g_fail_match) != std::string::npos ? -1
                                                                      : SpawnShell(command, pid);
}
}  // namespace

FailingStarts::FailingStarts(const std::string& match) : saved_(ScmClientSpawn) {
  g_fail_match = match;
  ScmClientSpawn = &FailingSpawn;
}
FailingStarts::~FailingStarts() { ScmClientSpawn = saved_; }

std::string RealDir(const std::string& path) {
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) ? buf : path;
}

std::string Fill(const std::string& text,
                 const std::vector<std::pair<std::string, std::string>>& values) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    auto hit = std::find_if(values.begin(), values.end(), [&](const auto& value) {
      return text.compare(at, value.first.size(), value.first) == 0;
    });
    out += hit == values.end() ? text.substr(at, 1) : hit->second;
    at += hit == values.end() ? 1 : hit->first.size();
  }
  return out;
}

ScmTest::ScmTest() : b_(RealDir(dir_.path())), cwd_(b_), fakes_(dir_) {
  scm_.files = tree_.tree();
  scm_.dirs = tree_.dirs();
  scm_.client_timeout = 60;
  for (const char* name : kScmClients)
    fakes_.Add(name);
}

}  // namespace wltest
