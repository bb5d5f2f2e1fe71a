#pragma once
// Configuration environment: settings from the process environment or the
// "wlenvironment.properties" files beside wlsubmit and in ~/.weftlane.

#include <cstdint>

inline constexpr int kMaxConfigEnv = 1024;
extern char* configEnvVar[kMaxConfigEnv];    // safe strings
extern char* configEnvValue[kMaxConfigEnv];  // safe strings
extern int32_t maxConfigEnv;                 // -1 until loaded

// Value of a setting: non-empty environment value first, then the first table
// entry of that exact name (even when empty); null when none. Not owned by the
// caller. Loads the table on first use.
const char* GetEnv(const char* name);
// Load the property files; returns a safe string listing the loaded names
// separated by ';' (caller frees with safe_free).
char* LoadConfigEnv();
// Release every entry (the count is left as it was).
void CleanConfigEnv();
// Search PATH for program; *found_ref receives a safe string (caller frees)
// or null. 1 found, 0 not.
int PgmWithPath(const char* program, char** found_ref, int verbose);
int PgmFound(const char* program, int verbose);
void SetLocalWLEnvironment();
