// Inventory reader: the input's first line is the module root the run
// compares with, the rest is an inventory file. The file is loaded into a
// tree and written back, and the choice of the earlier inventory reads it
// from a directory of the scratch folder.

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "inventory/filenode.h"
#include "inventory/inventory.h"
#include "support/bintree.h"
#include "support/handles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::QuietStdout();
  fuzz::Input in(data, size);
  const std::string root = in.Line();
  const std::string dir = fuzz::ScratchDir() + "/inventories";
  static const bool made = mkdir(dir.c_str(), 0700) == 0;
  (void)made;
  const std::string path = fuzz::WriteScratchFile("inventories/job-box-7.bom.data", in.Rest());

  Bintree* tree = NewBintree(nullptr, CompareFunc, 0, sizeof(FileNode));
  LoadFileTree(tree, path.c_str());
  char* text = nullptr;
  size_t length = 0;
  if (FILE* out = open_memstream(&text, &length)) {
    WalkBintree(tree, WriteFileTree, out);
    std::fclose(out);
  }
  std::free(text);
  DestroyBintree(tree, FreeFileNode);
  CloseLoadedInventories();

  {
    ScopedChdir in_dir(dir);
    if (in_dir.ok()) {
      std::string name = "job-box-*-bom.data";
      FindOldFileName("job-box-8-bom.data", name, root);
    }
  }
  return 0;
}
