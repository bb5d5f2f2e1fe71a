#include "driver/run.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "driver/cmdline.h"
#include "driver/config.h"
#include "driver/settings.h"
#include "inventory/filenode.h"
#include "inventory/inventory.h"
#include "inventory/report.h"
#include "inventory/scan.h"
#include "net/upload.h"
#include "scm/listing.h"
#include "scm/perfile.h"
#include "support/bintree.h"
#include "support/handles.h"
#include "support/strings.h"

PauseFunction file_copy_pause = Secs2Sleep;

namespace {

constexpr const char* kDeletedProgress = "Determining Deleted Files";
constexpr const char* kAddedProgress = "Determining Added and Changed Files";
constexpr const char* kSavingProgress = "Saving Comparison data";
constexpr const char* kUploadingFormat = "Uploading Report Data %s\n";
constexpr const char* kComplete = "Complete";

// The password-database entry of the effective user, kept for the process.
struct passwd* g_user_entry = nullptr;

// Destinations that file_copy gave up on: they stay open (and locked, if the
// last attempt locked them) until the process ends.
std::vector<FILE*>& HeldDestinations() {
  static std::vector<FILE*>* held = new std::vector<FILE*>;
  return *held;
}

// printf into a std::string. Unset settings format as "(null)", as the C
// library prints a null text.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(out.data(), out.size(), format, args);
    out.resize(static_cast<size_t>(n));
  }
  va_end(args);
  return out;
}

// fopen(name, "w") without the wait on a FIFO that has no reader: such a
// destination fails to open instead of holding the run.
FILE* OpenForWriting(const char* name) {
  int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
  if (fd < 0)
    return nullptr;
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0)
    fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  FILE* f = fdopen(fd, "w");
  if (!f)
    close(fd);
  return f;
}

const char* Text(const char* s) { return s ? s : "(null)"; }

std::string CurrentDirectory(const std::string& fallback) {
  char* cwd = getcwd(nullptr, 0);
  if (!cwd)
    return fallback;
  std::string out = cwd;
  std::free(cwd);
  return out;
}

// The first name of the form "%s-%s-%s-%-2.2d-<suffix>" (counting from 1)
// that FileStat does not report as an existing file.
std::string NumberedName(const char* suffix) {
  int counter = 1;
  std::string name;
  for (;;) {
    name = Format("%s-%s-%s-%-2.2d-%s", Text(TaskName), Text(MachineLabel), Text(JobDateTime),
                  counter, suffix);
    int64_t size;
    uint64_t mtime;
    if (!FileStat(name.c_str(), &size, &mtime))
      return name;
    ++counter;
  }
}

// Owns the three trees and their head records for one run. The destructor
// is the run's clean-up: it runs on every exit path once the command line
// has been read.
class RunResources {
 public:
  RunResources() = default;
  RunResources(const RunResources&) = delete;
  RunResources& operator=(const RunResources&) = delete;
  ~RunResources() { Release(); }

  void CreateTrees() {
    dir_head_ = static_cast<DirNode*>(InitBintreeNode(static_cast<int16_t>(sizeof(DirNode))));
    if (dir_head_)
      safe_cpy(&dir_head_->key, "");
    file_head_ = NewFileNode("");
    old_head_ = NewFileNode("");
    FileTree = NewBintree(file_head_, CompareFunc, 0, static_cast<uint16_t>(sizeof(FileNode)));
    OldFileTree = NewBintree(old_head_, CompareFunc, 0, static_cast<uint16_t>(sizeof(FileNode)));
    DirTree = NewBintree(dir_head_, CompareFunc, 0, static_cast<uint16_t>(sizeof(DirNode)));
  }

  void Release() {
    CleanConfigEnv();
    DestroyBintree(DirTree, FreeBNode);
    DirTree = nullptr;
    FreeBNode(dir_head_);
    tfree(dir_head_);
    dir_head_ = nullptr;
    DestroyBintree(FileTree, FreeFileNode);
    FileTree = nullptr;
    FreeFileNode(file_head_);
    tfree(file_head_);
    file_head_ = nullptr;
    DestroyBintree(OldFileTree, FreeFileNode);
    OldFileTree = nullptr;
    FreeFileNode(old_head_);
    tfree(old_head_);
    old_head_ = nullptr;
    for (char** s : {&MachineLabel, &JobDateTime, &LogOwner, &TaskName, &BuildNumber,
                     &PublicBuildJob, &SCMTypeStr, &User, &Password}) {
      safe_free(s);
    }
  }

