#pragma once
// Threads that read and digest the files the directory scan opens, so that
// the scan's walk and tree insertions (which must stay in listing order on
// one thread) overlap with reading and digesting.
//
// The walking thread hands over each file as its name, the directory it is
// in and the record it belongs to; a worker opens it, reads the whole file,
// digests it and stores the digest, size and time into that record, exactly
// as the scan would itself. (Opening, examining, reading and closing a file
// on one processor costs less than opening it on another.) A worker touches only those three fields of records it was given,
// so the walking thread may go on inserting other records meanwhile; it must
// not read the three fields before Finish().
//
// A worker with several files waiting runs them side by side through
// DigestBatch; with fewer than three, it digests one at a time with the
// one-file procedure, which is faster for a single long file.

#include <fcntl.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "inventory/filenode.h"
#include "support/handles.h"

// Worker count for the scan: the setting WEFTLANE_THREADS (read from the
// environment) when it holds a number from 1 to kMaxDigestThreads, else the
// number of online processors (at least 1, at most kMaxDigestThreads).
inline constexpr int kMaxDigestThreads = 64;

// How files are opened for their digest. O_NONBLOCK so that opening a FIFO
// reached through a link cannot wait for a writer (the digest refuses it
// right after).
inline constexpr int kDigestOpenFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// A directory descriptor shared by the walk and the files queued from it;
// closed when the last of them lets go.
using SharedDirFd = std::shared_ptr<const UniqueFd>;
int DigestThreadCount();

class DigestWorkers {
 public:
  // Starts `threads` workers (at least 1).
  explicit DigestWorkers(int threads);
  // Finishes the queued files, then stops and joins the workers.
  ~DigestWorkers();
  DigestWorkers(const DigestWorkers&) = delete;
  DigestWorkers& operator=(const DigestWorkers&) = delete;

  // Queue the file `name` (which must stay valid until Finish) of the
  // directory `dir` for `node`. Waits while kMaxQueued files (fewer under a
  // low descriptor limit) are queued or
  // being digested, so descriptors in flight stay bounded. A file that
  // cannot be opened leaves the record as it is.
  void Submit(SharedDirFd dir, const char* name, FileNode* node);
  // Wait until every submitted file has been stored (and its descriptor
  // closed). Files a worker could not open for want of descriptors are then
  // opened once more and digested on this thread.
  void Finish();
  // After Finish: the first file that could not be opened even then for
  // want of descriptors (its record has no digest), or "".
  const std::string& Starved() const { return starved_; }

  // Files in flight at most; each holds a descriptor.
  static constexpr size_t kMaxQueued = 128;
  // Queued files per wake-up of an idle worker (a divisor of kMaxQueued, so
  // that a full queue has always woken one).
  static constexpr size_t kWakeEvery = 8;

 private:
  struct Job {
    FileNode* node;
    const char* name;
    SharedDirFd dir;
  };
  void Run();
  void RetryDeferred(std::deque<Job> jobs);

  static constexpr size_t kNobodyWaits = static_cast<size_t>(-1);

  std::mutex mutex_;
  std::condition_variable work_;   // jobs queued or stopping
  std::condition_variable space_;  // a job finished
  std::deque<Job> queue_;
  // Files whose open ran out of descriptors, left to Finish().
  std::deque<Job> deferred_;
  size_t in_flight_ = 0;  // queued + being digested
  // kMaxQueued, or fewer when the descriptor limit leaves less room.
  size_t max_in_flight_;
  // The in-flight count the walking thread waits for (kNobodyWaits: it does
  // not wait), so that workers wake it only once that is reached.
  size_t space_wanted_ = kNobodyWaits;
  bool stopping_ = false;
  std::string starved_;
  int threads_count_ = 1;
  std::vector<std::thread> threads_;
};
