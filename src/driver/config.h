#pragma once
// Configuration environment: settings from the process environment or the
// "wlenvironment.properties" files beside wlsubmit and in ~/.weftlane.
//
// Property file lines are "name=value": the line is cut into words at '=',
// '\r' and '\n' (runs of them separate as one), word 1 is the name, word 2
// the value, anything after a second '=' is ignored. Lines are read in pieces
// of at most kPropertyLineChars characters; a longer line arrives in pieces,
// each taken as a line. There are no comments and blank lines are not
// skipped (they make an entry with an empty name).
//
// A property file must be a regular file of at most kMaxInputFileBytes
// (driver/input.h); anything else is named in one line ("Property file %s is
// not a regular file of at most 16777216 bytes: it is ignored.") and treated
// like a missing file. At most kMaxInputFileBytes are read from a file.
//
// The table holds at most kMaxConfigEnv entries; further lines are ignored.
// It is loaded once per process (GetEnv or SetLocalWLEnvironment on first
// use) and released by CleanConfigEnv, after which it must not be searched
// again (the count stays, the entries are null).

#include <cstdint>

inline constexpr int kMaxConfigEnv = 1024;
inline constexpr int kPropertyLineChars = 1047;
extern char* configEnvVar[kMaxConfigEnv];    // safe strings, in load order
extern char* configEnvValue[kMaxConfigEnv];  // safe strings
extern int32_t maxConfigEnv;                 // -1 until loaded

// Value of a setting: a non-empty process environment value first, then the
// first table entry of exactly that name (case counts), even when its value
// is empty; null when none. The text is not owned by the caller and stays
// valid until CleanConfigEnv (or a change of that environment variable).
// Loads the table on first use.
const char* GetEnv(const char* name);

// Load the property files: first the one beside wlsubmit (found on PATH) as
// "<dir>/wlenvironment.properties", then $HOME/.weftlane/wlenvironment.properties,
// whose entries replace same-named ones (keeping their position). Returns a
// safe string listing the names added, separated by ';' with trailing ';'
// removed; the caller frees it with safe_free. Prints nothing unless a file
// is refused.
char* LoadConfigEnv();

// Release every entry's name and value (each becomes null). The count is
// left as it was.
void CleanConfigEnv();

// Test aid: release the table and mark it as not loaded, so that the next
// GetEnv loads the files again.
void ResetConfigEnv();

// Search for program: first as given (relative to the current directory or
// absolute), then in each element of PATH. A candidate counts only when it
// is a regular file this process may read and run (IsProgramFile). PATH elements are separated by
// ';' when PATH holds one, otherwise by ':' or ';'. An unset PATH is treated
// as empty: only the program as given is tried. On success *found_ref
// receives a safe string with the path (absolute when found as given; the
// caller frees it with safe_free) and the result is 1; otherwise *found_ref
// is null and the result 0. With verbose 1, prints "Searching for %s\n" and,
// when found on PATH, "Found %s\n".
int PgmWithPath(const char* program, char** found_ref, int verbose);

// The same search without returning the path. PATH elements are separated by
// ';' when PATH holds one, otherwise by ':' only. With verbose 1, prints
// "Searching for %s\n" and "Found %s\n" (the name as passed when found as
// given, the PATH path otherwise). 1 found, 0 not.
int PgmFound(const char* program, int verbose);

// Loads the table if needed and looks at the WEFTLANE_HOME entries (name
// compared without regard to case). It has no lasting effect beyond loading
// the table.
void SetLocalWLEnvironment();
