#include "inventory/digest_workers.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "inventory/digest.h"
#include "inventory/digest_batch.h"
#include "support/strings.h"

namespace {

void Store(FileNode* node, const char* digest_text, const struct stat& status) {
  safe_cpy(&node->digest, digest_text);
  node->mtime = static_cast<int64_t>(status.st_mtime);
  node->size = static_cast<int64_t>(status.st_size);
}

void StoreBatchResult(void* target, const char* digest_text, const struct stat& status,
                      int /*read_result: a read error still stores the digest*/) {
  Store(static_cast<FileNode*>(target), digest_text, status);
}

// Below this many files at hand, one at a time is faster than side by side.
constexpr size_t kBatchThreshold = 3;

// Descriptors the rest of the scan may need while files are in flight: the
// walk's open ancestors and the directory it is entering, with room to spare
// for the run's own files.
constexpr size_t kReservedDescriptors = 16;

// How many files may be in flight under the descriptor limit: each holds its
// own descriptor and may keep its directory's open after the walk has left
// it. Without this bound a low limit would make opens fail and records lose
// their digests.
size_t InFlightBudget() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
      limit.rlim_cur >= 2 * DigestWorkers::kMaxQueued + 4 * kReservedDescriptors)
    return DigestWorkers::kMaxQueued;
  size_t open_now = 0;
  for (int fd = 0; static_cast<rlim_t>(fd) < limit.rlim_cur; ++fd)
    open_now += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
  size_t free_now = static_cast<size_t>(limit.rlim_cur) - open_now;
  if (free_now <= kReservedDescriptors + 2)
    return 1;
  return std::min((free_now - kReservedDescriptors) / 2, DigestWorkers::kMaxQueued);
}

}  // namespace

int DigestThreadCount() {
  if (const char* setting = std::getenv("WEFTLANE_THREADS")) {
    char* end = nullptr;
    long n = std::strtol(setting, &end, 10);
    if (end != setting && *end == '\0' && n >= 1 && n <= kMaxDigestThreads)
      return static_cast<int>(n);
  }
  long online = sysconf(_SC_NPROCESSORS_ONLN);
  return static_cast<int>(std::clamp<long>(online, 1, kMaxDigestThreads));
}

DigestWorkers::DigestWorkers(int threads)
    : max_in_flight_(InFlightBudget()), threads_count_(std::max(threads, 1)) {
  threads_.reserve(static_cast<size_t>(threads_count_));
  for (int i = 0; i < threads_count_; ++i)
    threads_.emplace_back([this] { Run(); });
}

DigestWorkers::~DigestWorkers() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  work_.notify_all();
  for (std::thread& t : threads_)
    t.join();
}

void DigestWorkers::Submit(SharedDirFd dir, const char* name, FileNode* node) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!deferred_.empty()) {
      // Descriptors ran out: open those files once the others are closed,
      // as soon as possible, since they keep their directories open.
      lock.unlock();
      Finish();
      lock.lock();
    }
    if (in_flight_ >= max_in_flight_) {
      // Once full, wait until the workers have made room for a good number
      // of files: waking for every single free place costs two switches a
      // file. A budget below kMaxQueued may fill between wake-ups, so the
      // workers are woken first.
      const size_t room_wanted = max_in_flight_ / 2;
      space_wanted_ = room_wanted;
      if (max_in_flight_ < kMaxQueued)
        work_.notify_all();
      space_.wait(lock, [this, room_wanted] { return in_flight_ <= room_wanted; });
      space_wanted_ = kNobodyWaits;
    }
    queue_.push_back({node, name, std::move(dir)});
    ++in_flight_;
    // Waking a worker per file costs more than digesting a small one: wake
    // one when files have piled up (a busy worker comes back for more by
    // itself), and everyone in Finish().
    if (queue_.size() % kWakeEvery != 0)
      return;
  }
  work_.notify_one();
}

void DigestWorkers::Finish() {
  work_.notify_all();
  std::deque<Job> deferred;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    space_wanted_ = 0;
    space_.wait(lock, [this] { return in_flight_ == 0; });
    space_wanted_ = kNobodyWaits;
    deferred.swap(deferred_);
  }
  if (!deferred.empty())
    RetryDeferred(std::move(deferred));
}

// Every other file is closed by now: each of these gets one more try.
void DigestWorkers::RetryDeferred(std::deque<Job> jobs) {
  ReadBuffer buffer;
  for (Job& job : jobs) {
    UniqueFd fd(openat(job.dir->get(), job.name, kDigestOpenFlags));
    if (fd.get() < 0 && (errno == EMFILE || errno == ENFILE) && starved_.empty())
      starved_ = job.node->path;
    job.dir.reset();
    DescriptorDigest result;
    if (fd.get() >= 0 && DigestDescriptor(fd.get(), &result, buffer))
      Store(job.node, result.text, result.status);
  }
}

void DigestWorkers::Run() {
  ReadBuffer buffer;
  DigestBatch batch(StoreBatchResult);
  std::vector<Job> taken;
  for (;;) {
    bool single = false;
    size_t finished = 0;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (batch.Busy() == 0)
        work_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty() && batch.Busy() == 0)
        return;  // stopping, nothing left
      // Share what is waiting with the other workers; take at most what the
      // batch has room for.
      size_t room = static_cast<size_t>(DigestBatch::kLanes - batch.Busy());
      size_t share = (queue_.size() + static_cast<size_t>(threads_count_) - 1) /
                     static_cast<size_t>(threads_count_);
      size_t take = std::min(room, share);
      single = batch.Busy() == 0 && queue_.size() < kBatchThreshold;
      if (single)
        take = std::min<size_t>(take, 1);
      for (size_t i = 0; i < take; ++i) {
        taken.push_back(queue_.front());
        queue_.pop_front();
      }
    }
    for (Job& job : taken) {
      UniqueFd fd(openat(job.dir->get(), job.name, kDigestOpenFlags));
      if (fd.get() < 0 && (errno == EMFILE || errno == ENFILE)) {
        std::lock_guard<std::mutex> lock(mutex_);
        deferred_.push_back(std::move(job));
        ++finished;
        continue;
      }
      job.dir.reset();
      if (fd.get() < 0) {
        ++finished;  // cannot be opened: the record keeps its empty digest
        continue;
      }
      if (single) {
        DescriptorDigest result;
        // Few files at hand: a long one is read on a thread of its own, on
        // a processor that would otherwise wait (unless the setting asked
        // for one thread).
        const ReadAhead ahead = threads_count_ > 1 ? ReadAhead::kForLongFiles : ReadAhead::kNo;
        if (DigestDescriptor(fd.get(), &result, buffer, ahead))
          Store(job.node, result.text, result.status);
        ++finished;
      } else {
        int busy = batch.Busy();
        if (!batch.Add(std::move(fd), job.node))
          ++finished;  // not a file to read: the record keeps its empty digest
        else
          finished += static_cast<size_t>(busy + 1 - batch.Busy());
      }
    }
    taken.clear();
    if (!single && batch.Busy() > 0) {
      int busy = batch.Busy();
      batch.Step();
      finished += static_cast<size_t>(busy - batch.Busy());
    }
    if (finished > 0) {
      bool wake = false;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        in_flight_ -= finished;
        wake = space_wanted_ != kNobodyWaits && in_flight_ <= space_wanted_;
        if (wake)
          space_wanted_ = kNobodyWaits;
      }
      if (wake)
        space_.notify_all();
    }
  }
}
