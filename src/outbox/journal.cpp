#include "outbox/journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "foundation/log.h"
#include "outbox/payloads.h"

namespace zel {

namespace {

constexpr auto kSyncPeriod = std::chrono::milliseconds(50);
constexpr auto kRetryPeriod = std::chrono::seconds(5);

std::string segment_name(uint64_t number) {
  char name[40];
  std::snprintf(name, sizeof name, "seg-%016" PRIx64 ".zob", number);
  return name;
}

bool parse_segment_name(const char* name, uint64_t& number) {
  unsigned long long n = 0;
  int used = 0;
  if (std::strlen(name) != 24 || std::sscanf(name, "seg-%16llx.zob%n", &n, &used) != 1 || used != 24)
    return false;
  number = n;
  return true;
}

bool write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool read_all(int fd, std::string& out, size_t limit) {
  out.clear();
  char buf[65536];
  while (out.size() < limit) {
    const ssize_t n = ::read(fd, buf, std::min(sizeof buf, limit - out.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

Journal::Journal(std::string d) : dir(std::move(d)) {}

std::unique_ptr<Journal> Journal::open(const std::string& dir, std::vector<Record>& live) {
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    zel_log(LEVEL_ERR, "Outbox directory %s cannot be made: %s\n", dir.c_str(), std::strerror(errno));
    return nullptr;
  }
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    zel_log(LEVEL_ERR, "Outbox %s is not a directory\n", dir.c_str());
    return nullptr;
  }
  // Whoever can write there can forge what the library sends on the device's behalf.
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 || st.st_uid != ::geteuid()) {
    zel_log(LEVEL_ERR, "Outbox directory %s can be written by others: refused\n", dir.c_str());
    return nullptr;
  }
  std::unique_ptr<Journal> j(new Journal(dir));
  j->dir_fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (j->dir_fd < 0) {
    zel_log(LEVEL_ERR, "Outbox directory %s cannot be opened: %s\n", dir.c_str(), std::strerror(errno));
    return nullptr;
  }
  j->load(live);
  {
    std::lock_guard<std::mutex> lock(j->mutex);
    if (!j->open_segment_locked()) j->degrade_locked("creating a segment", errno);
    j->maintenance_wanted = true;
  }
  j->thread = std::thread([raw = j.get()] { raw->run(); });
  return j;
}

Journal::~Journal() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
    wake.notify_all();
  }
  if (thread.joinable()) thread.join();
  for (int fd : rotated_fds) ::close(fd);
  if (current_fd >= 0) ::close(current_fd);
  if (dir_fd >= 0) ::close(dir_fd);
}

void Journal::load(std::vector<Record>& out) {
  std::map<uint64_t, std::string> files;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (dirent* e = ::readdir(d)) {
      uint64_t number;
      if (parse_segment_name(e->d_name, number)) files[number] = dir + "/" + e->d_name;
    }
    ::closedir(d);
  }
  std::map<uint64_t, Record> records;
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto& file : files) {
    const int fd = ::open(file.second.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    std::string bytes;
    // A segment is never longer than this; what lies past it is not ours.
    const bool read = fd >= 0 && read_all(fd, bytes, kSegmentMaxBytes);
    if (fd >= 0) ::close(fd);
    if (!read) {
      zel_log(LEVEL_WARN, "Outbox segment %s cannot be read: skipped\n", file.second.c_str());
      continue;
    }
    Segment& seg = segments[file.first];
    seg.path = file.second;
    seg.bytes = bytes.size();
    current = std::max(current, file.first);
    const size_t bad = scan_records(bytes.data(), bytes.size(), [&](const RecordView& r) {
      seq_counter = std::max(seq_counter, r.seq + 1);
      if (r.type == RecordType::RETIRE) {
        std::vector<uint64_t> seqs;
        if (!decode_retire(r.payload, r.length, seqs)) return;
        for (uint64_t s : seqs) {
          records.erase(s);
          forget_locked(s);
        }
        return;
      }
      // A record copied forward replaces its older copy.
      forget_locked(r.seq);
      records[r.seq] = Record{r.type, r.seq, std::string(r.payload, r.length)};
      const uint32_t size = static_cast<uint32_t>(kRecordHeaderSize + r.length);
      live[r.seq] = Location{file.first, r.offset, size};
      seg.live_bytes += size;
      live_bytes_ += size;
      ++live_records_;
    });
    disk_bytes_ += seg.bytes;
    if (bad > 0)
      zel_log(LEVEL_WARN, "Outbox segment %s: %zu damaged spans skipped\n", file.second.c_str(), bad);
  }
  for (auto& r : records) out.push_back(std::move(r.second));
}

