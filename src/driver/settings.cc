#include "driver/settings.h"

#include "support/strings.h"

std::string WorkDir = ".";
std::string DirName = ".";
std::string WeftlaneServer;
std::string LogURL;
std::string UserId;
std::string BuildLabel;

char* TaskName = nullptr;
char* MachineLabel = nullptr;
char* JobDateTime = nullptr;
char* LogOwner = nullptr;
char* BuildNumber = nullptr;
char* PublicBuildJob = nullptr;
char* SCMTypeStr = nullptr;
char* User = nullptr;
char* Password = nullptr;

uint32_t SCMType = 0;
int32_t ScanSrc = 0;
int32_t PrintVersionOnly = 0;

Bintree* FileTree = nullptr;
Bintree* OldFileTree = nullptr;
Bintree* DirTree = nullptr;

void ResetSettings() {
  // assign(1, '.') rather than = ".": GCC 12 at -O3 inlines the literal copy
  // and then reports an impossible overlap (-Wrestrict) for it.
  WorkDir.assign(1, '.');
  DirName.assign(1, '.');
  WeftlaneServer.clear();
  LogURL.clear();
  UserId.clear();
  BuildLabel.clear();
  for (char** s : {&TaskName, &MachineLabel, &JobDateTime, &LogOwner, &BuildNumber,
                   &PublicBuildJob, &SCMTypeStr, &User, &Password}) {
    safe_free(s);
  }
  SCMType = 0;
  ScanSrc = 0;
  PrintVersionOnly = 0;
}
