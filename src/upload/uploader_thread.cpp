#include "upload/uploader_thread.h"

#include <exception>

#include "foundation/log.h"
#include "foundation/thread_role.h"
#include "upload/upload_data.h"
#include "upload/uploader.h"
#include "upload/uploader_cluster.h"
#include "zel/records.h"

namespace zel {

UploaderThread::UploaderThread(UploaderCluster& owner, const std::string& ca_file)
    : cluster(owner) {
  uploader = std::make_unique<Uploader>(ca_file);
  running = true;
  thread = std::make_unique<std::thread>(&UploaderThread::worker, this);
}

UploaderThread::~UploaderThread() {
  request_stop();
  if (thread && thread->joinable()) {
    thread->join();
  }
}

void UploaderThread::request_stop() {
  {
    // Cleared under the queue mutex so that a worker between its check of the flag and its
    // wait cannot miss the notification below.
    std::lock_guard<std::mutex> lock(cluster.queue_mutex);
    running = false;
  }
  cluster.work_ready.notify_all();
}

void UploaderThread::worker() {
  set_thread_role(ThreadRole::UPLOADER);
  // Marked under the pool's lock, so that a stop waiting for the threads cannot miss it.
  struct MarkFinished {
    UploaderThread& t;
    ~MarkFinished() {
      std::lock_guard<std::mutex> lock(t.cluster.queue_mutex);
      t.finished = true;
      t.cluster.thread_ended.notify_all();
    }
  } mark{*this};
  try {
    for (;;) {
      std::shared_ptr<UploadData> item;
      {
        std::unique_lock<std::mutex> lock(cluster.queue_mutex);
        // Waiting on the condition rather than on a bare notification: work queued while
        // every thread was busy is picked up by the first thread that comes back.
        cluster.work_ready.wait(lock, [this] { return !running || !cluster.queue.empty(); });
        if (!running) {
          return;
        }
        item = cluster.get_upload_data();
      }
      if (item) {
        run_one(*item);
      }
    }
  } catch (const std::exception& e) {
    zel_log(LEVEL_ERR, "Upload thread ended: %s\n", e.what());
  } catch (...) {
    zel_log(LEVEL_ERR, "Upload thread ended: unknown exception\n");
  }
}

void UploaderThread::run_one(UploadData& item) {
  std::string key = upload_key(item);
  try {
    cluster.add_upload_status({key, "", 0, CLIP_UPLOADING});
    UploadResult result = uploader->upload(item);
    cluster.add_upload_status({key, result.message,
                               result.success ? static_cast<int64_t>(result.bytes) : 0,
                               result.success ? CLIP_UPLOADED : CLIP_FAILED});
  } catch (const std::exception& e) {
    // The clip still gets its outcome; the thread carries on with the next one.
    zel_log(LEVEL_ERR, "Upload of %s failed: %s\n", item.path.c_str(), e.what());
    cluster.add_upload_status({key, std::string("Upload failed: ") + e.what(), 0, CLIP_FAILED});
  } catch (...) {
    zel_log(LEVEL_ERR, "Upload of %s failed: unknown exception\n", item.path.c_str());
    cluster.add_upload_status({key, "Upload failed: unknown exception", 0, CLIP_FAILED});
  }
}

}  // namespace zel
