#pragma once
// The run sequence of one inspection and the small operations only it uses.
//
// InspectorMain runs one inspection from start to end: server setting,
// command line, numbered output names in the start directory, the scan of
// the build directory with SCM versions, the previous inventory, the change
// report and the new inventory, the transfer copies and their upload. Every
// message goes to standard output.

#include <cstdint>
#include <string>

// Printed when no server setting is found.
inline constexpr const char* kNoServerMessage = "WEFTLANE_SERVER environment variable must be set.";
// Printed with a file name when an output file cannot be written.
inline constexpr const char* kCouldNotWriteFormat = "Could not write to %s\n";
// Printed with the first path the scan could not open for want of file
// descriptors; the run then writes nothing and ends with status 1.
inline constexpr const char* kOutOfDescriptorsFormat =
    "ERROR 61: Ran out of file descriptors at %s: the scan is incomplete, so no report or "
    "inventory is written (raise the limit with ulimit -n)\n";

// file_copy's lock attempts: one, then up to this many retries, each after a
// pause of kLockRetryPauseSeconds.
inline constexpr int kLockRetries = 100;
inline constexpr unsigned kLockRetryPauseSeconds = 2;

// The whole program: returns the exit status (0 complete run, also when an
// upload failed; 1 refused command line, missing server setting, a scan that
// ran out of file descriptors, or an output file that cannot be written).
// Outputs are complete or absent: each is written under a temporary name and put in place when complete; numbered
// names are claimed exclusively, so two runs in one start directory take
// different numbers. Releases everything it made before it
// returns, except when the server setting is missing (it returns at once).
int InspectorMain(int argc, char** argv);

// 1 when path names an existing file that can be opened for reading and is
// not a directory (its size and modification time are stored), else 0. The
// size output is always set (0 on failure). Paths beginning with "//" are
// never examined. A directory whose modification time reads as 0 is not
// recognised as one.
int FileStat(const char* path, int64_t* size_out, uint64_t* mtime_out);

// Login name of the effective user, stored in buffer (empty when unknown);
// returns buffer.
std::string& GetUserId(std::string& buffer);

// Copy source to destination: the copy is written under a temporary name
// beside the destination and replaces it only when complete. A regular file
// already under the destination name is first locked (exclusive,
// non-blocking flock); a failed lock is retried kLockRetries times after
// pauses of kLockRetryPauseSeconds (through file_copy_pause); when the
// retries are used up the copy fails, even if the last attempt got the lock,
// and that file is deliberately left open (and locked, if it was) until the
// process ends.
// NOTE the inverted convention: returns 0 on success, 1 on failure (errno
// then tells why: a directory in the way gives EISDIR). Failure also covers:
// anything but a regular file under the destination name, a source that
// cannot be opened or read, and a write, flush or close error on the copy.
int file_copy(const char* source, const char* destination);

// Pause the calling thread for whole seconds.
void Secs2Sleep(unsigned seconds);

// The pause file_copy takes between lock attempts; Secs2Sleep unless a test
// replaces it. Reset it to Secs2Sleep after use.
using PauseFunction = void (*)(unsigned seconds);
extern PauseFunction file_copy_pause;
