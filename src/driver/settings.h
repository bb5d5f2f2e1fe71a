#pragma once
// Run-wide settings of one inspection. They are process-wide by nature: the
// command line fills them once, every stage reads them. ResetSettings() puts
// every one back to its initial value, so the program and the tests start
// from the same state.
//
// Owned texts (TaskName ... Password) are safe strings (support/strings.h),
// null while unset, released with safe_free. The fixed-size text buffers of
// the old layout are std::string here: no input can overflow them.

#include <cstdint>
#include <string>

#include "scm/session.h"  // SCM type values
#include "support/bintree.h"

extern std::string WorkDir;         // -b, initially "."
extern std::string DirName;         // absolute build directory entered, initially "."
extern std::string WeftlaneServer;  // server base URL
extern std::string LogURL;          // "%s/LogUpload" of WeftlaneServer
extern std::string UserId;          // login name of the effective user
extern std::string BuildLabel;      // -t, initially empty

extern char* TaskName;        // -lj
extern char* MachineLabel;    // -lm
extern char* JobDateTime;     // -ld
extern char* LogOwner;        // -lo
extern char* BuildNumber;     // -ln
extern char* PublicBuildJob;  // -lp: "true" or "false" after parsing
extern char* SCMTypeStr;      // -c keyword as typed, "NONE" by default
extern char* User;            // -u
extern char* Password;        // -p

extern uint32_t SCMType;            // -c
extern int32_t ScanSrc;             // -s (set, never read)
extern int32_t PrintVersionOnly;    // -v (set, never read)

extern Bintree* FileTree;     // files found now
extern Bintree* OldFileTree;  // files of the previous inventory
extern Bintree* DirTree;      // directories already queried per directory

// Back to the initial values; releases the owned texts. Trees are not
// touched (their owner destroys them).
void ResetSettings();
