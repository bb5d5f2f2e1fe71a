#include "driver/cmdline.h"
// TODO(driver): stub
int ParseParms(int, char**) { return 0; }
char* GetOEMVersion(char* buffer) { return buffer; }
