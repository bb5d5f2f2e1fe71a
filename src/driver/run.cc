#include "driver/run.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "driver/cmdline.h"
#include "driver/config.h"
#include "driver/output.h"
#include "driver/settings.h"
#include "inventory/filenode.h"
#include "inventory/inventory.h"
#include "inventory/report.h"
#include "inventory/scan.h"
#include "net/upload.h"
#include "scm/detail.h"
#include "scm/listing.h"
#include "scm/perfile.h"
#include "scm/runner.h"
#include "support/bintree.h"
#include "support/handles.h"
#include "support/strings.h"

PauseFunction file_copy_pause = Secs2Sleep;

namespace {

constexpr const char* kSavingProgress = "Saving Comparison data";
constexpr const char* kUploadingFormat = "Uploading Report Data %s\n";
constexpr const char* kComplete = "Complete";

// SIGXFSZ handler: the write that went past the limit then fails with EFBIG
// and is reported where it is checked.
void NoteSizeLimit(int) {}

// The password-database entry of the effective user, kept for the process.
struct passwd* g_user_entry = nullptr;

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

// A setting as printf shows it: an unset one reads "(null)".
const char* OrNullMark(const char* s) { return s ? s : "(null)"; }

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
    name = Format("%s-%s-%s-%-2.2d-%s", OrNullMark(TaskName), OrNullMark(MachineLabel),
                  OrNullMark(JobDateTime), counter, suffix);
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
    if (releaser_.joinable())
      releaser_.join();
    CleanConfigEnv();
    ReleaseTrees();
    for (char** s : {&MachineLabel, &JobDateTime, &LogOwner, &TaskName, &BuildNumber,
                     &PublicBuildJob, &SCMTypeStr, &User, &Password}) {
      safe_free(s);
    }
  }

  // The trees are done with once both outputs are written. They are
  // released on a thread of their own while the run goes on with the
  // upload (which reads each output into memory: with the trees going, the
  // two do not add up beyond what both trees took), or here when no thread
  // can start. Release waits for it.
  void ReleaseTreesMeanwhile() {
    Trees trees = TakeTrees();
    try {
      releaser_ = std::thread(FreeTrees, trees);
    } catch (const std::system_error&) {
      FreeTrees(trees);
    }
  }

 private:
  struct Trees {
    Bintree* dirs;
    DirNode* dir_head;
    Bintree* files;
    FileNode* file_head;
    Bintree* old_files;
    FileNode* old_head;
  };

  // The trees and their heads, handed over: the run-wide pointers are null
  // from here on.
  Trees TakeTrees() {
    Trees trees{DirTree, dir_head_, FileTree, file_head_, OldFileTree, old_head_};
    DirTree = FileTree = OldFileTree = nullptr;
    dir_head_ = nullptr;
    file_head_ = old_head_ = nullptr;
    return trees;
  }

  static void FreeTrees(Trees trees) {
    DestroyBintree(trees.dirs, FreeBNode);
    FreeBNode(trees.dir_head);
    tfree(trees.dir_head);
    DestroyBintree(trees.files, FreeFileNode);
    FreeFileNode(trees.file_head);
    tfree(trees.file_head);
    DestroyBintree(trees.old_files, FreeFileNode);
    FreeFileNode(trees.old_head);
    tfree(trees.old_head);
  }

  void ReleaseTrees() { FreeTrees(TakeTrees()); }

  std::thread releaser_;
  DirNode* dir_head_ = nullptr;
  FileNode* file_head_ = nullptr;
  FileNode* old_head_ = nullptr;
};

// The earlier inventory, read into OldFileTree while the build directory is
// scanned. The file is opened in the start directory before the scan
// changes away from it; the records are read on a thread of their own,
// which touches only the open stream, OldFileTree and the records it makes
// (the scan and the SCM stage never look at OldFileTree). The lines
// LoadFileTree prints are printed by Finish, where the run used to load, so
// the output keeps its order.
class EarlierInventory {
 public:
  EarlierInventory() = default;
  EarlierInventory(const EarlierInventory&) = delete;
  EarlierInventory& operator=(const EarlierInventory&) = delete;
  ~EarlierInventory() { Join(); }

