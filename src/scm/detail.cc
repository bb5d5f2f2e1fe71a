#include "scm/detail.h"
// TODO(scm): stub
void GetDetail(uint32_t, FILE*, FileNode*, FileNode*) {}
