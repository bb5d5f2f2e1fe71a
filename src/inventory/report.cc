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
  auto* arg = const_cast<ChangeReport*>(&report);
  std::puts(kDeletedProgress);
  WalkBintree(report.before, Deleted, arg);
  std::puts(kAddedProgress);
  WalkBintree(report.now, AddedAndChanged, arg);
}

int Deleted(void* record, uint32_t /*depth*/, void* arg) {
  auto* node = static_cast<FileNode*>(record);
  const auto* report = static_cast<const ChangeReport*>(arg);
  if (!FindKey(report->now, node->path))
    WriteRecordLine(report->stream, kDeletedFormat, node);
  return 0;
}

int AddedAndChanged(void* record, uint32_t /*depth*/, void* arg) {
  auto* node = static_cast<FileNode*>(record);
  const auto* report = static_cast<const ChangeReport*>(arg);
  auto* earlier = static_cast<FileNode*>(FindKey(report->before, node->path));
  if (!earlier) {
    WriteRecordLine(report->stream, kAddedFormat, node);
  } else if (Changed(node, earlier)) {
    WriteRecordLine(report->stream, kChangedFormat, node);
    if (report->detail)
      report->detail(report->detail_context, report->stream, node, earlier);
  }
  return 0;
}
