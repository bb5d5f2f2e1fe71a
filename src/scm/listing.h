#pragma once
// Workspace version listing.

#include <cstdint>

#include "support/bintree.h"

// Versions for the listing group from one workspace listing.
void FindVersionInfo(Bintree* tree, const char* buildDir, uint32_t scmType);
// CVSREP: build the file tree from the repository log. 0, or 1 when the
// client could not be started.
int LoadRepository(const char* scanRoot, const char* buildDir, Bintree* tree);
