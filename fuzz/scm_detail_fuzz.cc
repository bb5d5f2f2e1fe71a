// Change detail: the commands formed from the records of a changed file and
// the copying of both client outputs into the report, for every tool.
//
// Layout: lines for the new record's name, version and the old record's
// name and version, then the two client outputs separated by a "\n"
// followed by a NUL byte. The records lie below a build directory of the
// scratch folder.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fake_clients.h"
#include "fuzz_support.h"
#include "inventory/filenode.h"
#include "scm/detail.h"
#include "scm/scmtool.h"
#include "support/strings.h"

namespace {

FileNode* Record(const std::string& build_dir, const std::string& name,
                 const std::string& version) {
  FileNode* node = NewFileNode(TreeKey(build_dir, name).c_str());
  safe_cpy(&node->dir, build_dir.c_str());
  safe_cpy(&node->name, name.c_str());
  safe_cpy(&node->version, version.c_str());
  return node;
}

void Release(FileNode* node) {
  FreeFileNode(node);
  tfree(node);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::QuietStdout();
  fuzz::Input in(data, size);
  std::string name = in.Line();
  const std::string version = in.Line();
  std::string old_name = in.Line();
  const std::string old_version = in.Line();
  // Some tools change into the file's directory: no ".." may lead out of
  // the scratch folder.
  for (std::string* text : {&name, &old_name}) {
    for (size_t at = text->find(".."); at != std::string::npos; at = text->find("..", at))
      text->replace(at, 2, "__");
  }
  const std::vector<std::string> outputs = fuzz::SplitOutputs(in.Rest(), 2);
  const std::string build_dir = fuzz::ScratchDir() + "/build";
  static const bool made = mkdir(build_dir.c_str(), 0700) == 0;
  (void)made;

  FileNode* new_node = Record(build_dir, name, version);
  FileNode* old_node = Record(build_dir, old_name, old_version);
  for (uint32_t type : {kScmCvs, kScmCvsRep, kScmClearCase, kScmHarvest, kScmSvn, kScmVss,
                        kScmPerforce, kScmSi, kScmAccurev, kScmMstf}) {
    char* text = nullptr;
    size_t length = 0;
    FILE* report = open_memstream(&text, &length);
    if (report == nullptr)
      std::abort();
    {
      fuzz::FakeClients clients(outputs);
      ScmSession scm;
      scm.type = type;
      GetDetail(scm, report, new_node, old_node);
    }
    std::fclose(report);
    std::free(text);
  }
  Release(new_node);
  Release(old_node);
  return 0;
}
