// The singleton behind zel::Upload: device identity, the host's queues and callbacks,
// the clip tables, and the one worker thread that drives the link and every stage.
// Each member is defined in the subsystem that owns its stage.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clips/pending_clip.h"
#include "foundation/envelope.h"
#include "zel/items.h"
#include "zel/msg_response.h"
#include "zel/records.h"

namespace zel {

class Outbox;
class UploaderCluster;
struct UploadStatus;
enum class EventKind : uint8_t;

// A clip state to hand to the host once no library lock is held any more.
struct ClipReport {
  ClipInfo clip;
  int state = 0;
  std::string message;
};
// Lets Messaging hold the pool without every stage seeing the pool's definition.
struct UploaderClusterDeleter {
  void operator()(UploaderCluster* cluster) const;
};
struct OutboxDeleter {
  void operator()(Outbox* outbox) const;
};

class Messaging {
 public:
  static Messaging& get();

  // Lifecycle (messaging/).
  bool connect(const CloudConnect& cc, std::function<void()> on_connect,
               std::function<void()> on_disconnect, const std::list<std::string>& cameras);
  bool disconnect();
  void worker();
  void on_connect();
  void on_disconnect();
  void register_list_actions(std::function<MsgResponse(std::string)> cb);
  void register_perform_action(std::function<MsgResponse(ActionInfo)> cb);
  void register_ota_update(std::function<MsgResponse(UpdateInfo)> cb);
  void register_cloud_status(std::function<void(CloudStatus)> cb);
  void cloud_status(CloudStatus s);
  void set_upload_threads(unsigned n);

  // Statistics (messaging/). stats() never waits for the worker's pass.
  CloudStats stats();
  // Stores the tables' sizes where stats() reads them without a lock; work_mutex held,
  // after anything that changes a queue or a table.
  void update_counts();
  // Runs change only while the library is neither connected nor connecting or
  // disconnecting, holding connect_mutex so that what connect reads cannot change under it;
  // false without running it otherwise.
  bool when_stopped(const std::function<void()>& change) {
    std::unique_lock<std::mutex> lock(connect_mutex, std::try_to_lock);
    if (!lock.owns_lock() || worker_thread != nullptr) return false;
    change();
    return true;
  }
  void count_clip_state(int state);
  void count_upload_status(const UploadStatus& status);

  // The durable outbox (outbox/). set_outbox only while stopped.
  bool set_outbox(const std::string& dir, uint64_t max_bytes);
  void register_recovered_clips(ClipCallback cb);
  // Puts what the journal held back in the queues; connect, work_mutex held.
  void replay_outbox();
  // Hands recovered clips to the pipeline once the host has a callback for them.
  void recover_clips();
  // Each connected pass: retires what the link proved, and sends again record-ends of
  // recovered clips.
  void settle_outbox();
  // Sends an event's envelope, followed by the outbox when seq is non-zero.
  void send_event(uint64_t seq, const std::string& envelope);
  // One envelope of that kind that must go again; false when none.
  bool resend_event(EventKind kind);
  Outbox* get_outbox() { return outbox.get(); }

  // Inbound processing and keep-alive (messaging/).
  void process_inbound();
  void ping();
  void pong();
  void send_version_to_cloud();

  // Host callbacks behind the request handlers (handlers/).
  MsgResponse list_actions(std::string device);
  MsgResponse perform_action(ActionInfo info);
  MsgResponse ota_update(UpdateInfo info);

  // Inventory (inventory/).
  void register_item(const Item& item);
  void register_camera(const std::string& camera_mac);
  void send_camera_to_cloud(const std::string& camera_mac);
  void send_camera_setting(const std::string& camera_mac, const std::string& name,
                           const std::string& value);
  void send_action_scheduler(const std::string& action_scheduler_uuid,
                             const std::string& recurrence_count);
  void cloud_sync();

  // Events and transactions (events/).
  void upload_event(const EventInfo& event);
  void upload_event(const AccessEventInfo& event);
  void process_event();
  void process_access_event();
  void send_transaction(const std::string& model, const std::string& properties,
                        const std::string& method);
  void transaction_ack(const TransactionAck& ack);

  // Clip pipeline (clips/).
  void upload_clip(const ClipInfo& clip);
  void upload_clip(const ClipInfo& clip, const UploadOpts& opts);
  void clear_queued_clips();
  void process_clip();
  std::string upload_record_start(const PendingClip& pending);
  std::string upload_record_end(const PendingClip& pending);
  void set_credentials(CloudCredentials credentials);
  void manage_upload_threads();
  void expire_clip();
  void start_upload_pool(const std::string& ca_path);
  // Ends every upload at once and joins the upload threads without holding work_mutex;
  // adds the clip states still to report, for the caller to deliver unlocked. A pool
  // whose thread is still in a host callback at the deadline is kept in stuck_pools.
  // False when a host callback held work_mutex past the deadline (the pool stays).
  bool stop_upload_pool(std::chrono::steady_clock::time_point deadline,
                        std::vector<ClipReport>& reports);
  void reap_stuck_pools();
  // Registered with atexit at the first connect: a host that exits while connected, or
  // from inside a callback, neither crashes nor hangs (see upload.h).
  static void exit_handler();

  // Read by the request handlers.
  const std::string& get_version_json() const { return version_json; }
  const std::string& get_device_mac() const { return device_mac; }
  const std::string& get_cert_path() const { return cert_path; }
  const std::string& get_key_path() const { return key_path; }
  const DeviceInfo& get_device_info() const { return device_info; }

