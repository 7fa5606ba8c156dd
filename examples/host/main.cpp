// An NVR host in one file: what a recorder does with the library from start to end.
//
//   zel_example_host --server wss://127.0.0.1:8443/ --ca ca.pem --cert client.pem
//                    --key client.key --mac 00:11:22:33:44:55 [--clip FILE] [--big-clip FILE]
//                    [--wait 20] [--proxy http://[user:password@]host:port]
//
// It registers the four callbacks, connects, announces a camera, a relay and a door,
// sends a motion and an access event, uploads the clips it is given (a short recording,
// then a large file that shows the upload figures), waits until the cloud has asked it
// to perform an action, prints the library's status snapshot, and disconnects. The
// library's log lines go into the host's own output. Exit status 0 only when every step
// happened.
#include <zel/upload.h>

#include "options.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex out_mu;
void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(out_mu);
  std::printf("[host] %s\n", line.c_str());
  std::fflush(stdout);
}

// Steps the story waits for; each is set once, from whatever thread sees it happen.
struct Progress {
  std::mutex mu;
  std::condition_variable cv;
  bool connected = false;
  bool status = false;
  bool action = false;
  int clip_state = -1;
  std::string clip_message;

  template <typename Pred>
  bool wait(Pred pred, int seconds) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, std::chrono::seconds(seconds), pred);
  }
  template <typename Fn>
  void update(Fn fn) {
    std::lock_guard<std::mutex> lock(mu);
    fn();
    cv.notify_all();
  }
};

// The snapshot an operator's status page would show.
void print_stats(const zel::CloudStats& s) {
  char text[512];
  std::snprintf(text, sizeof text,
                "status: link %s, %lld connection(s); queued: %lld out, %lld events, %lld clips; "
                "clips: %lld uploaded (%lld bytes), %lld confirmed, %lld failed%s%s",
                s.link_up ? "up" : "down", static_cast<long long>(s.connections),
                static_cast<long long>(s.outbound_queued),
                static_cast<long long>(s.motion_events_queued + s.access_events_queued),
                static_cast<long long>(s.clips_queued + s.clips_waiting_credentials +
                                       s.clips_uploading),
                static_cast<long long>(s.clips_uploaded), static_cast<long long>(s.bytes_uploaded),
                static_cast<long long>(s.clips_confirmed), static_cast<long long>(s.clips_failed),
                s.last_upload_error.empty() ? "" : "; last upload error: ",
                s.last_upload_error.c_str());
  say(text);
}

const char* state_name(int state) {
  static const char* names[] = {"queued",    "rejected", "waiting for credentials",
                                "upload started", "uploading", "uploaded",
                                "confirmed", "failed"};
  return state >= 0 && state <= 7 ? names[state] : "?";
}

}  // namespace

