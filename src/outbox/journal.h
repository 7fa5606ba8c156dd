// The outbox's files: segments of at most 4 MiB in one private directory, appended by
// whoever accepts a record and made durable by a thread of the journal's own.
//
// A record stays live until a RETIRE record names its sequence number. Segments go
// oldest first: one whose records are all retired is deleted; one less than half live has
// its live records copied forward first. Deleting only the oldest keeps every RETIRE
// record on disk as long as a record it names, so nothing retired comes back on a reload.
//
// Durability: append writes before it returns (a crash of the process loses nothing);
// the thread calls fdatasync every 50 ms while something is unsynced, without the lock
// that appends, and syncs the directory after a segment is created or removed.
// An I/O error turns the journal degraded: appends fail at once (callers keep the record
// in memory) and the thread tries a fresh segment every few seconds.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "outbox/record_format.h"

namespace zel {

class Journal {
 public:
  struct Record {
    RecordType type;
    uint64_t seq;
    std::string payload;
  };

  // Opens dir (made 0700 when missing), reads every segment into live (the records not
  // retired, by sequence number) and starts a fresh segment and the sync thread. nullptr,
  // after a log line, when the directory is refused or cannot be used.
  static std::unique_ptr<Journal> open(const std::string& dir, std::vector<Record>& live);
  ~Journal();  // a last sync, then the thread is joined

  uint64_t next_seq();
  // False when the record was not written (degraded, or too large): it is not durable.
  bool append(RecordType type, uint64_t seq, const std::string& payload);
  // Writes the watermark for those of seqs that are live.
  void retire(const std::vector<uint64_t>& seqs);
  static size_t record_size(const std::string& payload) { return kRecordHeaderSize + payload.size(); }

  uint64_t live_bytes() const { return live_bytes_; }
  uint64_t live_records() const { return live_records_; }
  uint64_t disk_bytes() const { return disk_bytes_; }
  uint64_t appended_bytes() const { return appended_bytes_; }  // ever, copies included
  bool degraded() const { return degraded_; }
  // Waits until what was appended before the call is synced (or the journal is degraded).
  void wait_synced();

 private:
  struct Segment {
    std::string path;
    uint64_t bytes = 0;
    uint64_t live_bytes = 0;
  };
  struct Location {
    uint64_t segment;
    uint64_t offset;
    uint32_t size;
  };

  explicit Journal(std::string dir);
  void load(std::vector<Record>& live);
  void run();
  bool open_segment_locked();
  bool append_locked(RecordType type, uint64_t seq, const std::string& payload, bool live);
  void degrade_locked(const char* what, int err);
  void sync_locked(std::unique_lock<std::mutex>& lock);
  void maintain_locked();
  bool copy_forward_locked(uint64_t segment);
  void forget_locked(uint64_t seq);

  const std::string dir;
  int dir_fd = -1;

  std::mutex mutex;  // everything below; never held across fdatasync
  std::condition_variable wake;
  std::map<uint64_t, Segment> segments;  // by number: oldest first
  std::unordered_map<uint64_t, Location> live;
  uint64_t current = 0;  // the segment appended to
  int current_fd = -1;
  std::vector<int> rotated_fds;              // to sync, then close (the thread closes fds)
  std::vector<std::string> delete_after_sync;  // once what was copied from them is synced
  uint64_t seq_counter = 1;
  uint64_t appended = 0, synced = 0;  // append counts, for wait_synced
  bool unsynced = false;
  bool dir_dirty = false;
  bool maintenance_wanted = false;
  bool stopping = false;
  std::condition_variable synced_cv;

  std::atomic<uint64_t> live_bytes_{0}, live_records_{0}, disk_bytes_{0}, appended_bytes_{0};
  std::atomic<bool> degraded_{false};
  std::thread thread;
};

}  // namespace zel
