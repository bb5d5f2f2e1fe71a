#include "inventory/filenode.h"
// TODO(inventory): stub
FileNode* NewFileNode(const char*) { return nullptr; }
void FreeFileNode(void*) {}
void FreeBNode(void*) {}
