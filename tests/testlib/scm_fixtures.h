#pragma once
// Fixtures for the SCM tests: a file tree owned by the test, fake clients on
// PATH that record their runs, and a client starter that fails on request.
// Every fixture undoes what it did.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "inventory/filenode.h"
#include "scm/runner.h"
#include "scm/session.h"
#include "support/bintree.h"
#include "testlib/testlib.h"

namespace wltest {

// Every client program the SCM types run.
inline const char* const kScmClients[] = {"cvs", "cleartool", "hsigget", "svn",   "ss",
                                          "p4",  "si",        "accurev", "tf.exe"};

// A file tree of its own (head record, CompareFunc, no duplicates) and a
// directory tree.
class ScmTree {
 public:
  ScmTree();
  ~ScmTree();
  ScmTree(const ScmTree&) = delete;
  ScmTree& operator=(const ScmTree&) = delete;

  Bintree* tree() const { return tree_; }
  Bintree* dirs() const { return dirs_; }
  // A record for root + "/" + rel, as the directory scan makes it.
  FileNode* Add(const std::string& root, const std::string& rel, const std::string& version = "");
  FileNode* Find(const std::string& key) const;
  // Version text of the record under key, or "<absent>".
  std::string Version(const std::string& key) const;
  // Every key, in walk order.
  std::vector<std::string> Keys() const;
  // Version texts of root + "/" + rel for each rel.
  std::vector<std::string> Versions(const std::string& root,
                                    const std::vector<std::string>& rels) const;

 private:
  FileNode* head_;
  Bintree* tree_;
  DirNode* dir_head_;
  Bintree* dirs_;
};

// A bin directory first on PATH. A client made by Add records each run (its
// name, physical working directory and arguments, byte for byte) and prints
// the text set by Output.
class FakeClients {
 public:
  explicit FakeClients(const TempDir& dir);
  void Add(const std::string& name);
  // A client with an arbitrary sh body that records nothing.
  void AddRaw(const std::string& name, const std::string& body);
  void Output(const std::string& name, const std::string& text);
  // The runs so far as {name, directory, arguments...}; clears the record.
  std::vector<std::vector<std::string>> TakeRuns();
  // The runs so far as lines "<name>|<directory>|[arg1][arg2]...".
  std::vector<std::string> Log() const;

 private:
  std::vector<std::vector<std::string>> Runs() const;
  std::string bin_, out_, log_;
  ScopedEnv path_;
};

// Replaces ScmClientSpawn for the test: commands holding `match` (every
// command for "") are not started.
class FailingStarts {
 public:
  explicit FailingStarts(const std::string& match = "");
  ~FailingStarts();
  FailingStarts(const FailingStarts&) = delete;
  FailingStarts& operator=(const FailingStarts&) = delete;

 private:
  ClientSpawnFn saved_;
};

// Physical path of an existing directory.
std::string RealDir(const std::string& path);

// `text` with each key of `values` replaced by its value, in one pass: an
// inserted value is never searched again.
std::string Fill(const std::string& text,
                 const std::vector<std::pair<std::string, std::string>>& values);

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
  ScmTest();
  std::string Key(const std::string& rel) const { return b_ + "/" + rel; }

  TempDir dir_;
  std::string b_;
  ScopedCwd cwd_;
  FakeClients fakes_;
  ScmTree tree_;
  ScmSession scm_;
};
}  // namespace wltest
