#include "inventory/scan.h"
// TODO(inventory): stub
int LoadRecursiveFiles(const char*, const char*, Bintree*) { return 0; }
void Add2FileTree(Bintree*, const char*, const char*, const char*) {}
