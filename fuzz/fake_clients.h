#pragma once
// Stands in for the SCM client starter while it lives: each start is
// answered with the next of the given outputs, read from memory, and no
// process is started. Once the outputs are used up, starts fail as if the
// client could not be run.

#include <string>
#include <vector>

#include <sys/types.h>

#include "scm/runner.h"
#include "support/bintree.h"

namespace fuzz {

class FakeClients {
 public:
  explicit FakeClients(std::vector<std::string> outputs);
  ~FakeClients();
  FakeClients(const FakeClients&) = delete;
  FakeClients& operator=(const FakeClients&) = delete;

 private:
  static int Open(const char* command, pid_t* pid);
  std::vector<std::string> outputs_;
  size_t next_ = 0;
  ClientSpawnFn saved_;
};

// Cuts `text` at every "\n" followed by a NUL byte into at most `count`
// pieces (the last one takes the rest).
std::vector<std::string> SplitOutputs(std::string_view text, size_t count);

// A tree of file records, one for each "|"-separated name of `names` below
// `build_dir`, as the scan would make it: key and directory set, the name too
// when `with_names`; a repeated name is dropped. The caller destroys it.
Bintree* FileTreeOf(const std::string& build_dir, const std::string& names, bool with_names);

}  // namespace fuzz
