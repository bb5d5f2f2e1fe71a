#include "inventory/report.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "inventory/inventory.h"
#include "support/strings.h"

namespace {

constexpr const char* kDeletedProgress = "Determining Deleted Files";
constexpr const char* kAddedProgress = "Determining Added and Changed Files";

bool Changed(const FileNode* current, const FileNode* earlier) {
  if (!IsEqual(current->digest, earlier->digest, 0))
    return true;
  // Equal digests count only when present; unreadable both times, the
  // version decides.
  if (current->digest[0] == '\0')
    return !IsEqual(current->version, earlier->version, 0);
  return false;
}

// What a report names, each list in walk order: the deleted records, and
// the added records (earlier null) and changed ones with their earlier one.
struct Differences {
  std::vector<FileNode*> deleted;
  std::vector<std::pair<FileNode*, FileNode*>> added_or_changed;
};

FileNode* NextRecord(BintreeCursor& records) { return static_cast<FileNode*>(records.Next()); }

// A key present several times stands, in `now`, for each of its records and,
// in `before`, for the first of them in walk order, as a lookup finds it.
void Differ(Bintree* before, Bintree* now, Differences* out) {
  auto note = [out](FileNode* node, FileNode* earlier) {
    if (!earlier || Changed(node, earlier))
      out->added_or_changed.emplace_back(node, earlier);
  };
  if (before != nullptr && now != nullptr && before->compare != now->compare) {
    // No common order to walk in: each record is looked up.
    BintreeCursor earlier_records(before);
    while (FileNode* node = NextRecord(earlier_records))
      if (!FindKey(now, node->path))
        out->deleted.push_back(node);
    BintreeCursor records(now);
    while (FileNode* node = NextRecord(records))
      note(node, static_cast<FileNode*>(FindKey(before, node->path)));
    return;
  }
  // One merge of the two trees in ascending key order.
  BintreeCompare compare = now != nullptr ? now->compare : nullptr;
  BintreeCursor earlier_records(before), records(now);
  FileNode* earlier = NextRecord(earlier_records);
  FileNode* node = NextRecord(records);
  while (earlier || node) {
    int32_t order = !earlier ? 1 : !node ? -1 : compare(earlier, node);
    if (order < 0) {
      out->deleted.push_back(earlier);
      earlier = NextRecord(earlier_records);
    } else if (order > 0) {
      note(node, nullptr);
      node = NextRecord(records);
    } else {
      FileNode* first = earlier;
      do {
        note(node, first);
        node = NextRecord(records);
      } while (node && compare(node, first) == 0);
      do
        earlier = NextRecord(earlier_records);
      while (earlier && compare(earlier, first) == 0);
    }
  }
}

}  // namespace

void WriteChangeReport(const ChangeReport& report) {
  FILE* out = report.stream;
  if (report.scm_type_text)
    std::fprintf(out, "SCMType=%s\n", report.scm_type_text);
  if (report.machine)
    std::fprintf(out, "MachineName=%s\n", report.machine);
  std::fprintf(out, "BuildLabel=%s\n", report.build_label);
  if (report.build_number)
    std::fprintf(out, "BuildNumber=%s\n", report.build_number);
  RecordWriter lines(out);
  if (report.before == nullptr || report.before->head->greater == nullptr) {
    // No earlier records (a first run): every record is added, and its line
    // is written as the walk meets it, without a list.
    std::puts(kDeletedProgress);
    std::puts(kAddedProgress);
    BintreeCursor records(report.now);
    while (FileNode* node = NextRecord(records))
      lines.Line(kAddedFormat, node);
    return;
  }
  Differences differences;
  Differ(report.before, report.now, &differences);
  std::puts(kDeletedProgress);
  for (FileNode* node : differences.deleted)
    lines.Line(kDeletedFormat, node);
  std::puts(kAddedProgress);
  for (const auto& [node, earlier] : differences.added_or_changed) {
    if (!earlier) {
      lines.Line(kAddedFormat, node);
    } else {
      lines.Line(kChangedFormat, node);
      if (report.detail) {
        lines.Flush();  // the block follows its line
        report.detail(report.detail_context, out, node, earlier);
      }
    }
  }
}
