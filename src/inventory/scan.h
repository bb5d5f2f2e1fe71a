#pragma once
// Directory scan that fills the file tree.

#include "support/bintree.h"

// Scan curDir recursively into tree, keys under rootDir. 1 when a file of
// curDir itself was recorded, else 0.
int LoadRecursiveFiles(const char* rootDir, const char* curDir, Bintree* tree);
// Record curDir/entryName (digest, size, time) in tree.
void Add2FileTree(Bintree* tree, const char* rootDir, const char* curDir, const char* entryName);
