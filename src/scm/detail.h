#pragma once
// Change detail for a changed file.

#include <cstdint>
#include <cstdio>

#include "inventory/filenode.h"

void GetDetail(uint32_t scmType, FILE* report, FileNode* newNode, FileNode* oldNode);
