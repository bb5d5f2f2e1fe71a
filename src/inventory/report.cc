#include "inventory/report.h"

#include <cstdio>

#include "driver/settings.h"
#include "inventory/filenode.h"
#include "inventory/inventory.h"
#include "scm/detail.h"
#include "support/bintree.h"
#include "support/strings.h"

namespace {

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

int Deleted(void* record, uint32_t /*depth*/, void* arg) {
  auto* node = static_cast<FileNode*>(record);
  if (!FindKey(FileTree, node->path))
    WriteRecordLine(static_cast<FILE*>(arg), kDeletedFormat, node);
  return 0;
}

int AddedAndChanged(void* record, uint32_t /*depth*/, void* arg) {
  auto* node = static_cast<FileNode*>(record);
  auto* report = static_cast<FILE*>(arg);
  auto* earlier = static_cast<FileNode*>(FindKey(OldFileTree, node->path));
  if (!earlier) {
    WriteRecordLine(report, kAddedFormat, node);
  } else if (Changed(node, earlier)) {
    WriteRecordLine(report, kChangedFormat, node);
    GetDetail(SCMType, report, node, earlier);
  }
  return 0;
}
