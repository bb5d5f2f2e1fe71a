#pragma once
// The inventory file: the record writer, the reader that fills OldFileTree,
// and the choice of the earlier inventory to compare with.
//
// Format: "\n"-ended text lines. Header lines (written by the run) are
// "Tag=value"; every other line is one record, "%s;%s;%ld;%ld; %s; %s;\n" of
// dir, name, size, mtime, digest, version (size before time, one blank before
// each of the last two fields).
//
// Record fields carry every byte of a name. The bytes the line cannot hold as
// they are (";", line feed, carriage return, a blank at either end of the
// field) and the escape character "\" itself are written as "\xHH" (two
// lowercase hexadecimal digits). A field without them is written unchanged,
// so ordinary names have the same bytes as in older inventories, and older
// inventories read the same for them.

#include <cstdint>
#include <cstdio>
#include <string>

#include "inventory/filenode.h"
#include "support/bintree.h"

// Longest line LoadFileTree reads as one.
inline constexpr size_t kMaxRecordLine = 16u << 20;

// Record line format, shared with the change report's lines.
inline constexpr const char kInventoryRecordFormat[] = "%s;%s;%ld;%ld; %s; %s;\n";

// The text of a record field: `text` with the awkward bytes escaped.
std::string EncodeField(const char* text);
// The text a record field stands for: every "\xHH" (hexadecimal digits in
// either case) becomes its byte; any other "\" stays as it is.
std::string DecodeField(const std::string& field);
// Writes one record line with `format` (kInventoryRecordFormat or one of the
// change report's line formats), the four text fields encoded.
void WriteRecordLine(FILE* stream, const char* format, const FileNode* node);

// WriteRecordLine for many lines: they are put together in a buffer of the
// writer's own and handed to the stream a few KiB at a time, pieces its own
// buffer takes in, so that a failed write stays with the stream for its
// closing flush to report. Flush before anything else writes to the
// stream; the destructor flushes.
class RecordWriter {
 public:
  explicit RecordWriter(FILE* stream) : stream_(stream) {}
  ~RecordWriter() { Flush(); }
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  void Line(const char* format, const FileNode* node);
  void Flush();

 private:
  static constexpr size_t kFlushAt = 4096;
  void Field(const char* text);
  void Number(int64_t value);

  FILE* stream_;
  std::string buffer_;
};

// The header lines of an inventory; a null text (an empty one for
// module_root) leaves its line out. build_label is always written.
struct InventoryHeader {
  const char* scm_type = nullptr;     // "SCMType=%s"
  std::string module_root;            // "ModuleRootDir=%s", the absolute build directory
  const char* machine = nullptr;      // "MachineName=%s"
  const char* build_label = "";       // "BuildLabel=%s"
  const char* build_number = nullptr; // "BuildNumber=%s"
};

// Writes the whole inventory: the header, then one record line per record of
// tree in ascending key order. A line break in the module root (which no
// option can give, but a directory name can) is written as "\x0a" or "\x0d"
// so that the header stays one line.
void WriteInventory(FILE* stream, const InventoryHeader& header, Bintree* tree);

// WalkBintree visitor: writes one record line of the FileNode to the FILE*
// given as arg. depth is unused. Returns 0.
int WriteFileTree(void* record, uint32_t depth, void* arg);

// Reads the inventory fileName into tree (a tree of FileNode records).
// - An empty name does nothing and prints nothing.
// - Prints "Loading comparison data: %s\n"; when the file cannot be opened,
//   "Could not open %s\n" and returns. Only regular files (and directories,
//   which read as empty) are opened, so that no FIFO or device can block.
// - Lines are read whole up to kMaxRecordLine bytes (a longer line arrives
//   as several pieces, each taken as a line; bytes after a NUL byte in a
//   line are ignored). Trailing "\n", "\r" and " " are removed.
// - A header line is skipped: one that begins with a header tag
//   ("SCMType=", "ModuleRootDir=", "MachineName=", "BuildLabel=",
//   "BuildNumber="), or any other line holding "=" that does not have a
//   record's shape (at least four fields, the third and fourth numbers). So
//   a record whose path holds "=" reads back as a record.
// - Every other line, even an empty one, becomes a record: the
//   ";"-separated words (runs of ";" separate as one), each trimmed of
//   blanks and then decoded (DecodeField), fill dir, name (then path = dir +
//   "/" + name with backslashes turned into "/"), size, mtime (leading
//   decimal digits, else 0), digest and version; words after the sixth are
//   ignored and reading of a line stops at its first empty word, so missing
//   fields stay empty or 0.
// - A key already in the tree is dropped: the first line wins.
// - The file is deliberately left open until the process ends (a holder with
//   process lifetime owns it).
void LoadFileTree(Bintree* tree, const char* fileName);
// LoadFileTree's two lines.
inline constexpr const char kLoadingFormat[] = "Loading comparison data: %s\n";
inline constexpr const char kCouldNotOpenFormat[] = "Could not open %s\n";
// LoadFileTree in two steps, for a caller that reads on another thread and
// prints the lines itself: OpenInventory opens fileName as LoadFileTree does
// (held until the process ends; null when it cannot be opened) and prints
// nothing; ReadInventory reads the records of the open stream into tree,
// touching nothing but the stream, tree and the records it makes.
FILE* OpenInventory(const char* fileName);
void ReadInventory(Bintree* tree, FILE* stream);

// Closes the inventories LoadFileTree has kept open. For tests and the fuzz
// targets, which load many inventories in one process; the run never calls
// it.
void CloseLoadedInventories();

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
// text after the "=" equals workDir (the build directory as given on the
// command line) ignoring case (charmap) makes it the result; a line
// containing "MachineName" ends the look. So the result depends on the
// listing order, and a relative workDir never matches the absolute directory
// the header records. Both are intended.
void FindOldFileName(const char* newName, std::string& nameBuffer, const std::string& workDir);
