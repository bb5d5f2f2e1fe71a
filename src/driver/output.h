#pragma once
// Output files that are complete or absent.
//
// A PendingOutput is written under a temporary name in the directory of its
// final name (".wlinspector-XXXXXX": it never holds ".bom.data", so no later
// run takes it for an inventory), then flushed to the disk and put in place
// under its final name in one step. Until then the final name is untouched;
// a run killed at any moment leaves at most a temporary file behind. The
// destructor removes a temporary file that was not put in place.

#include <cstdio>
#include <memory>
#include <string>

class PendingOutput {
 public:
  PendingOutput() = default;
  ~PendingOutput();
  PendingOutput(const PendingOutput&) = delete;
  PendingOutput& operator=(const PendingOutput&) = delete;

  // Creates the temporary file beside final_name, with the permissions a
  // plain create would give. False (errno set) when it cannot be made.
  bool Create(const std::string& final_name);
  FILE* get() const { return file_; }

  // Flushes the written data to the disk and closes the file. False (errno
  // set) when any write, the flush or the close failed.
  bool Finish();

  // Puts the finished file in place as `name`, replacing whatever file is
  // there. False (errno set) when the name cannot be replaced.
  bool Replace(const std::string& name);
  // Puts the finished file in place as `name` only if nothing has that name
  // yet (EEXIST otherwise), so two runs never take the same name.
  bool Claim(const std::string& name);

 private:
  void Discard();

  std::string temp_;
  // The stream's buffer: large, so that an output of a million lines takes
  // few writes. A failed write still leaves its data buffered for the flush
  // in Finish, which reports it.
  static constexpr size_t kBufferSize = 256 * 1024;
  std::unique_ptr<char[]> buffer_;
  FILE* file_ = nullptr;
};

// "Could not write to %s: %s\n" with the name and the system's reason.
void ReportWriteFailure(const std::string& name, int error);
