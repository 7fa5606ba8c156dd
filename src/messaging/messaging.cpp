// Messaging lifecycle: construction, connect, disconnect, the worker loop and the
// connection notifications.
#include "messaging/messaging.h"

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <future>

#include "foundation/log.h"
#include "foundation/thread_role.h"
#include "foundation/proxy_settings.h"
#include "foundation/time_utils.h"
#include "inventory/templates.h"
#include "link/websocket_client.h"
#include "upload/uploader_cluster.h"

namespace zel {

namespace {
constexpr const char* kArchitecture = "pelmo_linux64";
constexpr auto kPassSleep = std::chrono::milliseconds(50);
constexpr auto kRetrySleep = std::chrono::seconds(1);
constexpr auto kDisconnectWait = std::chrono::seconds(30);
// disconnect returns within 32 s: 30 for the close, the rest for the threads to end.
constexpr auto kWorkerStopBound = std::chrono::seconds(31);
constexpr auto kPoolStopBound = std::chrono::milliseconds(31500);
// At exit the host is going away: a short goodbye, then whatever is stuck is left behind;
// all of it within 2 s.
constexpr auto kExitCloseWait = std::chrono::milliseconds(800);
constexpr auto kExitWorkerBound = std::chrono::milliseconds(1400);
constexpr auto kExitBound = std::chrono::seconds(2);
constexpr unsigned kPingPeriod = 30;

std::string build_version_json(const std::string& version, const CloudConnect& cc) {
  std::string v = "{\"version\":\"" + version + "\",";
  if (!cc.account.empty()) v += "\"account\":\"" + cc.account + "\",";
  v += "\"buildNumber\":1,";
  if (!cc.partner.empty()) v += "\"partner\":\"" + cc.partner + "\",";
  v += "\"buildDate\":\"202007080000\",";
  if (!cc.serial_number.empty()) v += "\"serialNumber\":\"" + cc.serial_number + "\",";
  v += "\"architecture\":\"";
  v += kArchitecture;
  v += "\",\"ui\":\"none\"}";
  return v;
}

// One failing stage must not take the worker down with it.
template <typename Stage>
void run_stage(const char* name, Stage&& stage) {
  try {
    stage();
  } catch (const std::exception& e) {
    zel_log(LEVEL_ERR, "Worker stage %s failed: %s\n", name, e.what());
  } catch (...) {
    zel_log(LEVEL_ERR, "Worker stage %s failed\n", name);
  }
}
}  // namespace

Messaging& Messaging::get() {
  // Never destroyed: threads that outlive main (a host that exits without disconnect, or
  // from a callback) must never meet a destroyed singleton.
  static Messaging* instance = new Messaging();
  return *instance;
}

Messaging::Messaging() {
  zel_log(LEVEL_NOTICE, "version:  %s\n", version.c_str());
  zel_log(LEVEL_NOTICE, "architecture: %s\n", kArchitecture);
}

bool Messaging::refuse_lifecycle_call(const char* verb) const {
  // From the worker or an upload thread the call would wait for the calling thread
  // itself; from a clip callback on a host thread, for a worker pass that waits on the
  // lock the callback runs under.
  if (thread_role() == ThreadRole::HOST && !in_host_callback()) return false;
  zel_log(LEVEL_ERR, "Can't %s from a callback, use different thread\n", verb);
  return true;
}

bool Messaging::connect(const CloudConnect& cc, std::function<void()> on_connect_fn,
                        std::function<void()> on_disconnect_fn,
                        const std::list<std::string>& camera_list) {
  if (refuse_lifecycle_call("connect")) return false;
  std::lock_guard<std::mutex> connect_lock(connect_mutex);
  // A disconnect that gave up has something left to finish: it goes first.
  if (worker_thread || uploaders || stopping_pool) return false;
  reap_stuck_pools();

  {
    // Host threads read the identity under this lock while they report.
    std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
    apply_identity(cc);
    cameras = camera_list;
    on_connect_cb = std::move(on_connect_fn);
    on_disconnect_cb = std::move(on_disconnect_fn);
    replay_outbox();
  }
  {
    std::lock_guard<std::mutex> lock(stats_mutex);
    published_stats = CloudStats();  // the totals count from this connect
  }
  // One reading of the proxy configuration serves the link and the uploads alike.
  capture_proxy_settings();
  start_upload_pool(cc.ca_path);
  // After libcurl's and OpenSSL's own set-up (the pool's), so that it runs before their
  // clean-up at exit.
  static std::once_flag exit_once;
  std::call_once(exit_once, [] { std::atexit(&Messaging::exit_handler); });

  WebSocketClient::instance().initialize(
      cc, [this] { this->on_connect(); }, [this] { this->on_disconnect(); });
  {
    std::lock_guard<std::mutex> lock(wake_mutex);
    running = true;
    worker_exited = false;
  }
  worker_thread = std::make_unique<std::thread>([this] { worker(); });
  return true;
}

void Messaging::apply_identity(const CloudConnect& cc) {
  device_mac = cc.mac_address;
  for (char& ch : device_mac) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  version_json = build_version_json(version, cc);
  if (cc.device_type == 1) device_info.device_type = "controller";
  device_info.partner = cc.partner;
  device_info.mac = device_mac;
  camera_template = kCameraTemplate;
  transaction_template = kTransactionTemplate;
  cert_path = cc.cert_path;
  key_path = cc.key_path;
}

void Messaging::prepare_for_tests(const CloudConnect& cc) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  apply_identity(cc);
}

