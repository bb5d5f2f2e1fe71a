#include "driver/config.h"
// TODO(driver): stub
char* configEnvVar[kMaxConfigEnv];
char* configEnvValue[kMaxConfigEnv];
int32_t maxConfigEnv = -1;
const char* GetEnv(const char*) { return nullptr; }
char* LoadConfigEnv() { return nullptr; }
void CleanConfigEnv() {}
int PgmWithPath(const char*, char** found_ref, int) { *found_ref = nullptr; return 0; }
int PgmFound(const char*, int) { return 0; }
void SetLocalWLEnvironment() {}
