#pragma once
// The inventory file: record writer, reader and the choice of the earlier
// inventory.

#include <cstdint>
#include <string>

#include "support/bintree.h"

// WalkBintree visitor: one record line to the FILE* in arg. Returns 0.
int WriteFileTree(void* record, uint32_t depth, void* arg);
// Read an inventory into tree (nothing for an empty name).
void LoadFileTree(Bintree* tree, const char* fileName);
// nameBuffer holds the pattern "%s-%s-*-bom.data" on entry and the chosen
// earlier inventory's name (or "") on return.
void FindOldFileName(const char* newName, std::string& nameBuffer);