  // Test seams: the state a test needs to observe or arrange.
  int32_t get_missed_pongs() const { return missed_pongs; }
  int32_t get_account_id() const { return account_id; }
  std::recursive_timed_mutex& get_work_mutex() { return work_mutex; }
  std::map<std::string, PendingClip>& get_unacked_clips() { return unacked_clips; }
  std::map<std::string, PendingClip>& get_pending_clips() { return pending_clips; }
  std::map<std::string, CloudCredentials>& get_credentials() { return credentials; }
  void reset_for_tests();
  // The identity part of connect (device MAC, version document, paths) without a link,
  // a worker or a pool: for tests and fuzzers that drive the stages directly.
  void prepare_for_tests(const CloudConnect& cc);

  ~Messaging();

 private:
  Messaging();
  Messaging(const Messaging&) = delete;
  Messaging& operator=(const Messaging&) = delete;

  // True (after a log line) when the calling thread may not connect, disconnect or
  // resize the pool: it is a library thread, or inside a host callback.
  bool refuse_lifecycle_call(const char* verb) const;
  bool close_link(std::chrono::steady_clock::time_point deadline);
  // Ends the worker's loop and joins it; false (the worker is in a host callback) at the
  // deadline. Never called on the worker itself.
  bool stop_worker(std::chrono::steady_clock::time_point deadline);
  // Waits up to d, woken at once by a stop; false once the worker is to end.
  bool pause(std::chrono::milliseconds d);
  // Takes work_mutex by the deadline; false (not taken) after it.
  bool lock_work_by(std::unique_lock<std::recursive_timed_mutex>& lock,
                    std::chrono::steady_clock::time_point deadline);
  // Puts a resubmitted clip in place of its earlier submission; false when the clip is
  // uploading and the new submission was refused. work_mutex held.
  bool replace_earlier_submission(const ClipInfo& clip);
  // Moves clips through the tables by their upload states; the reports come back in order.
  std::vector<ClipReport> apply_upload_statuses(const std::vector<UploadStatus>& statuses);
  void apply_identity(const CloudConnect& cc);
  void hand_to_pool(PendingClip& pending);
  void report_clip(const ClipInfo& clip, int state, const std::string& message);

  int32_t account_id = 0;
  // Atomic only so that tests may watch it; the worker is its one writer.
  std::atomic<int32_t> missed_pongs{0};
  uint32_t ping_stamp = 0;
  // The pool size and the pending limit; what the host set survives a reconnection.
  uint32_t upload_threads = 1;
  std::string version = "22.1.0";
  std::string version_json;
  std::string camera_template;
  std::string transaction_template;
  std::string device_mac;
  std::string cert_path;
  std::string key_path;
  DeviceInfo device_info;
  std::map<std::string, PendingClip> pending_clips;
  std::map<std::string, PendingClip> unacked_clips;
  std::map<std::string, CloudCredentials> credentials;
  std::list<std::string> cameras;
  std::deque<std::pair<ClipInfo, UploadOpts>> clip_queue;
  std::deque<EventInfo> event_queue;
  std::deque<AccessEventInfo> access_event_queue;
  // Timed, so that a stop can give up on a host callback that never lets go of it.
  std::recursive_timed_mutex work_mutex;
  // Guards published_stats alone: held for a copy or a count, never while calling out.
  std::mutex stats_mutex;
  CloudStats published_stats;  // the totals and times; the queue counts are below
  struct QueueCounts {
    std::atomic<int64_t> motion_events{0}, access_events{0}, clips_queued{0},
        clips_waiting_credentials{0}, clips_uploading{0}, clips_awaiting_confirmation{0},
        credentials_held{0}, upload_threads{0};
    std::atomic<int64_t> outbox_bytes{0}, outbox_records{0}, outbox_dropped{0};
    std::atomic<bool> outbox_degraded{false};
  } counts;
  std::unique_ptr<Outbox, OutboxDeleter> outbox;
  ClipCallback recovered_clips_cb;
  bool outbox_replayed = false;  // connect has put the journal's contents back
  std::vector<std::string> recovered_record_ends;  // confirmation keys to send once connected
  std::mutex connect_mutex;
  std::unique_ptr<std::thread> worker_thread;
  std::unique_ptr<UploaderCluster, UploaderClusterDeleter> uploaders;
  // A pool taken out by a disconnect that gave up before its clips were reported; the
  // next disconnect finishes it (connect_mutex).
  std::unique_ptr<UploaderCluster, UploaderClusterDeleter> stopping_pool;
  // Pools stopped while a thread was inside a host callback, joined later (connect_mutex).
  std::vector<std::unique_ptr<UploaderCluster, UploaderClusterDeleter>> stuck_pools;
  // Guards running and worker_exited; wake tells the worker to stop sleeping and the
  // stopper that the worker has ended.
  std::mutex wake_mutex;
  std::condition_variable wake;
  bool running = false;
  bool worker_exited = true;
  std::function<void()> on_connect_cb;
  std::function<void()> on_disconnect_cb;
  std::function<MsgResponse(std::string)> list_actions_cb;
  std::function<MsgResponse(ActionInfo)> perform_action_cb;
  std::function<MsgResponse(UpdateInfo)> ota_update_cb;
  std::function<void(CloudStatus)> cloud_status_cb;
};

}  // namespace zel
