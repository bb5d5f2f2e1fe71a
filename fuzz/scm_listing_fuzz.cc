// Workspace listings and the repository log: the input names the files the
// scan found and then gives the client's output; the output is read by the
// listing of every tool of the listing group, by the si sandbox listing and
// by the repository-log path.
//
// Layout: a line of file names separated by "|", a line naming the si
// sandbox, then the client output.

#include <sys/stat.h>

#include <string>
#include <vector>

#include "fake_clients.h"
#include "fuzz_support.h"
#include "inventory/filenode.h"
#include "scm/listing.h"
#include "scm/scmtool.h"
#include "support/bintree.h"
#include "support/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::QuietStdout();
  fuzz::Input in(data, size);
  const std::string names = in.Line();
  const std::string sandbox = in.Line();
  const std::string output(in.Rest());
  const std::string build_dir = fuzz::ScratchDir() + "/build";
  static const bool made = mkdir(build_dir.c_str(), 0700) == 0;
  (void)made;

  for (uint32_t type : {kScmCvs, kScmClearCase, kScmSvn, kScmAccurev, kScmMstf, kScmSi}) {
    Bintree* tree = fuzz::FileTreeOf(build_dir, names, false);
    {
      fuzz::FakeClients clients({output});
      ScmSession scm;
      scm.type = type;
      scm.files = tree;
      if (type == kScmSi)
        ListSiSandbox(scm, build_dir.c_str(), sandbox);
      else
        FindVersionInfo(scm, build_dir.c_str());
    }
    DestroyBintree(tree, FreeFileNode);
  }

  // The repository log digests the files it names below the build
  // directory; ".." is taken out so that it reads nothing outside it.
  std::string log = output;
  for (size_t at = log.find(".."); at != std::string::npos; at = log.find("..", at))
    log.replace(at, 2, "__");
  Bintree* tree = fuzz::FileTreeOf(build_dir, names, false);
  {
    fuzz::FakeClients clients({log});
    ScmSession scm;
    scm.type = kScmCvsRep;
    scm.files = tree;
    (void)LoadRepository(scm, build_dir.c_str());
  }
  DestroyBintree(tree, FreeFileNode);
  return 0;
}
