#include "scm/listing.h"
// TODO(scm): stub
void FindVersionInfo(Bintree*, const char*, uint32_t) {}
int LoadRepository(const char*, const char*, Bintree*) { return 0; }
