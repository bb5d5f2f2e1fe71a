#pragma once
// Threads that read and digest the files the directory scan opens, so that
// the scan's walk and tree insertions (which must stay in listing order on
// one thread) overlap with reading and digesting.
//
// The walking thread opens each file and hands the descriptor over with the
// record it belongs to; a worker reads the whole file, digests it and stores
// the digest, size and time into that record, exactly as the scan would
// itself. A worker touches only those three fields of records it was given,
// so the walking thread may go on inserting other records meanwhile; it must
// not read the three fields before Finish().
//
// A worker with several files waiting runs them side by side through
// DigestBatch; with fewer than three, it digests one at a time with the
// one-file procedure, which is faster for a single long file.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "inventory/filenode.h"
#include "support/handles.h"

// Worker count for the scan: the setting WEFTLANE_THREADS (read from the
// environment) when it holds a number from 1 to kMaxDigestThreads, else the
// number of online processors (at least 1, at most kMaxDigestThreads).
inline constexpr int kMaxDigestThreads = 64;
int DigestThreadCount();

class DigestWorkers {
 public:
  // Starts `threads` workers (at least 1).
  explicit DigestWorkers(int threads);
  // Finishes the queued files, then stops and joins the workers.
  ~DigestWorkers();
  DigestWorkers(const DigestWorkers&) = delete;
  DigestWorkers& operator=(const DigestWorkers&) = delete;

  // Queue the open file fd for `node`. Waits while kMaxQueued files are
  // queued or being digested, so descriptors in flight stay bounded.
  void Submit(UniqueFd fd, FileNode* node);
  // Wait until every submitted file has been stored (and its descriptor
  // closed).
  void Finish();

  // Files in flight at most; each holds a descriptor.
  static constexpr size_t kMaxQueued = 128;
  // Queued files per wake-up of an idle worker (a divisor of kMaxQueued, so
  // that a full queue has always woken one).
  static constexpr size_t kWakeEvery = 8;

 private:
  struct Job {
    int fd;
    FileNode* node;
  };
  void Run();

  // Files in flight that the walking thread, once it found the queue full,
  // waits for before it goes on.
  static constexpr size_t kRoomWanted = kMaxQueued / 2;
  static constexpr size_t kNobodyWaits = static_cast<size_t>(-1);

  std::mutex mutex_;
  std::condition_variable work_;   // jobs queued or stopping
  std::condition_variable space_;  // a job finished
  std::deque<Job> queue_;
  size_t in_flight_ = 0;  // queued + being digested
  // The in-flight count the walking thread waits for (kNobodyWaits: it does
  // not wait), so that workers wake it only once that is reached.
  size_t space_wanted_ = kNobodyWaits;
  bool stopping_ = false;
  int threads_count_ = 1;
  std::vector<std::thread> threads_;
};