int main(int argc, char** argv) {
  const Options arg(argc, argv);
  if (!arg.has_link()) {
    std::fprintf(stderr,
                 "usage: %s --server URI --mac MAC [--ca FILE] [--cert FILE] [--key FILE] "
                 "[--clip FILE] [--big-clip FILE] [--camera MAC] [--wait SECONDS] [--proxy URI]\n",
                 argv[0]);
    return 2;
  }
  const int wait_s = static_cast<int>(arg.number("--wait", 20));
  const std::string camera = arg.text("--camera", "0a1b2c3d4e5f");
  Progress progress;

  // 0. The library's diagnostics belong in the host's own log, not on standard error.
  zel::Upload::register_log([](int level, const std::string& line) {
    std::lock_guard<std::mutex> lock(out_mu);
    std::printf("[zel %s] %s\n", level == 1 ? "error" : level == 2 ? "warning" : "notice",
                line.c_str());
    std::fflush(stdout);
  });

  // 1. Callbacks first: they run on the library's worker thread and must return quickly.
  zel::Upload::register_cloud_status([&](zel::CloudStatus s) {
    say("cloud status: registered=" + std::string(s.registered ? "yes" : "no") +
        " enabled=" + (s.enabled ? "yes" : "no") + " account_id=" + std::to_string(s.account_id) +
        " device_uuid=" + s.device_uuid);
    progress.update([&] { progress.status = true; });
  });
  zel::Upload::register_list_actions([](std::string device) {
    say("cloud asked for the actions of '" + device + "'");
    return zel::MsgResponse("[\"open\",\"close\"]");
  });
  zel::Upload::register_perform_action([&](zel::ActionInfo a) {
    say("cloud asked to perform '" + a.action + "' on '" + a.device + "' with value " + a.value);
    progress.update([&] { progress.action = true; });
    return zel::MsgResponse::Okay();
  });
  zel::Upload::register_ota_update([](zel::UpdateInfo u) {
    say("cloud offered an update from " + u.url + "; declining in this example");
    return zel::MsgResponse::Error("{\"error\":\"updates are applied by the operator\"}");
  });

  // 2. Connect. The cameras listed here are announced again after every reconnection.
  // Without --proxy the library follows https_proxy / no_proxy from the environment.
  if (!arg.text("--proxy").empty() && !zel::Upload::set_proxy(arg.text("--proxy"))) {
    say("the proxy URI is not of the form http://[user:password@]host:port");
    return 2;
  }
  bool started = zel::Upload::connect(
      arg.link("EXAMPLE-0001"), [&] { say("connected to the cloud"); progress.update([&] { progress.connected = true; }); },
      [] { say("link to the cloud is down"); }, {camera});
  if (!started || !progress.wait([&] { return progress.connected; }, wait_s)) {
    say("could not connect within " + std::to_string(wait_s) + " s");
    zel::Upload::disconnect();
    return 1;
  }
  progress.wait([&] { return progress.status; }, wait_s);

  // 3. Describe the hardware.
  zel::Relay relay;
  relay.relay_number = 1;
  relay.name = "Gate relay";
  relay.enabled = true;
  zel::Door door;
  door.door_number = 1;
  door.name = "Front door";
  door.enabled = true;
  door.door_contact = true;
  zel::Upload::register_camera(camera);
  zel::Upload::register_item(relay);
  zel::Upload::register_item(door);
  say("announced camera " + camera + ", relay 1 and door 1");

  // 4. Report events; they are queued here and sent by the worker.
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  zel::Upload::upload_event(zel::EventInfo{1, camera, now - 5, now, "thumb-1.jpg"});
  zel::AccessEventInfo access;
  access.event_type = "door_opened";
  access.start_time = now - 2;
  access.end_time = now;
  access.device_uuid = "door-1";
  access.meta = "{\"door\":1}";
  zel::Upload::upload_event(access);
  say("sent a motion event and an access event");

  // 5. Upload the recorded clip, then the large one if given: the states arrive through each
  //    clip's callback. Each clip has its own start second, which names its blob.
  auto upload = [&](const std::string& path, int64_t start, int64_t end) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    zel::ClipInfo clip;
    clip.path = path;
    clip.camera_mac = camera;
    clip.start_time = start;
    clip.end_time = end;
    clip.size = file ? static_cast<int64_t>(file.tellg()) : -1;
    clip.keyframe_times = {0, 2.5, 5};
    clip.metadata = "example";
    auto started_at = std::make_shared<std::chrono::steady_clock::time_point>();
    clip.callback = [&, started_at](int state, const zel::ClipInfo& c, std::string message) {
      if (state == zel::CLIP_UPLOAD_STARTED) *started_at = std::chrono::steady_clock::now();
      std::string line = "clip state " + std::to_string(state) + " (" + state_name(state) + ")";
      if (state == zel::CLIP_UPLOADED) {
        double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - *started_at).count();
        char figures[160];
        std::snprintf(figures, sizeof figures, ": %lld bytes in %.2f s, %.1f MiB/s",
                      static_cast<long long>(c.size), secs,
                      secs > 0 ? static_cast<double>(c.size) / secs / 1048576.0 : 0.0);
        line += figures;
      } else if (!message.empty()) {
        line += ": " + message;
      }
      say(line);
      progress.update([&] {
        progress.clip_state = state;
        progress.clip_message = message;
      });
    };
    zel::UploadOpts opts;
    opts.timeout_seconds = 30;
    opts.confirm_timeout = 120;
    auto last_report = std::make_shared<int>(-1);
    opts.upload_callback = [last_report](const std::string&, int elapsed, int64_t total, int64_t sent) {
      if (elapsed != *last_report) {  // at most once a second
        *last_report = elapsed;
        say("  uploading: " + std::to_string(sent) + " of " + std::to_string(total) + " bytes after " +
            std::to_string(elapsed) + " s");
      }
      return 0;
    };
    progress.update([&] { progress.clip_state = -1; });
    zel::Upload::upload_clip(clip, opts);
    bool done = progress.wait(
        [&] {
          return progress.clip_state == zel::CLIP_CONFIRMED || progress.clip_state == zel::CLIP_FAILED ||
                 progress.clip_state == zel::CLIP_REJECTED;
        },
        wait_s * 3);
    return done && progress.clip_state == zel::CLIP_CONFIRMED;
  };
  bool clip_ok = true;
  const std::string clip = arg.text("--clip"), big_clip = arg.text("--big-clip");
  if (!clip.empty() || !big_clip.empty()) zel::Upload::set_upload_threads(2);
  if (!clip.empty()) clip_ok = upload(clip, now - 60, now - 56);
  if (!big_clip.empty()) clip_ok = upload(big_clip, now - 120, now - 60) && clip_ok;

  // 6. Stay until the cloud has asked for an action, then leave cleanly.
  bool action_ok = progress.wait([&] { return progress.action; }, wait_s);
  if (!action_ok) say("the cloud never asked for an action");
  // disconnect() closes at once and does not flush what is still queued, so give the
  // worker a moment to send the action's reply (one message leaves per 50 ms pass).
  std::this_thread::sleep_for(std::chrono::seconds(1));
  print_stats(zel::Upload::stats());
  bool disconnected = zel::Upload::disconnect();
  say(disconnected ? "disconnected cleanly" : "disconnect failed");
  bool ok = progress.status && action_ok && clip_ok && disconnected;
  say(ok ? "every step done" : "some steps did not happen");
  return ok ? 0 : 1;
}