void Journal::forget_locked(uint64_t seq) {
  auto it = live.find(seq);
  if (it == live.end()) return;
  auto seg = segments.find(it->second.segment);
  if (seg != segments.end()) seg->second.live_bytes -= it->second.size;
  live_bytes_ -= it->second.size;
  --live_records_;
  live.erase(it);
}

bool Journal::open_segment_locked() {
  const uint64_t number = current + 1;
  const std::string path = dir + "/" + segment_name(number);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  if (current_fd >= 0) rotated_fds.push_back(current_fd);
  current_fd = fd;
  current = number;
  segments[number].path = path;
  dir_dirty = true;
  unsynced = true;
  wake.notify_all();
  return true;
}

void Journal::degrade_locked(const char* what, int err) {
  if (current_fd >= 0) rotated_fds.push_back(current_fd);
  current_fd = -1;
  if (!degraded_.exchange(true))
    zel_log(LEVEL_ERR, "Outbox journal degraded (%s: %s): working from memory\n", what,
            std::strerror(err));
  synced_cv.notify_all();
  wake.notify_all();
}

uint64_t Journal::next_seq() {
  std::lock_guard<std::mutex> lock(mutex);
  return seq_counter++;
}

bool Journal::append(RecordType type, uint64_t seq, const std::string& payload) {
  std::lock_guard<std::mutex> lock(mutex);
  return append_locked(type, seq, payload, true);
}

bool Journal::append_locked(RecordType type, uint64_t seq, const std::string& payload, bool is_live) {
  if (degraded_ || current_fd < 0 || payload.size() > kMaxRecordPayload) return false;
  const std::string bytes = encode_record(type, seq, payload);
  if (segments[current].bytes + bytes.size() > kSegmentMaxBytes && !open_segment_locked()) {
    degrade_locked("creating a segment", errno);
    return false;
  }
  Segment& seg = segments[current];
  if (!write_all(current_fd, bytes.data(), bytes.size())) {
    // What part of the record reached the file is a torn record the reader skips.
    degrade_locked("writing", errno);
    return false;
  }
  if (is_live) {
    forget_locked(seq);
    live[seq] = Location{current, seg.bytes, static_cast<uint32_t>(bytes.size())};
    seg.live_bytes += bytes.size();
    live_bytes_ += bytes.size();
    ++live_records_;
  }
  seg.bytes += bytes.size();
  disk_bytes_ += bytes.size();
  appended_bytes_ += bytes.size();
  ++appended;
  if (!unsynced) {
    unsynced = true;
    wake.notify_all();
  }
  return true;
}

void Journal::retire(const std::vector<uint64_t>& seqs) {
  std::lock_guard<std::mutex> lock(mutex);
  std::vector<uint64_t> known;
  for (uint64_t s : seqs)
    if (live.count(s) > 0) known.push_back(s);
  if (known.empty()) return;
  // Dead in memory either way: if the watermark cannot be written, a reload sends a
  // duplicate, never loses anything.
  append_locked(RecordType::RETIRE, seq_counter++, encode_retire(known), false);
  for (uint64_t s : known) forget_locked(s);
  maintenance_wanted = true;
}

void Journal::wait_synced() {
  std::unique_lock<std::mutex> lock(mutex);
  const uint64_t target = appended;
  synced_cv.wait_for(lock, std::chrono::seconds(5),
                     [&] { return synced >= target || degraded_ || stopping; });
}

