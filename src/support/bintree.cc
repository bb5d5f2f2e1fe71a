#include "support/bintree.h"
// TODO(support): stub; the real implementation replaces this file.
Bintree* NewBintree(void*, BintreeCompare, int32_t, uint16_t) { return nullptr; }
void* InitBintreeNode(int16_t) { return nullptr; }
int InsBintree(Bintree*, void*) { return -1; }
void* FindBintree(Bintree*, const void*) { return nullptr; }
void* FindKey(Bintree*, const char*) { return nullptr; }
int WalkBintree(Bintree*, BintreeVisit, void*) { return -1; }
void DestroyBintree(Bintree*, BintreeRelease) {}
int32_t CompareFunc(const void*, const void*) { return 0; }
