#include "net/upload.h"
// TODO(net): stub
void UploadFile(const char*) {}