void Journal::run() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    if (degraded_) {
      wake.wait_for(lock, kRetryPeriod, [this] { return stopping; });
      if (stopping) break;
      if (open_segment_locked()) {
        degraded_ = false;
        zel_log(LEVEL_NOTICE, "Outbox journal writable again\n");
      }
      continue;
    }
    wake.wait(lock, [this] { return stopping || unsynced || maintenance_wanted; });
    if (unsynced || !delete_after_sync.empty()) sync_locked(lock);
    if (stopping) break;
    if (maintenance_wanted) maintain_locked();
    // The cadence: at most one sync per period, however fast records come.
    wake.wait_for(lock, kSyncPeriod, [this] { return stopping; });
  }
  if (unsynced && !degraded_) sync_locked(lock);
}

void Journal::sync_locked(std::unique_lock<std::mutex>& lock) {
  std::vector<int> fds;
  fds.swap(rotated_fds);
  std::vector<std::string> deletions;
  deletions.swap(delete_after_sync);
  const int fd = current_fd;  // only this thread closes it, so it stays valid unlocked
  bool dir = dir_dirty;
  const uint64_t target = appended;
  unsynced = false;
  dir_dirty = false;
  lock.unlock();
  int failed = 0;
  for (int f : fds)
    if (::fdatasync(f) != 0) failed = errno;
  if (fd >= 0 && ::fdatasync(fd) != 0) failed = errno;
  if (failed == 0) {
    for (const std::string& path : deletions) ::unlink(path.c_str());
    dir = dir || !deletions.empty();
    if (dir && ::fsync(dir_fd) != 0) failed = errno;
  }
  lock.lock();
  for (int f : fds) ::close(f);
  if (failed != 0) {
    // What could not be made durable is written again by a later copy forward or not at
    // all; the files it would have removed stay until the next pass.
    delete_after_sync.insert(delete_after_sync.end(), deletions.begin(), deletions.end());
    if (fd == current_fd) degrade_locked("syncing", failed);
  }
  synced = std::max(synced, target);
  synced_cv.notify_all();
}

void Journal::maintain_locked() {
  maintenance_wanted = false;
  uint64_t total = 0, total_live = 0;
  for (const auto& s : segments) {
    total += s.second.bytes;
    total_live += s.second.live_bytes;
  }
  while (segments.size() > 1 && segments.begin()->first != current) {
    auto oldest = segments.begin();
    const Segment seg = oldest->second;
    const bool empty = seg.live_bytes == 0;
    // Less than half live, or the files as a whole more than twice what is live.
    const bool sparse = seg.live_bytes * 2 < seg.bytes ||
                        (total > 2 * total_live + 2 * kSegmentMaxBytes && seg.live_bytes < seg.bytes);
    if (!empty && !sparse) break;
    if (!empty && !copy_forward_locked(oldest->first)) break;
    total -= seg.bytes;
    disk_bytes_ -= seg.bytes;
    delete_after_sync.push_back(seg.path);
    segments.erase(segments.begin());
    unsynced = true;
  }
}

bool Journal::copy_forward_locked(uint64_t number) {
  std::vector<std::pair<uint64_t, Location>> moving;
  for (const auto& entry : live)
    if (entry.second.segment == number) moving.push_back(entry);
  std::sort(moving.begin(), moving.end(),
            [](const auto& a, const auto& b) { return a.second.offset < b.second.offset; });
  const int fd = ::open(segments[number].path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = true;
  for (const auto& m : moving) {
    std::string bytes(m.second.size, '\0');
    if (::pread(fd, &bytes[0], bytes.size(), static_cast<off_t>(m.second.offset)) !=
        static_cast<ssize_t>(bytes.size())) {
      ok = false;
      break;
    }
    std::string payload = bytes.substr(kRecordHeaderSize);
    const auto type = static_cast<RecordType>(bytes[4]);
    if (!append_locked(type, m.first, payload, true)) {
      ok = false;
      break;
    }
  }
  ::close(fd);
  return ok;
}

}  // namespace zel
