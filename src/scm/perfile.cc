#include "scm/perfile.h"
// TODO(scm): stub
int LoadVersionInfo(void*, uint32_t, void*) { return 0; }
