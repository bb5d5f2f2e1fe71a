#pragma once
// Digests several files at once. Each file still goes through exactly the
// one-file procedure of inventory/digest.h (same work area, same 1,024-byte
// pieces); only the transforms of up to sixteen files are computed side by
// side, because a single file's transform chain is too sequential to keep the
// processor busy. Results are identical to md_filename's.
//
// Add() takes an open descriptor and queues it; when all lanes are busy it
// first digests until a lane is free. Finish() (also run by the destructor)
// completes every queued file. For each file, `done` is called exactly once,
// in completion order (not necessarily the order of Add), with the digest
// text, the fstat of the file and the read result (0, or -1 after a read
// error). Files are read with NextReadSize/ReadFully, as DigestDescriptor
// reads them.

#include <sys/stat.h>

#include <memory>

#include "inventory/digest.h"
#include "support/handles.h"

class DigestBatch {
 public:
  using Done = void (*)(void* target, const char* digest_text, const struct stat& status,
                        int read_result);
  explicit DigestBatch(Done done);
  ~DigestBatch();
  DigestBatch(const DigestBatch&) = delete;
  DigestBatch& operator=(const DigestBatch&) = delete;

  // Queue the open file fd (the batch closes it once read). False when
  // IsDigestible refuses it: nothing is queued, fd is closed and `done` is
  // not called for it.
  bool Add(UniqueFd fd, void* target);
  // Files queued and not yet completed.
  int Busy() const;
  // Read and digest one round of every busy lane, completing the files that
  // end in it.
  void Step();
  void Finish();

  static constexpr int kLanes = 16;
  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// The transform kernels DigestBatch can run on.
enum class DigestKernel { kFastest, kPortable, kAvx2, kAvx512 };
// For tests: run DigestBatch on `kernel` (kFastest, the fastest one this
// processor supports, is the default). False, nothing changed, when this
// processor or build has no such kernel.
bool UseDigestKernel(DigestKernel kernel);