  // Opens the inventory `name` ("": none).
  void Open(const std::string& name) {
    name_ = name;
    if (!name_.empty())
      stream_ = OpenInventory(name_.c_str());
    opened_ = stream_ != nullptr;
  }
  // Starts reading it into tree; on this thread when no other can start.
  void Start(Bintree* tree) {
    if (!stream_)
      return;
    FILE* stream = std::exchange(stream_, nullptr);
    try {
      reader_ = std::thread(ReadInventory, tree, stream);
    } catch (const std::system_error&) {
      ReadInventory(tree, stream);
    }
  }
  // Waits for the records and prints what loading them prints.
  void Finish() {
    Join();
    if (name_.empty())
      return;
    std::printf(kLoadingFormat, name_.c_str());
    if (!opened_)
      std::printf(kCouldNotOpenFormat, name_.c_str());
  }

 private:
  void Join() {
    if (reader_.joinable())
      reader_.join();
  }

  std::string name_;
  FILE* stream_ = nullptr;
  bool opened_ = false;
  std::thread reader_;
};

// The SCM stage's view of the run, read once from the settings (the trees
// must exist).
ScmSession MakeScmSession() {
  ScmSession scm;
  scm.type = SCMType;
  scm.user = User;
  scm.password = Password;
  scm.files = FileTree;
  scm.dirs = DirTree;
  // A value that is no number of seconds is named and the default kept.
  const std::string warning =
      ClientTimeoutFrom(GetEnv("WEFTLANE_CLIENT_TIMEOUT"), &scm.client_timeout);
  if (!warning.empty())
    std::puts(warning.c_str());
  return scm;
}

// Fills FileTree by the method the SCM type selects. A scan that ran out of
// descriptors puts the path it could not open in *starved and stops there.
void AcquireInventory(ScmSession& scm, const std::string& build_dir, std::string* starved) {
  if ((scm.type & ~kListingMask) == 0) {
    LoadRecursiveFiles(DirName.c_str(), build_dir.c_str(), FileTree, starved);
    if (starved->empty())
      FindVersionInfo(scm, build_dir.c_str());
  } else if ((scm.type & ~kPerFileMask) == 0) {
    LoadRecursiveFiles(DirName.c_str(), build_dir.c_str(), FileTree, starved);
    if (starved->empty())
      WalkBintree(FileTree, LoadVersionInfo, &scm);
  } else {
    LoadRepository(scm, build_dir.c_str());
  }
}

// The long-standing message for a name a directory stands in the way of; the
// system's reason with it for every other failure.
int CouldNotWrite(const std::string& name, int error = EISDIR) {
  if (error == EISDIR)
    std::printf(kCouldNotWriteFormat, name.c_str());
  else
    ReportWriteFailure(name, error);
  return 1;
}

