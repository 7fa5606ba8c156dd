// The pool that uploads clips in the background: a FIFO of upload jobs, a set of upload
// threads each with its own Uploader, and the statuses they report. The messaging worker
// queues clips, collects statuses once per pass, and sizes the pool.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clips/pending_clip.h"
#include "upload/credential_board.h"
#include "upload/upload_data.h"
#include "upload/upload_status.h"

namespace zel {

class UploaderThread;

class UploaderCluster {
 public:
  // Starts one upload thread.
  explicit UploaderCluster(const std::string& ca_file);
  // Stops the pool (see stop()).
  ~UploaderCluster();
  UploaderCluster(const UploaderCluster&) = delete;
  UploaderCluster& operator=(const UploaderCluster&) = delete;

  // Queues one clip. Everything needed is copied: the clip may change or go afterwards.
  void upload(const PendingClip& clip);
  // Takes every status collected so far, in arrival order.
  std::vector<UploadStatus> get_statuses();
  // Grows or shrinks the pool to n threads and returns at once: a removed thread takes no
  // new work, finishes its upload in the background and is joined later.
  // set_size(0) leaves queued work in the queue. Returns the size reached: a system that
  // cannot start another thread stops the growth there.
  unsigned set_size(unsigned n);
  // Ends every upload in progress within about a second (each reports state 7 with
  // kUploadInterrupted) and joins every thread that has ended by the deadline; false when
  // one is still inside a host callback (call again later). Called on an upload thread
  // (exit() from a progress function), it never waits for that thread.
  bool stop(std::chrono::steady_clock::time_point deadline =
                std::chrono::steady_clock::time_point::max());

  unsigned size();
  // Jobs queued and not yet taken by a thread.
  size_t queued();
  // Where block uploads ask for fresh credentials and the worker answers them.
  CredentialBoard& credential_board() { return board; }
  // Removes the jobs no thread has started and returns their keys (camera MAC followed
  // by the decimal start second), oldest first, so the caller can fail those clips.
  std::vector<std::string> take_queued_keys();

 private:
  friend class UploaderThread;

  // Pops the oldest job, or null; the caller holds queue_mutex.
  std::shared_ptr<UploadData> get_upload_data();
  void add_upload_status(const UploadStatus& status);
  // Joins the retired threads that have ended; the caller holds pool_mutex.
  void reap_retired();

  std::string ca_file;
  unsigned pool_size = 0;
  std::vector<std::shared_ptr<UploaderThread>> threads;
  // Removed by set_size, still finishing an upload; joined once they have ended.
  std::vector<std::shared_ptr<UploaderThread>> retired;
  // Read by every transfer's progress check: set, it ends the transfer.
  std::atomic<bool> cancelled{false};
  CredentialBoard board;
  std::deque<std::shared_ptr<UploadData>> queue;
  std::vector<UploadStatus> statuses;
  std::mutex queue_mutex;  // guards queue, statuses and every thread's stop flag
  std::mutex pool_mutex;   // guards threads, retired and pool_size
  std::condition_variable work_ready;
  std::condition_variable thread_ended;  // with queue_mutex: an upload thread has returned
};

// The key under which statuses and queued jobs are reported.
std::string upload_key(const UploadData& d);

}  // namespace zel
