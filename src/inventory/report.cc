#include "inventory/report.h"
// TODO(inventory): stub
int Deleted(void*, uint32_t, void*) { return 0; }
int AddedAndChanged(void*, uint32_t, void*) { return 0; }
