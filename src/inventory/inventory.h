#pragma once
// The inventory file: the record writer, the reader that fills OldFileTree,
// and the choice of the earlier inventory to compare with.
//
// Format: "\n"-ended text lines. Header lines (written by the run) hold "=";
// every other line is one record, "%s;%s;%ld;%ld; %s; %s;\n" of dir, name,
// size, mtime, digest, version (size before time, one blank before each of
// the last two fields). The reader tells header from record by "=" alone.

#include <cstdint>
#include <string>

#include "support/bintree.h"

// Record line format, shared with the change report's lines.
inline constexpr const char kInventoryRecordFormat[] = "%s;%s;%ld;%ld; %s; %s;\n";

// WalkBintree visitor: writes one record line of the FileNode to the FILE*
// given as arg. depth is unused. Returns 0.
int WriteFileTree(void* record, uint32_t depth, void* arg);

// Reads the inventory fileName into tree (a tree of FileNode records).
// - An empty name does nothing and prints nothing.
// - Prints "Loading comparison data: %s\n"; when the file cannot be opened,
//   "Could not open %s\n" and returns. Only regular files (and directories,
//   which read as empty) are opened, so that no FIFO or device can block.
// - Lines are read in pieces of at most 4,095 bytes (a longer line arrives
//   as several pieces, each taken as a line; bytes after a NUL byte in a
//   piece are ignored). Trailing "\n", "\r" and " " are removed; a line
//   holding "=" is skipped. Every other line, even an empty one, becomes a
//   record: the ";"-separated words (runs of ";" separate as one), each
//   trimmed of blanks, fill dir, name (then path = dir + "/" + name with
//   backslashes turned into "/"), size, mtime (leading decimal digits, else
//   0), digest and version; words after the sixth are ignored and reading of
//   a line stops at its first empty word, so missing fields stay empty or 0.
// - A key already in the tree is dropped: the first line wins.
// - The file is deliberately left open until the process ends (a holder with
//   process lifetime owns it).
void LoadFileTree(Bintree* tree, const char* fileName);

// Chooses the earlier inventory in the current directory. nameBuffer holds
// the pattern "%s-%s-*-bom.data" (task name, machine label) on entry and the
// chosen name, or "", on return. newName is the inventory this run is about
// to write. The pattern's text before its first "*" is the prefix (no "*":
// result ""). Entries are taken in listing order; an entry qualifies for a
// look when it is not a directory (lstat, directory bit 0x4000), begins with
// the prefix (exact case), contains ".bom.data", is strictly greater in byte
// order than the best name so far and differs from newName. It becomes the
// best name at once; its lines (up to 1,023 characters each, trimmed of
// blanks, tabs, "\r" and "\n") are then read: a "ModuleRootDir=" line whose
// text after the "=" equals WorkDir ignoring case (charmap) makes it the
// result; a line containing "MachineName" ends the look. So the result
// depends on the listing order, and a relative WorkDir never matches the
// absolute directory the header records. Both are intended.
void FindOldFileName(const char* newName, std::string& nameBuffer);
