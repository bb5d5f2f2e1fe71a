#include "inventory/digest.h"
// TODO(inventory): stub
int mdfile(FILE*, unsigned char*) { return -1; }
int md_filename(const char*, unsigned char*) { return -1; }
char* print_digest(const unsigned char*, char* out) { out[0] = 0; return out; }
