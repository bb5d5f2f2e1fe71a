#include "inventory/report.h"

#include <cstdio>

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

// Calls visit(record, match) for every record of `walked` in walk order,
// match being the first record of `other` in walk order with an equal key,
// or null. With one comparator for both trees, both are walked side by side
// in ascending order: `other` only ever moves forward.
template <typename Visit>
void Compare(Bintree* walked, Bintree* other, Visit visit) {
  if (walked == nullptr)
    return;
  if (other != nullptr && other->compare != walked->compare) {
    BintreeCursor records(walked);
    while (auto* node = static_cast<FileNode*>(records.Next()))
      visit(node, static_cast<FileNode*>(FindKey(other, node->path)));
    return;
  }
  BintreeCursor records(walked);
  BintreeCursor others(other);
  auto* candidate = static_cast<FileNode*>(others.Next());
  while (auto* node = static_cast<FileNode*>(records.Next())) {
    // compare(probe, record) as a lookup in `other` would call it.
    int32_t order = 1;
    while (candidate && (order = walked->compare(node, candidate)) > 0)
      candidate = static_cast<FileNode*>(others.Next());
    visit(node, candidate && order == 0 ? candidate : nullptr);
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
  std::puts(kDeletedProgress);
  Compare(report.before, report.now, [&](FileNode* node, FileNode* now) {
    if (!now)
      lines.Line(kDeletedFormat, node);
  });
  std::puts(kAddedProgress);
  Compare(report.now, report.before, [&](FileNode* node, FileNode* earlier) {
    if (!earlier) {
      lines.Line(kAddedFormat, node);
    } else if (Changed(node, earlier)) {
      lines.Line(kChangedFormat, node);
      if (report.detail) {
        lines.Flush();  // the block follows its line
        report.detail(report.detail_context, out, node, earlier);
      }
    }
  });
}
