#pragma once
// The change report's record lines: deleted, added and changed files.
//
// A file is changed when its digest differs from the earlier one ignoring
// case; when both digests are empty (the file could not be read either
// time), when its version differs ignoring case. Size and time are never
// compared. Each changed line is followed by what GetDetail writes for it.

#include <cstdint>

inline constexpr const char kDeletedFormat[] = "D;%s;%s;%ld;%ld; %s; %s;\n";
inline constexpr const char kAddedFormat[] = "A;%s;%s;%ld;%ld; %s; %s;\n";
inline constexpr const char kChangedFormat[] = "C;%s;%s;%ld;%ld; %s; %s;\n";

// WalkBintree visitor over OldFileTree; arg is the report FILE*. Writes the
// "D" line of a record whose path is not in FileTree. Returns 0.
int Deleted(void* record, uint32_t depth, void* arg);
// WalkBintree visitor over FileTree; arg is the report FILE*. Writes the "A"
// line of a record whose path is not in OldFileTree, or the "C" line (with
// the current values) of a changed one followed by GetDetail(SCMType,
// report, current, earlier). Returns 0.
int AddedAndChanged(void* record, uint32_t depth, void* arg);
