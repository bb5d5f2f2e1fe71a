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

#include "support/bintree.h"

// SCM type values selected by -c.
inline constexpr uint32_t kScmNone = 0;
inline constexpr uint32_t kScmCvs = 1;
inline constexpr uint32_t kScmCvsRep = 2;
inline constexpr uint32_t kScmClearCase = 4;
inline constexpr uint32_t kScmHarvest = 8;
inline constexpr uint32_t kScmSvn = 16;
inline constexpr uint32_t kScmVss = 32;
inline constexpr uint32_t kScmPerforce = 64;
inline constexpr uint32_t kScmSi = 128;
inline constexpr uint32_t kScmAccurev = 256;
inline constexpr uint32_t kScmMstf = 512;  // MSTF and TEAMPRISE
// Acquisition groups: a type belongs to a group when (type & mask) == type.
inline constexpr uint32_t kListingMask = 0x10395;
inline constexpr uint32_t kPerFileMask = 0x68;

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
