// One upload thread of the pool, with its own Uploader (and so its own connection).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace zel {

class Uploader;
class UploaderCluster;
struct UploadData;

class UploaderThread {
 public:
  UploaderThread(UploaderCluster& cluster, const std::string& ca_file);
  // Stops the thread and joins it: an upload in progress is finished (or cancelled) first.
  ~UploaderThread();
  UploaderThread(const UploaderThread&) = delete;
  UploaderThread& operator=(const UploaderThread&) = delete;

  // Tells the thread to end once its current upload (if any) is done; it takes no new
  // work after this. Lets the pool stop several threads at once before joining them.
  void request_stop();
  // True once the thread function has returned, so joining it cannot wait.
  bool has_finished() const { return finished; }
  bool is_calling_thread() const { return thread && thread->get_id() == std::this_thread::get_id(); }

 private:
  void worker();
  void run_one(UploadData& item);

  std::atomic<bool> running{false};
  std::atomic<bool> finished{false};
  std::unique_ptr<std::thread> thread;
  std::unique_ptr<Uploader> uploader;
  UploaderCluster& cluster;
};

}  // namespace zel
