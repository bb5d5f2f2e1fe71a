#include "support/paths.h"
// TODO(support): stub; the real implementation replaces this file.
char oldslash1 = '\\';
char oldslash2 = '\\';
char newslash = '/';
char Default_Slash = '/';
std::string Cwd;
int32_t PwdInMVS = 0;
