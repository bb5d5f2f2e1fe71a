#include "inventory/inventory.h"
// TODO(inventory): stub
int WriteFileTree(void*, uint32_t, void*) { return 0; }
void LoadFileTree(Bintree*, const char*) {}
void FindOldFileName(const char*, std::string& nameBuffer) { nameBuffer.clear(); }
