// Messaging lifecycle: construction, connect, disconnect, the worker loop and the
// connection notifications.
#include "messaging/messaging.h"

#include <cctype>
#include <chrono>
#include <exception>
#include <future>

#include "foundation/log.h"
#include "foundation/thread_role.h"
#include "foundation/proxy_settings.h"
#include "foundation/time_utils.h"
#include "inventory/templates.h"
#include "link/websocket_client.h"

namespace zel {

namespace {
constexpr const char* kArchitecture = "pelmo_linux64";
constexpr auto kPassSleep = std::chrono::milliseconds(50);
constexpr auto kRetrySleep = std::chrono::seconds(1);
constexpr auto kDisconnectWait = std::chrono::seconds(30);
// disconnect returns within 32 s: 30 for the close, the rest for the threads to end.
constexpr auto kWorkerStopBound = std::chrono::seconds(31);
constexpr auto kPoolStopBound = std::chrono::milliseconds(31500);
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
    zel_log(LOG_ERR, "Worker stage %s failed: %s\n", name, e.what());
  } catch (...) {
    zel_log(LOG_ERR, "Worker stage %s failed\n", name);
  }
}
}  // namespace

Messaging& Messaging::get() {
  static Messaging instance;
  return instance;
}

Messaging::Messaging() {
  zel_log(LOG_NOTICE, "version:  %s\n", version.c_str());
  zel_log(LOG_NOTICE, "architecture: %s\n", kArchitecture);
}

bool Messaging::refuse_lifecycle_call(const char* verb) const {
  // From the worker or an upload thread the call would wait for the calling thread
  // itself; from a clip callback on a host thread, for a worker pass that waits on the
  // lock the callback runs under.
  if (thread_role() == ThreadRole::HOST && !in_host_callback()) return false;
  zel_log(LOG_ERR, "Can't %s from a callback, use different thread\n", verb);
  return true;
}

bool Messaging::connect(const CloudConnect& cc, std::function<void()> on_connect_fn,
                        std::function<void()> on_disconnect_fn,
                        const std::list<std::string>& camera_list) {
  if (refuse_lifecycle_call("connect")) return false;
  std::lock_guard<std::mutex> connect_lock(connect_mutex);
  if (worker_thread) return false;
  reap_stuck_pools();

  {
    // Host threads read the identity under this lock while they report.
    std::lock_guard<std::recursive_mutex> lock(work_mutex);
    apply_identity(cc);
    cameras = camera_list;
    on_connect_cb = std::move(on_connect_fn);
    on_disconnect_cb = std::move(on_disconnect_fn);
  }
  {
    std::lock_guard<std::mutex> lock(stats_mutex);
    published_stats = CloudStats();  // the totals count from this connect
  }
  // One reading of the proxy configuration serves the link and the uploads alike.
  capture_proxy_settings();
  start_upload_pool(cc.ca_path);

  WebSocketClient::instance().initialize(
      cc, [this] { this->on_connect(); }, [this] { this->on_disconnect(); });
  running.test_and_set();
  worker_exited = false;
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
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  apply_identity(cc);
}

bool Messaging::disconnect() {
  if (refuse_lifecycle_call("disconnect")) return false;
  std::vector<ClipReport> last_reports;
  {
    std::unique_lock<std::mutex> connect_lock(connect_mutex, std::try_to_lock);
    if (!connect_lock.owns_lock()) {
      zel_log(LOG_ERR, "Already disconnecting\n");
      return false;
    }
    const auto started = std::chrono::steady_clock::now();
    if (!worker_thread) return true;
    if (!close_link()) return false;

    // The worker is stopped before the pool goes, so it never touches a destroyed pool.
    running.clear();
    while (!worker_exited && std::chrono::steady_clock::now() < started + kWorkerStopBound)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!worker_exited) {
      zel_log(LOG_ERR, "The worker is still in a callback; call disconnect again later\n");
      return false;
    }
    worker_thread->join();
    worker_thread.reset();
    last_reports = stop_upload_pool(started + kPoolStopBound);
    reap_stuck_pools();
    WebSocketClient::instance().clear_context();
    std::lock_guard<std::recursive_mutex> lock(work_mutex);
    publish_stats();
  }
  // With no library lock held: a callback may call back in, even connect again.
  for (const ClipReport& r : last_reports) report_clip(r.clip, r.state, r.message);
  return true;
}

bool Messaging::close_link() {
  WebSocketClient& link = WebSocketClient::instance();
  bool closed = false;
  try {
    std::future<void> fut = link.full_disconnect();
    closed = fut.wait_for(kDisconnectWait) == std::future_status::ready;
  } catch (const std::future_error&) {
    // A retried disconnect after a time-out has no fresh future: watch the link instead.
    auto deadline = std::chrono::steady_clock::now() + kDisconnectWait;
    while (!(closed = !link.is_connected()) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(kPassSleep);
  }
  if (!closed) zel_log(LOG_ERR, "Disconnect future timeout reached.\n");
  return closed;
}

void Messaging::worker() {
  set_thread_role(ThreadRole::WORKER);
  SetOnExit mark{worker_exited};
  WebSocketClient& link = WebSocketClient::instance();
  while (running.test_and_set()) {
    std::this_thread::sleep_for(kPassSleep);
    if (!link.service_socket()) {
      zel_log(LOG_NOTICE, "service_socket failed, waiting to retry\n");
      std::this_thread::sleep_for(kRetrySleep);
    }
    if (!link.is_connected()) {
      std::lock_guard<std::recursive_mutex> lock(work_mutex);
      run_stage("publish_stats", [this] { publish_stats(); });
      continue;
    }
    if (ratelimit(&ping_stamp, kPingPeriod)) run_stage("ping", [this] { ping(); });

    std::lock_guard<std::recursive_mutex> lock(work_mutex);
    run_stage("process_clip", [this] { process_clip(); });
    run_stage("process_event", [this] { process_event(); });
    run_stage("process_access_event", [this] { process_access_event(); });
    run_stage("process_inbound", [this] { process_inbound(); });
    run_stage("manage_upload_threads", [this] { manage_upload_threads(); });
    run_stage("expire_clip", [this] { expire_clip(); });
    run_stage("publish_stats", [this] { publish_stats(); });
  }
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
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  list_actions_cb = std::move(cb);
}

void Messaging::register_perform_action(std::function<MsgResponse(ActionInfo)> cb) {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  perform_action_cb = std::move(cb);
}

void Messaging::register_ota_update(std::function<MsgResponse(UpdateInfo)> cb) {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  ota_update_cb = std::move(cb);
}

void Messaging::register_cloud_status(std::function<void(CloudStatus)> cb) {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
  cloud_status_cb = std::move(cb);
}

void Messaging::cloud_status(CloudStatus s) {
  account_id = s.account_id;
  if (cloud_status_cb) cloud_status_cb(s);
}

void Messaging::reset_for_tests() {
  std::lock_guard<std::recursive_mutex> lock(work_mutex);
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
  list_actions_cb = nullptr;
  perform_action_cb = nullptr;
  ota_update_cb = nullptr;
  cloud_status_cb = nullptr;
}

}  // namespace zel
