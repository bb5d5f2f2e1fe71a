#pragma once
// Fixtures for the SCM tests: a file tree owned by the test, fake clients on
// PATH that record their arguments and directory, and a replaceable client
// starter. Every fixture undoes what it did.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "inventory/filenode.h"
#include "scm/scmtool.h"
#include "support/bintree.h"
#include "testlib/testlib.h"

namespace wltest {

// A FileTree of its own (head record, CompareFunc, no duplicates), destroyed
// with FreeFileNode. With `install`, FileTree and DirTree (a fresh one) are
// set to it for the test and restored afterwards.
class ScmTree {
 public:
  explicit ScmTree(bool install = false);
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
  // Every key in DirTree.
  std::vector<std::string> DirKeys() const;

 private:
  FileNode* head_ = nullptr;
  Bintree* tree_ = nullptr;
  DirNode* dir_head_ = nullptr;
  Bintree* dirs_ = nullptr;
  bool installed_ = false;
  Bintree* saved_files_ = nullptr;
  Bintree* saved_dirs_ = nullptr;
};

// A bin directory first on PATH holding fake clients. Each records one log
// line per run: "<name>|<physical cwd>|[arg1][arg2]..." and prints the
// output file <out>/<name>.<first arg>.out when there is one, else
// <out>/<name>.out (nothing when neither exists).
class FakeClients {
 public:
  // With keep_path false, PATH holds only the fake bin directory and /bin
  // (for the shell utilities the fakes use).
  explicit FakeClients(const TempDir& dir, bool keep_path = true);
  // A recording client named `name`. `extra` runs before the output is
  // printed (sh text).
  void Add(const std::string& name, const std::string& extra = "");
  // A client with an arbitrary body (no recording).
  void AddRaw(const std::string& name, const std::string& body);
  // Set the recorded output of `name` (for first argument `sub` when given).
  void Output(const std::string& name, const std::string& text, const std::string& sub = "");
  // The log lines so far.
  std::vector<std::string> Log() const;
  const std::string& bin() const { return bin_; }

 private:
  std::string bin_, out_, log_;
  ScopedEnv path_;
};

// Replaces ScmClientOpen for the test: commands for which `fail` returns true
// are not started.
class FailingStarts {
 public:
  explicit FailingStarts(std::function<bool(const std::string&)> fail);
  ~FailingStarts();
  FailingStarts(const FailingStarts&) = delete;
  FailingStarts& operator=(const FailingStarts&) = delete;
  // Commands that reached the starter, failed or not.
  const std::vector<std::string>& seen() const;

 private:
  ClientOpenFn saved_;
};

// Sets TZ for the test (and tzset), restores it afterwards.
class ScopedTz {
 public:
  explicit ScopedTz(const std::string& tz);
  ScopedTz(const ScopedTz&) = delete;
  ScopedTz& operator=(const ScopedTz&) = delete;

 private:
  // Destroyed after env_ has restored TZ, so the old zone is read again.
  struct Retzset {
    ~Retzset();
  } retzset_;
  ScopedEnv env_;
};

// Physical path of an existing directory (realpath).
std::string RealDir(const std::string& path);
// The current directory.
std::string CurrentDir();
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kUnderAddressSanitizer = true;
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif
// Peak resident set size of this process so far, in KiB.
long PeakRssKib();
// Runs sh -c `script` in `cwd` with the current environment; true on exit 0.
bool Sh(const std::string& script, const std::string& cwd);

// Standard output of sh -c `script` run in `cwd` (standard error merged).
std::string ShOut(const std::string& script, const std::string& cwd);
// True when `name` is found on PATH.
bool HaveTool(const std::string& name);

// Real workspaces inside dir, each holding a.c (committed twice) and sub/b.c
// (committed once). Return the checkout's physical path, or "" when making
// it failed.
std::string MakeSvnCheckout(const TempDir& dir);
std::string MakeCvsCheckout(const TempDir& dir);

// One record line of an inventory or change report:
// "<tag>dir;name;size;mtime; digest; version;".
struct ScmRecord {
  std::string tag;  // "" for an inventory line, "A", "C" or "D" in a report
  std::string dir, name, size, mtime, digest, version;
};
// The record lines of an inventory file (lines without "=").
std::vector<ScmRecord> ReadInventoryRecords(const std::string& path);
// The record with `name`, or null.
const ScmRecord* FindRecord(const std::vector<ScmRecord>& records, const std::string& name);
// Runs the built binary for a job named "job.bom.data" on machine "m" with
// the given -c keyword and build directory; server at a closed loopback
// port, PATH /usr/bin:/bin, HOME `home`.
RunResult RunInspection(const std::string& keyword, const std::string& build,
                        const std::string& start, const std::string& home);
// Name of the numbered output of such a run ("bom" or "diff").
std::string RunOutputName(const std::string& kind, int counter);
// The change report's detail block after the "C;" line for `name`: every
// line up to and including the 22-"!" separator, or "" when there is none.
std::string DetailBlock(const std::string& report, const std::string& name);

}  // namespace wltest
