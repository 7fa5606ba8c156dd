#include "upload/uploader_cluster.h"

#include <system_error>
#include <thread>

#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "upload/block_settings.h"
#include "upload/uploader.h"
#include "upload/uploader_thread.h"

namespace zel {

std::string upload_key(const UploadData& d) { return d.camera_mac + std::to_string(d.start_time); }

UploaderCluster::UploaderCluster(const std::string& ca) : ca_file(ca) {
  // Before the first thread exists: libcurl's global set-up is not thread-safe.
  uploader_global_init();
  set_size(1);
}

UploaderCluster::~UploaderCluster() { stop(); }

void UploaderCluster::upload(const PendingClip& clip) {
  auto d = std::make_shared<UploadData>();
  d->aborted = false;
  d->start = time_now();
  d->last_elapsed = 0;
  d->nvr_mac = clip.nvr_mac;
  d->camera_mac = clip.clip.camera_mac;
  d->start_time = clip.clip.start_time;
  d->path = clip.clip.path;
  d->account = clip.credentials.account;
  d->token = clip.credentials.token;
  d->secret = clip.credentials.secret;
  d->start_at = clip.credentials.start_at;
  d->credential_camera_mac = clip.credentials.camera_mac;
  d->expires_at = clip.credentials.expires_at;
  d->expect_timeout_s = clip.opts.upload_option;
  d->timeout_s = clip.opts.confirm_timeout;
  d->progress = clip.opts.upload_callback;
  d->expected_size = clip.clip.size;
  d->cancelled = &cancelled;
  d->block_bytes = block_bytes();
  d->credential_timeout_s = clip.opts.timeout_seconds;
  d->board = &board;
  std::lock_guard<std::mutex> lock(queue_mutex);
  queue.push_back(std::move(d));
  work_ready.notify_one();
}

std::shared_ptr<UploadData> UploaderCluster::get_upload_data() {
  if (queue.empty()) {
    return nullptr;
  }
  std::shared_ptr<UploadData> front = queue.front();
  queue.pop_front();
  return front;
}

void UploaderCluster::add_upload_status(const UploadStatus& status) {
  std::lock_guard<std::mutex> lock(queue_mutex);
  statuses.push_back(status);
}

std::vector<UploadStatus> UploaderCluster::get_statuses() {
  {
    std::lock_guard<std::mutex> lock(pool_mutex);
    reap_retired();
  }
  std::vector<UploadStatus> taken;
  std::lock_guard<std::mutex> lock(queue_mutex);
  taken.swap(statuses);
  return taken;
}

unsigned UploaderCluster::set_size(unsigned n) {
  std::lock_guard<std::mutex> lock(pool_mutex);
  reap_retired();
  while (threads.size() > n) {
    threads.back()->request_stop();
    retired.push_back(std::move(threads.back()));
    threads.pop_back();
  }
  try {
    while (threads.size() < n) threads.push_back(std::make_shared<UploaderThread>(*this, ca_file));
  } catch (const std::system_error& e) {
    zel_log(LEVEL_ERR, "Could not start upload thread %zu: %s\n", threads.size() + 1, e.what());
  }
  pool_size = static_cast<unsigned>(threads.size());
  return pool_size;
}

void UploaderCluster::reap_retired() {
  for (auto it = retired.begin(); it != retired.end();) {
    if ((*it)->has_finished()) {
      it = retired.erase(it);  // the destructor joins a thread that has already returned
    } else {
      ++it;
    }
  }
}

bool UploaderCluster::stop(std::chrono::steady_clock::time_point deadline) {
  cancelled = true;
  board.stop();  // back-off and credential waits end at once
  std::vector<std::shared_ptr<UploaderThread>> ending;
  {
    std::lock_guard<std::mutex> lock(pool_mutex);
    ending.swap(threads);
    for (auto& t : retired) ending.push_back(std::move(t));
    retired.clear();
    pool_size = 0;
  }
  // Tell every thread first, then join: they wind down side by side.
  for (auto& t : ending) t->request_stop();
  {
    auto ended = [&ending] {
      for (const auto& t : ending)
        if (!t->has_finished() && !t->is_calling_thread()) return false;
      return true;
    };
    std::unique_lock<std::mutex> lock(queue_mutex);
    // Only the pool's own destructor waits without a deadline, and the library destroys
    // a pool only once its threads have ended.
    if (deadline == std::chrono::steady_clock::time_point::max())
      thread_ended.wait(lock, ended);
    else
      thread_ended.wait_until(lock, deadline, ended);
  }
  std::vector<std::shared_ptr<UploaderThread>> stuck;
  for (auto& t : ending)
    if (!t->has_finished()) stuck.push_back(std::move(t));
  ending.clear();  // joins the threads that have ended
  std::lock_guard<std::mutex> lock(pool_mutex);
  // Still inside a host callback: joined once it returns, by a later stop().
  retired = std::move(stuck);
  return retired.empty();
}

unsigned UploaderCluster::size() {
  std::lock_guard<std::mutex> lock(pool_mutex);
  return pool_size;
}

size_t UploaderCluster::queued() {
  std::lock_guard<std::mutex> lock(queue_mutex);
  return queue.size();
}

std::vector<std::string> UploaderCluster::take_queued_keys() {
  std::vector<std::string> keys;
  std::lock_guard<std::mutex> lock(queue_mutex);
  keys.reserve(queue.size());
  for (const auto& d : queue) {
    keys.push_back(upload_key(*d));
  }
  queue.clear();
  return keys;
}

}  // namespace zel