 private:
  DirNode* dir_head_ = nullptr;
  FileNode* file_head_ = nullptr;
  FileNode* old_head_ = nullptr;
};

void WriteReportHeader(FILE* report) {
  if (SCMTypeStr)
    std::fprintf(report, "SCMType=%s\n", SCMTypeStr);
  if (MachineLabel)
    std::fprintf(report, "MachineName=%s\n", MachineLabel);
  std::fprintf(report, "BuildLabel=%s\n", BuildLabel.c_str());
  if (BuildNumber)
    std::fprintf(report, "BuildNumber=%s\n", BuildNumber);
}

void WriteInventoryHeader(FILE* inventory) {
  if (SCMTypeStr)
    std::fprintf(inventory, "SCMType=%s\n", SCMTypeStr);
  if (!DirName.empty())
    std::fprintf(inventory, "ModuleRootDir=%s\n", DirName.c_str());
  if (MachineLabel)
    std::fprintf(inventory, "MachineName=%s\n", MachineLabel);
  std::fprintf(inventory, "BuildLabel=%s\n", BuildLabel.c_str());
  if (BuildNumber)
    std::fprintf(inventory, "BuildNumber=%s\n", BuildNumber);
}

// Fills FileTree by the method the SCM type selects.
void AcquireInventory(const std::string& build_dir) {
  if ((SCMType & ~kListingMask) == 0) {
    LoadRecursiveFiles(DirName.c_str(), build_dir.c_str(), FileTree);
    FindVersionInfo(FileTree, build_dir.c_str(), SCMType);
  } else if ((SCMType & ~kPerFileMask) == 0) {
    LoadRecursiveFiles(DirName.c_str(), build_dir.c_str(), FileTree);
    uint32_t scm_type = SCMType;
    WalkBintree(FileTree, LoadVersionInfo, &scm_type);
  } else {
    LoadRepository(DirName.c_str(), build_dir.c_str(), FileTree);
  }
}

int CouldNotWrite(const std::string& name) {
  std::printf(kCouldNotWriteFormat, name.c_str());
  return 1;
}

// Steps after the command line has been accepted; returns the exit status.
int RunInspection(RunResources& resources) {
  LogURL = WeftlaneServer + "/LogUpload";
  std::string start_dir = CurrentDirectory("");
  std::string build_dir = ".";

  // The two counters are independent: a run may write report 03 beside
  // inventory 01.
  std::string report_copy =
      Format("%s-%s-%s-diff.data", Text(TaskName), Text(MachineLabel), Text(JobDateTime));
  std::string report_name = NumberedName("diff.data");
  std::string inventory_copy =
      Format("%s-%s-%s-bom.data", Text(TaskName), Text(MachineLabel), Text(JobDateTime));
  std::string inventory_name = NumberedName("bom.data");

  std::string old_name = Format("%s-%s-*-bom.data", Text(TaskName), Text(MachineLabel));
  FindOldFileName(inventory_name.c_str(), old_name);

  // The build directory line shows the buffer before the change of
  // directory below, so it always reads ".".
  std::printf("WorkDir=%s\n", start_dir.c_str());
  std::printf("BuildDir=%s\n", build_dir.c_str());
  std::printf("RptFileName=%s\n", report_name.c_str());
  std::printf("NewFileName=%s\n", inventory_name.c_str());
  std::printf("OldFileName=%s\n", old_name.c_str());

  // A build directory that cannot be entered is not an error: the scan then
  // runs in the start directory.
  build_dir = WorkDir;
  if (chdir(build_dir.c_str()) != 0) {
    // ignored on purpose
  }
  build_dir = CurrentDirectory(build_dir);
  DirName = build_dir;

  resources.CreateTrees();
  AcquireInventory(build_dir);

  if (chdir(start_dir.c_str()) != 0) {
    // ignored: the names below are relative and the outcome shows in the
    // open for writing
  }
  start_dir = CurrentDirectory(start_dir);

  LoadFileTree(OldFileTree, old_name.c_str());

  UniqueFile report(OpenForWriting(report_name.c_str()));
  if (!report)
    return CouldNotWrite(report_name);
  WriteReportHeader(report.get());
  std::puts(kDeletedProgress);
  WalkBintree(OldFileTree, Deleted, report.get());
  std::puts(kAddedProgress);
  WalkBintree(FileTree, AddedAndChanged, report.get());

  UniqueFile inventory(OpenForWriting(inventory_name.c_str()));
  if (!inventory)
    return CouldNotWrite(inventory_name);
  std::puts(kSavingProgress);
  WriteInventoryHeader(inventory.get());
  WalkBintree(FileTree, WriteFileTree, inventory.get());
  std::fclose(inventory.release());
  std::fclose(report.release());

  if (file_copy(report_name.c_str(), report_copy.c_str()) != 0)
    return CouldNotWrite(report_copy);
  if (file_copy(inventory_name.c_str(), inventory_copy.c_str()) != 0) {
    return CouldNotWrite(inventory_copy);
  }

  // Upload results and deletions are not examined: a failed upload still
  // ends the run with status 0. The numbered files stay as the run's record.
  std::printf(kUploadingFormat, inventory_copy.c_str());
  UploadFile(inventory_copy.c_str());
  unlink(inventory_copy.c_str());
  std::printf(kUploadingFormat, report_copy.c_str());
  UploadFile(report_copy.c_str());
  std::puts(kComplete);
  unlink(report_copy.c_str());
  return 0;
}

}  // namespace

