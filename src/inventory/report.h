#pragma once
// The change report: its header and its record lines for deleted, added and
// changed files. This module writes the whole file.
//
// A file is changed when its digest differs from the earlier one ignoring
// case; when both digests are empty (the file could not be read either
// time), when its version differs ignoring case. Size and time are never
// compared. Each changed line is followed by what the detail writer writes
// for it.

#include <cstdint>
#include <cstdio>

#include "inventory/filenode.h"
#include "support/bintree.h"

inline constexpr const char kDeletedFormat[] = "D;%s;%s;%ld;%ld; %s; %s;\n";
inline constexpr const char kAddedFormat[] = "A;%s;%s;%ld;%ld; %s; %s;\n";
inline constexpr const char kChangedFormat[] = "C;%s;%s;%ld;%ld; %s; %s;\n";

// Writes the detail block of a changed file (the SCM history and differences)
// to the report, right after its "C" line.
// `context` is the detail_context of the ChangeReport, handed on unchanged.
using DetailWriter = void (*)(void* context, FILE* report, FileNode* current, FileNode* earlier);

// What one change report is made of. A null header text leaves its line out;
// build_label is always written. A null detail writer writes no blocks.
struct ChangeReport {
  FILE* stream = nullptr;
  const char* scm_type_text = nullptr;  // "SCMType=%s"
  const char* machine = nullptr;        // "MachineName=%s"
  const char* build_label = "";         // "BuildLabel=%s"
  const char* build_number = nullptr;   // "BuildNumber=%s"
  Bintree* now = nullptr;               // files found by this run
  Bintree* before = nullptr;            // files of the earlier inventory
  DetailWriter detail = nullptr;
  void* detail_context = nullptr;       // handed to the detail writer
};

// Writes the header, prints "Determining Deleted Files", writes the "D"
// line of every record of `before` (in walk order) whose path is not in
// `now`, prints "Determining Added and Changed Files", then for every record
// of `now` in walk order writes the "A" line when its path is not in
// `before`, or the "C" line (current values) of a changed one followed by its
// detail block. A path found in a tree with several equal keys stands for the
// first of them in walk order. The records to name are found first, by one
// merge of the two trees in ascending order (when both use the same
// comparator; otherwise each record is looked up).
void WriteChangeReport(const ChangeReport& report);
