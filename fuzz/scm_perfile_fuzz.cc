// Per-file and per-directory version queries (ss, p4, hsigget): the input
// names the files the scan found and gives the client outputs, answered in
// turn to the queries the walk makes.
//
// Layout: a line of file names separated by "|" (below a build directory
// of the scratch folder), then the client outputs, separated by a "\n"
// followed by a NUL byte.

#include <sys/stat.h>

#include <string>
#include <vector>

#include "fake_clients.h"
#include "fuzz_support.h"
#include "inventory/filenode.h"
#include "scm/perfile.h"
#include "scm/scmtool.h"
#include "support/bintree.h"
#include "support/strings.h"

namespace {

constexpr size_t kMaxOutputs = 8;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::QuietStdout();
  fuzz::Input in(data, size);
  std::string names = in.Line();
  // The queries change into the files' directories: no ".." may lead them
  // out of the scratch folder.
  for (size_t at = names.find(".."); at != std::string::npos; at = names.find("..", at))
    names.replace(at, 2, "__");
  const std::vector<std::string> outputs = fuzz::SplitOutputs(in.Rest(), kMaxOutputs);
  const std::string build_dir = fuzz::ScratchDir() + "/build";
  static const bool made = mkdir(build_dir.c_str(), 0700) == 0;
  (void)made;

  for (uint32_t type : {kScmVss, kScmPerforce, kScmHarvest}) {
    ScmSession scm;
    scm.type = type;
    scm.files = fuzz::FileTreeOf(build_dir, names, true);
    scm.dirs = NewBintree(nullptr, CompareFunc, 0, sizeof(DirNode));
    {
      fuzz::FakeClients clients(outputs);
      WalkBintree(scm.files, LoadVersionInfo, &scm);
    }
    DestroyBintree(scm.dirs, FreeBNode);
    DestroyBintree(scm.files, FreeFileNode);
  }
  return 0;
}