int InspectorMain(int argc, char** argv) {
  GetUserId(UserId);
  WeftlaneServer.clear();

  // Without a server setting the run ends at once, before anything needs
  // releasing beyond the loaded configuration.
  if (!GetEnv("WEFTLANE_SERVER")) {
    std::puts(kNoServerMessage);
    std::fflush(stdout);
    return 1;
  }
  WeftlaneServer = GetEnv("WEFTLANE_SERVER");

  int status = 1;
  {
    RunResources resources;
    if (ParseParms(argc, argv))
      status = RunInspection(resources);
  }
  std::fflush(stdout);
  return status;
}

int FileStat(const char* path, int64_t* size_out, uint64_t* mtime_out) {
  *size_out = 0;
  // Network paths are never examined.
  if (path[0] == '/' && path[1] == '/')
    return 0;
  // Non-blocking, so that a FIFO under the name is examined rather than
  // waited on; it has no effect on regular files.
  UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0)
    return 0;
  struct stat st;
  bool stat_ok = fstat(fd.get(), &st) == 0;
  *mtime_out = stat_ok ? static_cast<uint64_t>(st.st_mtime) : 0;
  // A directory is recognised by its mode only when its status could be
  // read with a non-zero time.
  if (*mtime_out != 0 && S_ISDIR(st.st_mode)) {
    *mtime_out = 0;
    return 0;
  }
  *size_out = stat_ok ? static_cast<int64_t>(st.st_size) : 0;
  return 1;
}

std::string& GetUserId(std::string& buffer) {
  g_user_entry = getpwuid(geteuid());
  if (g_user_entry && g_user_entry->pw_name && g_user_entry->pw_name[0]) {
    buffer = g_user_entry->pw_name;
  } else {
    buffer.clear();
  }
  return buffer;
}

int file_copy(const char* source, const char* destination) {
  UniqueFile in(std::fopen(source, "rb"));
  UniqueFile out(OpenForWriting(destination));
  if (!out)
    return 1;
  // The callers pass files they have just written; a source that cannot be
  // opened fails the copy instead of being read through a null stream.
  if (!in)
    return 1;

  int fd = fileno(out.get());
  int retries = 0;
  int locked = flock(fd, LOCK_EX | LOCK_NB);
  while (locked != 0 && retries < kLockRetries) {
    file_copy_pause(kLockRetryPauseSeconds);
    ++retries;
    locked = flock(fd, LOCK_EX | LOCK_NB);
  }
  // The retry count decides, not the last attempt: after the last retry the
  // copy fails even if that attempt got the lock, and the destination stays
  // open (and locked, if it was) until the process ends.
  if (retries >= kLockRetries) {
    HeldDestinations().push_back(out.release());
    return 1;
  }

  std::rewind(out.get());
  int c;
  while ((c = std::getc(in.get())) != EOF) {
    if (std::putc(c, out.get()) == EOF)
      break;
  }
  bool write_failed = std::ferror(out.get()) != 0;
  in.reset();
  // Closing the destination releases the lock.
  if (std::fclose(out.release()) != 0)
    write_failed = true;
  return write_failed ? 1 : 0;
}

void Secs2Sleep(unsigned seconds) {
  struct timespec left = {static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}