bool Messaging::disconnect() {
  if (refuse_lifecycle_call("disconnect")) return false;
  std::vector<ClipReport> last_reports;
  bool done = false;
  {
    std::unique_lock<std::mutex> connect_lock(connect_mutex, std::try_to_lock);
    if (!connect_lock.owns_lock()) {
      zel_log(LEVEL_ERR, "Already disconnecting\n");
      return false;
    }
    const auto started = std::chrono::steady_clock::now();
    // Each step is skipped once done, so a disconnect that gave up can be called again
    // and finishes what the first one left.
    if (worker_thread) {
      if (!close_link(started + kDisconnectWait)) return false;
      // The worker is stopped before the pool goes, so it never touches a destroyed pool.
      if (!stop_worker(started + kWorkerStopBound)) {
        zel_log(LEVEL_ERR, "The worker is still in a callback; call disconnect again later\n");
        return false;
      }
      WebSocketClient::instance().clear_context();
    }
    done = stop_upload_pool(started + kPoolStopBound, last_reports);
    if (!done) zel_log(LEVEL_ERR, "A callback holds the library; call disconnect again later\n");
  }
  // With no library lock held: a callback may call back in, even connect again.
  for (const ClipReport& r : last_reports) report_clip(r.clip, r.state, r.message);
  return done;
}

bool Messaging::close_link(std::chrono::steady_clock::time_point deadline) {
  WebSocketClient& link = WebSocketClient::instance();
  bool closed = false;
  try {
    std::future<void> fut = link.full_disconnect();
    closed = fut.wait_until(deadline) == std::future_status::ready;
  } catch (const std::future_error&) {
    // A retried disconnect after a time-out has no fresh future: wait on the link instead.
    closed = link.wait_closed(deadline);
  }
  if (!closed) zel_log(LEVEL_ERR, "Disconnect future timeout reached.\n");
  return closed;
}

bool Messaging::stop_worker(std::chrono::steady_clock::time_point deadline) {
  {
    std::unique_lock<std::mutex> lock(wake_mutex);
    running = false;
    wake.notify_all();
    if (!wake.wait_until(lock, deadline, [this] { return worker_exited; })) return false;
  }
  worker_thread->join();
  worker_thread.reset();
  return true;
}

bool Messaging::pause(std::chrono::milliseconds d) {
  std::unique_lock<std::mutex> lock(wake_mutex);
  return !wake.wait_for(lock, d, [this] { return !running; });
}

bool Messaging::lock_work_by(std::unique_lock<std::recursive_timed_mutex>& lock,
                             std::chrono::steady_clock::time_point deadline) {
  // On the system clock, through pthread_mutex_timedlock: thread checkers see that one,
  // while the monotonic clocklock slips past them and leaves the mutex looking unowned.
  // A wall clock stepped meanwhile only shortens or stretches this one wait.
  return lock.try_lock_until(std::chrono::system_clock::now() +
                             (deadline - std::chrono::steady_clock::now()));
}