bool DirectoryInTheWay(const std::string& name) {
  struct stat st;
  return stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Where the reports go and the job fields that travel with them: the one
// place the run's settings are handed to the upload.
UploadTarget RunUploadTarget() {
  return {LogURL,
          OrEmpty(TaskName),
          OrEmpty(LogOwner),
          OrEmpty(MachineLabel),
          OrEmpty(PublicBuildJob),
          OrEmpty(JobDateTime)};
}

// The names of one run's outputs in the start directory.
struct OutputNames {
  std::string report_copy, report, inventory_copy, inventory, old;
};

OutputNames PlanOutputs() {
  OutputNames names;
  // The two counters are independent: a run may write report 03 beside
  // inventory 01.
  names.report_copy = Format("%s-%s-%s-diff.data", OrNullMark(TaskName), OrNullMark(MachineLabel),
                             OrNullMark(JobDateTime));
  names.report = NumberedName("diff.data");
  names.inventory_copy = Format("%s-%s-%s-bom.data", OrNullMark(TaskName), OrNullMark(MachineLabel),
                                OrNullMark(JobDateTime));
  names.inventory = NumberedName("bom.data");
  names.old = Format("%s-%s-*-bom.data", OrNullMark(TaskName), OrNullMark(MachineLabel));
  FindOldFileName(names.inventory.c_str(), names.old, WorkDir);
  return names;
}

// Changes into the build directory, creates the trees, starts reading the
// earlier inventory, fills `scm` and with it FileTree, and returns to the
// start directory; returns the start directory as read back. *starved as
// AcquireInventory leaves it.
std::string ScanBuildDirectory(RunResources& resources, const std::string& start_dir,
                               ScmSession& scm, EarlierInventory& earlier, std::string* starved) {
  // A build directory that cannot be entered is not an error: the scan then
  // runs in the start directory.
  std::string build_dir = WorkDir;
  if (chdir(build_dir.c_str()) != 0) {
    // ignored on purpose
  }
  build_dir = CurrentDirectory(build_dir);
  DirName = build_dir;

  resources.CreateTrees();
  earlier.Start(OldFileTree);
  scm = MakeScmSession();
  AcquireInventory(scm, build_dir, starved);

  if (chdir(start_dir.c_str()) != 0) {
    // ignored: the names below are relative and the outcome shows when the
    // outputs are put in place
  }
  return CurrentDirectory(start_dir);
}

// Puts a finished numbered output in place under `name`, or, when another
// run has taken that name meanwhile, under the next free number (the new
// name is printed after `label`). Whatever else stands under the name (an
// unreadable file) is replaced, as an open for writing would have done.
bool PutNumbered(PendingOutput& output, std::string& name, const char* suffix,
                 const char* label) {
  for (;;) {
    if (output.Claim(name))
      return true;
    if (errno != EEXIST)
      return false;
    if (DirectoryInTheWay(name)) {
      errno = EISDIR;
      return false;
    }
    int64_t size;
    uint64_t mtime;
    if (!FileStat(name.c_str(), &size, &mtime))
      return output.Replace(name);
    name = NumberedName(suffix);
    std::printf("%s=%s\n", label, name.c_str());
  }
}

// Joins a thread when it goes out of scope.
struct JoinAtExit {
  std::thread& thread;
  ~JoinAtExit() {
    if (thread.joinable())
      thread.join();
  }
};

// Writes the change report and the inventory and puts both in place; returns
// the exit status.
//
// The inventory is written on a thread of its own while the report is
// written: both only read the trees (link walks, no index is built). What
// is checked, printed and returned stays in the order of one after the
// other: the inventory's name is checked again after the report, and a
// failure to create it is reported there.
int WriteOutputs(OutputNames& names, ScmSession& scm) {
  if (DirectoryInTheWay(names.report))
    return CouldNotWrite(names.report);
  PendingOutput report;
  if (!report.Create(names.report))
    return CouldNotWrite(names.report, errno);

  InventoryHeader header;
  header.scm_type = SCMTypeStr;
  header.module_root = DirName;
  header.machine = MachineLabel;
  header.build_label = BuildLabel.c_str();
  header.build_number = BuildNumber;
  PendingOutput inventory;
  bool created = !DirectoryInTheWay(names.inventory) && inventory.Create(names.inventory);
  std::thread writer;
  JoinAtExit join_writer{writer};
  if (created) {
    try {
      writer = std::thread([&] { WriteInventory(inventory.get(), header, FileTree); });
    } catch (const std::system_error&) {
      // written below, after the report
    }
  }

  ChangeReport changes;
  changes.stream = report.get();
  changes.scm_type_text = SCMTypeStr;
  changes.machine = MachineLabel;
  changes.build_label = BuildLabel.c_str();
  changes.build_number = BuildNumber;
  changes.now = FileTree;
  changes.before = OldFileTree;
  changes.detail = ChangeDetail;
  changes.detail_context = &scm;
  WriteChangeReport(changes);
  // The earlier records are done with: they go while the inventory is still
  // being written (its writer reads only FileTree).
  DestroyBintree(OldFileTree, FreeFileNode);
  OldFileTree = nullptr;

  if (DirectoryInTheWay(names.inventory))
    return CouldNotWrite(names.inventory);
  if (!created && !inventory.Create(names.inventory))
    return CouldNotWrite(names.inventory, errno);
  std::puts(kSavingProgress);
  if (writer.joinable())
    writer.join();
  else
    WriteInventory(inventory.get(), header, FileTree);

  if (!inventory.Finish())
    return CouldNotWrite(names.inventory, errno);
  if (!report.Finish())
    return CouldNotWrite(names.report, errno);
  if (!PutNumbered(report, names.report, "diff.data", "RptFileName"))
    return CouldNotWrite(names.report, errno);
  if (!PutNumbered(inventory, names.inventory, "bom.data", "NewFileName"))
    return CouldNotWrite(names.inventory, errno);
  return 0;
}

// Copies both outputs to their transfer names, uploads and removes the
// copies; returns the exit status.
int TransferOutputs(const OutputNames& names) {
  if (file_copy(names.report.c_str(), names.report_copy.c_str()) != 0)
    return CouldNotWrite(names.report_copy, errno);
  if (file_copy(names.inventory.c_str(), names.inventory_copy.c_str()) != 0)
    return CouldNotWrite(names.inventory_copy, errno);

  // Upload results and deletions are not examined: a failed upload still
  // ends the run with status 0. The numbered files stay as the run's record.
  const UploadTarget target = RunUploadTarget();
  if (const std::string warning = MissingPortWarning(WeftlaneServer); !warning.empty())
    std::puts(warning.c_str());
  std::printf(kUploadingFormat, names.inventory_copy.c_str());
  UploadFile(target, names.inventory_copy.c_str());
  unlink(names.inventory_copy.c_str());
  std::printf(kUploadingFormat, names.report_copy.c_str());
  UploadFile(target, names.report_copy.c_str());
  std::puts(kComplete);
  unlink(names.report_copy.c_str());
  return 0;
}

// Steps after the command line has been accepted; returns the exit status.
int RunInspection(RunResources& resources) {
  LogURL = WeftlaneServer + "/LogUpload";
  std::string start_dir = CurrentDirectory("");
  OutputNames names = PlanOutputs();

  // The build directory line always reads ".": it shows the buffer before
  // the change into the build directory.
  std::printf("WorkDir=%s\n", start_dir.c_str());
  std::printf("BuildDir=%s\n", ".");
  std::printf("RptFileName=%s\n", names.report.c_str());
  std::printf("NewFileName=%s\n", names.inventory.c_str());
  std::printf("OldFileName=%s\n", names.old.c_str());

  ScmSession scm;
  EarlierInventory earlier;
  earlier.Open(names.old);
  std::string starved;
  start_dir = ScanBuildDirectory(resources, start_dir, scm, earlier, &starved);
  earlier.Finish();
  // An inventory without the files the scan could not open would report
  // them deleted now and added next time: write nothing instead.
  if (!starved.empty()) {
    std::printf(kOutOfDescriptorsFormat, starved.c_str());
    return 1;
  }
  int status = WriteOutputs(names, scm);
  resources.ReleaseTreesMeanwhile();
  return status != 0 ? status : TransferOutputs(names);
}

}  // namespace

