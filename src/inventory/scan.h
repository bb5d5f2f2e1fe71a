#pragma once
// Directory scan that fills the file tree with one record per file.
//
// Rules of the scan (kept exactly, since inventories of earlier runs were
// made by them and their keys must meet):
// - Entries are examined in the order the directory listing returns them,
//   with lstat, so symbolic links are examined as themselves. A failed lstat
//   is not checked: the entry is classified by the status of the previous
//   entry of the same directory (zero for the first, which reads as a file).
// - An entry whose mode lacks the directory bit 0x4000 is recorded, unless it
//   is named exactly "harvest.sig". Links (also links to directories),
//   FIFOs, character devices and hidden files are recorded too.
// - An entry with the directory bit is descended into unless its name begins
//   with "." (".", ".." and hidden directories) or is exactly "CVS". Block
//   devices and sockets carry the bit as well; opening them as directories
//   fails and nothing is recorded for them.
// - Keys are rootDir's text + "/" + the path below it, every backslash in
//   the scanned directory turned into "/".
// - Unreadable directories add nothing; unreadable files are recorded with an
//   empty digest and zero size and time. Nothing is printed.

#include <string>

#include "support/bintree.h"

// Scan curDir recursively into tree, keys under rootDir (the absolute build
// directory; curDir begins with it). Returns 1 when a file of curDir itself
// was recorded, else 0 (subdirectories do not count). Every record is
// complete (digest, size, time) when this returns. Directories are listed
// and entered through descriptors relative to their parents, at most eight
// held along the path, so depth costs no descriptors beyond those; files are
// opened, read and digested by the digest workers (inventory/digest_workers.h).
int LoadRecursiveFiles(const char* rootDir, const char* curDir, Bintree* tree);
// The same scan, also telling whether descriptors ran out: a directory or
// file that could not be opened for want of them, even after every other
// descriptor of the scan was closed, is missing from the tree although it
// exists. *starved gets the first such path, or "" when the tree is complete.
int LoadRecursiveFiles(const char* rootDir, const char* curDir, Bintree* tree,
                       std::string* starved);
// Record curDir/entryName in tree: key and texts as above, then the digest,
// size and time of the opened file. A key already present is dropped (the
// first record keeps its data).
void Add2FileTree(Bintree* tree, const char* rootDir, const char* curDir, const char* entryName);