void Messaging::worker() {
  set_thread_role(ThreadRole::WORKER);
  struct MarkExited {
    Messaging& m;
    ~MarkExited() {
      std::lock_guard<std::mutex> lock(m.wake_mutex);
      m.worker_exited = true;
      m.wake.notify_all();
    }
  } mark{*this};
  WebSocketClient& link = WebSocketClient::instance();
  while (pause(kPassSleep)) {
    if (!link.service_socket()) {
      zel_log(LEVEL_NOTICE, "service_socket failed, waiting to retry\n");
      if (!pause(kRetrySleep)) break;
    }
    if (!link.is_connected()) continue;
    if (ratelimit(&ping_stamp, kPingPeriod)) run_stage("ping", [this] { ping(); });

    // A host callback on another thread may hold work_mutex as long as it likes: the link
    // is tended meanwhile, and a stop still ends the loop.
    std::unique_lock<std::recursive_timed_mutex> lock(work_mutex, std::defer_lock);
    if (!lock_work_by(lock, std::chrono::steady_clock::now() + kPassSleep)) continue;
    run_stage("settle_outbox", [this] { settle_outbox(); });
    run_stage("process_clip", [this] { process_clip(); });
    run_stage("process_event", [this] { process_event(); });
    run_stage("process_access_event", [this] { process_access_event(); });
    run_stage("process_inbound", [this] { process_inbound(); });
    run_stage("manage_upload_threads", [this] { manage_upload_threads(); });
    run_stage("expire_clip", [this] { expire_clip(); });
    update_counts();
  }
}

void Messaging::exit_handler() {
  Messaging& m = get();
  const auto started = std::chrono::steady_clock::now();
  // A disconnect running on another thread owns the threads; the process ends under it.
  std::unique_lock<std::mutex> connect_lock(m.connect_mutex, std::try_to_lock);
  if (!connect_lock.owns_lock()) return;
  const ThreadRole role = thread_role();
  if (m.worker_thread) {
    if (role != ThreadRole::WORKER) {
      WebSocketClient& link = WebSocketClient::instance();
      m.close_link(started + kExitCloseWait);
      // A worker still inside a host callback is left behind, never joined.
      if (m.stop_worker(started + kExitWorkerBound)) link.clear_context();
    } else {
      // exit() from a callback on the worker itself: its loop simply never resumes, and
      // the kernel closes the socket.
      std::lock_guard<std::mutex> lock(m.wake_mutex);
      m.running = false;
    }
  }
  // The pool stops without reports: nobody is left to hear them. A thread inside a host
  // callback, or the one calling exit, is left as it is.
  UploaderCluster* pool = m.uploaders ? m.uploaders.get() : m.stopping_pool.get();
  if (pool != nullptr) pool->stop(started + kExitBound);
}

void Messaging::on_connect() {
  {
    std::lock_guard<std::mutex> lock(stats_mutex);
    published_stats.link_up = true;
    ++published_stats.connections;
    published_stats.last_connected_at = time_now();
  }
  send_version_to_cloud();
  for (const std::string& id : cameras) send_camera_to_cloud(id);
  if (on_connect_cb) on_connect_cb();
}

void Messaging::on_disconnect() {
  {
    std::lock_guard<std::mutex> lock(stats_mutex);
    published_stats.link_up = false;
    published_stats.last_disconnected_at = time_now();
  }
  if (on_disconnect_cb) on_disconnect_cb();
}

void Messaging::register_list_actions(std::function<MsgResponse(std::string)> cb) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  list_actions_cb = std::move(cb);
}

void Messaging::register_perform_action(std::function<MsgResponse(ActionInfo)> cb) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  perform_action_cb = std::move(cb);
}

void Messaging::register_ota_update(std::function<MsgResponse(UpdateInfo)> cb) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  ota_update_cb = std::move(cb);
}

void Messaging::register_cloud_status(std::function<void(CloudStatus)> cb) {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  cloud_status_cb = std::move(cb);
}

void Messaging::cloud_status(CloudStatus s) {
  account_id = s.account_id;
  if (cloud_status_cb) cloud_status_cb(s);
}

void Messaging::reset_for_tests() {
  std::lock_guard<std::recursive_timed_mutex> lock(work_mutex);
  account_id = 0;
  missed_pongs = 0;
  ping_stamp = 0;
  upload_threads = 1;
  device_info = DeviceInfo();
  pending_clips.clear();
  unacked_clips.clear();
  credentials.clear();
  clip_queue.clear();
  event_queue.clear();
  access_event_queue.clear();
  outbox.reset();
  outbox_replayed = false;
  recovered_clips_cb = nullptr;
  recovered_record_ends.clear();
  update_counts();
  list_actions_cb = nullptr;
  perform_action_cb = nullptr;
  ota_update_cb = nullptr;
  cloud_status_cb = nullptr;
}

}  // namespace zel