int InspectorMain(int argc, char** argv) {
  // Progress lines reach a log file or pipe as they are printed, so a job
  // killed by its build farm still shows how far it came.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  // A file size limit makes writes fail (and be reported) instead of
  // killing the run. The signal is caught rather than ignored, so that the
  // clients started later get the default action back when they start.
  struct sigaction on_size_limit {};
  on_size_limit.sa_handler = NoteSizeLimit;
  sigemptyset(&on_size_limit.sa_mask);
  sigaction(SIGXFSZ, &on_size_limit, nullptr);
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
  // Bounds every network wait; a value that is no number of seconds is
  // named and the default kept.
  if (const std::string warning = SetNetTimeoutFrom(GetEnv("WEFTLANE_TIMEOUT")); !warning.empty())
    std::puts(warning.c_str());

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
  // An earlier copy under the destination name is locked before it is
  // replaced; anything but a regular file there is left alone.
  UniqueFd lock;
  struct stat st;
  if (stat(destination, &st) == 0) {
    if (!S_ISREG(st.st_mode)) {
      errno = S_ISDIR(st.st_mode) ? EISDIR : EEXIST;
      return 1;
    }
    lock.Reset(open(destination, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (lock.get() < 0)
      return 1;
    int retries = 0;
    int locked = flock(lock.get(), LOCK_EX | LOCK_NB);
    while (locked != 0 && retries < kLockRetries) {
      file_copy_pause(kLockRetryPauseSeconds);
      ++retries;
      locked = flock(lock.get(), LOCK_EX | LOCK_NB);
    }
    // The retry count decides, not the last attempt: after the last retry
    // the copy fails even if that attempt got the lock, and the destination
    // stays open (and locked, if it was) until the process ends.
    if (retries >= kLockRetries) {
      HoldUntilExit(std::move(lock));
      errno = EWOULDBLOCK;
      return 1;
    }
  }
  // The callers pass files they have just written; a source that cannot be
  // opened fails the copy instead of being read through a null stream.
  if (!in)
    return 1;

  PendingOutput out;
  if (!out.Create(destination))
    return 1;
  char buffer[64 * 1024];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, in.get())) > 0) {
    if (std::fwrite(buffer, 1, n, out.get()) != n)
      break;
  }
  if (std::ferror(in.get())) {
    errno = EIO;
    return 1;
  }
  // Replacing the locked file releases the lock with the old file.
  return out.Finish() && out.Replace(destination) ? 0 : 1;
}

void Secs2Sleep(unsigned seconds) {
  struct timespec left = {static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}
