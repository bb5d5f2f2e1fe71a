#pragma once
// Fixtures for the SCM tests: a file tree owned by the test, fake clients on
// PATH that record their runs, and a client starter that fails on request.
// Every fixture undoes what it did.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "inventory/filenode.h"
#include "scm/runner.h"
#include "scm/session.h"
#include "support/bintree.h"
#include "support/strings.h"
#include "testlib/testlib.h"

namespace wltest {

// Every client program the SCM types run.
inline const char* const kScmClients[] = {"cvs", "cleartool", "hsigget", "svn",   "ss",
                                          "p4",  "si",        "accurev", "tf.exe"};

// A file tree of its own (head record, CompareFunc, no duplicates) and a
// directory tree.
class ScmTree {
 public:
  ScmTree() {
    safe_cpy(&dir_head_->key, "");
    dirs_ = NewBintree(dir_head_, CompareFunc, 0, sizeof(DirNode));
  }
  ~ScmTree() {
    DestroyBintree(tree_, FreeFileNode);
    FreeFileNode(head_);
    tfree(head_);
    DestroyBintree(dirs_, FreeBNode);
    FreeBNode(dir_head_);
    tfree(dir_head_);
  }
  ScmTree(const ScmTree&) = delete;
  ScmTree& operator=(const ScmTree&) = delete;

  Bintree* tree() const { return tree_; }
  Bintree* dirs() const { return dirs_; }
  // A record for root + "/" + rel, as the directory scan makes it.
  FileNode* Add(const std::string& root, const std::string& rel, const std::string& version = "") {
    FileNode* node = NewFileNode((root + "/" + rel).c_str());
    safe_cpy(&node->dir, root.c_str());
    safe_cpy(&node->name, rel.c_str());
    safe_cpy(&node->version, version.c_str());
    if (InsBintree(tree_, node) != 0)
      throw std::runtime_error("duplicate key " + rel);
    return node;
  }
  FileNode* Find(const std::string& key) const {
    return static_cast<FileNode*>(FindKey(tree_, key.c_str()));
  }
  // Every key, in walk order.
  std::vector<std::string> Keys() const {
    std::vector<std::string> keys;
    auto add = [](void* record, uint32_t, void* arg) -> int {
      static_cast<std::vector<std::string>*>(arg)->push_back(static_cast<FileNode*>(record)->path);
      return 0;
    };
    WalkBintree(tree_, add, &keys);
    return keys;
  }
  // Version texts of root + "/" + rel for each rel ("<absent>" without a record).
  std::vector<std::string> Versions(const std::string& root,
                                    const std::vector<std::string>& rels) const {
    std::vector<std::string> versions;
    for (const auto& rel : rels) {
      const FileNode* node = Find(root + "/" + rel);
      versions.push_back(node ? OrEmpty(node->version) : "<absent>");
    }
    return versions;
  }

 private:
  FileNode* head_ = NewFileNode("");
  Bintree* tree_ = NewBintree(head_, CompareFunc, 0, sizeof(FileNode));
  DirNode* dir_head_ = static_cast<DirNode*>(InitBintreeNode(sizeof(DirNode)));
  Bintree* dirs_ = nullptr;
};

// A bin directory first on PATH. A client made by Add records each run (its
// name, physical working directory and arguments, byte for byte: each
// followed by a NUL, the run closed by "\1" and a NUL) and prints the text
// set by Output.
class FakeClients {
 public:
  explicit FakeClients(const TempDir& dir)
      : bin_(dir / "fakebin"), out_(dir / "fakeout"), log_(dir / "fake.log"),
        path_("PATH", bin_ + ":" + OrEmpty(std::getenv("PATH"))) {
    MakeDirs(bin_);
    MakeDirs(out_);
    WriteFile(log_, "");
  }
  void Add(const std::string& name) {
    AddRaw(name, "{ printf '%s\\000' '" + name + "' \"$(pwd -P)\" \"$@\"; printf '\\001\\000'; } " +
                     ">> '" + log_ + "'\ncat '" + out_ + "/" + name + "' 2>/dev/null\nexit 0\n");
  }
  // A client with an arbitrary sh body that records nothing.
  void AddRaw(const std::string& name, const std::string& body) { WriteScript(bin_, name, body); }
  void Output(const std::string& name, const std::string& text) {
    WriteFile(out_ + "/" + name, text);
  }
  // The runs so far as {name, directory, arguments...}; clears the record.
  std::vector<std::vector<std::string>> TakeRuns() {
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
    WriteFile(log_, "");
    return runs;
  }
  // The runs so far as lines "<name>|<directory>|[arg1][arg2]..."; clears the record.
  std::vector<std::string> Log() {
    std::vector<std::string> lines;
    for (const auto& run : TakeRuns()) {
      std::string& line = lines.emplace_back(run.at(0) + "|" + run.at(1) + "|");
      for (size_t i = 2; i < run.size(); ++i)
        line += "[" + run[i] + "]";
    }
    return lines;
  }

 private:
  std::string bin_, out_, log_;
  ScopedEnv path_;
};

// Replaces ScmClientSpawn for the test: commands holding `match` (every
// command for "") are not started.
class FailingStarts {
 public:
  explicit FailingStarts(const std::string& match = "") { Match() = match; }
  ~FailingStarts() { ScmClientSpawn = saved_; }
  FailingStarts(const FailingStarts&) = delete;
  FailingStarts& operator=(const FailingStarts&) = delete;

 private:
  static std::string& Match() {
    static std::string match;
    return match;
  }
  static int Spawn(const char* command, pid_t* pid) {
    *pid = -1;
    return std::string(command).find(Match()) != std::string::npos ? -1 : SpawnShell(command, pid);
  }
  ClientSpawnFn saved_ = std::exchange(ScmClientSpawn, &Spawn);
};

// Physical path of an existing directory.
inline std::string RealDir(const std::string& path) {
  char buf[PATH_MAX];
  return realpath(path.c_str(), buf) ? buf : path;
}

// `text` with each key of `values` replaced by its value, in one pass: an
// inserted value is never searched again.
inline std::string Fill(const std::string& text,
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

// What `f` prints on standard output.
template <typename F>
std::string Printed(F&& f) {
  CaptureStdout cap;
  f();
  return cap.Take();
}

// A build directory b_ (the current directory during the test), recording
// fake clients for every tool first on PATH, a file tree, and a session
// over that tree with a client bound of 60 seconds.
class ScmTest : public ::testing::Test {
 protected:
  ScmTest() {
    scm_.files = tree_.tree();
    scm_.dirs = tree_.dirs();
    scm_.client_timeout = 60;
    for (const char* name : kScmClients)
      fakes_.Add(name);
  }
  std::string Key(const std::string& rel) const { return b_ + "/" + rel; }

  TempDir dir_;
  std::string b_ = RealDir(dir_.path());
  ScopedCwd cwd_{b_};
  FakeClients fakes_{dir_};
  ScmTree tree_;
  ScmSession scm_;
};
}  // namespace wltest
