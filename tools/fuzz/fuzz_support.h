// What the fuzz targets share: a private scratch folder, the device identity, host
// callbacks that answer like a real host (and sometimes fail or throw), and the reset
// that gives every input the same starting point.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "clips/pending_clip.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "zel/records.h"
#include "zel/upload.h"

namespace zel_fuzz {

// A broken invariant is a finding: abort so that libFuzzer keeps the input.
#define FUZZ_CHECK(cond, ...)                                              \
  do {                                                                     \
    if (!(cond)) {                                                         \
      std::fprintf(stderr, "FUZZ_CHECK failed at %s:%d: %s\n  ", __FILE__, \
                   __LINE__, #cond);                                       \
      std::fprintf(stderr, __VA_ARGS__);                                   \
      std::fprintf(stderr, "\n");                                          \
      std::abort();                                                        \
    }                                                                      \
  } while (0)

inline void remove_tree(const std::string& dir) {
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
      ::unlink((dir + "/" + e->d_name).c_str());
    }
    closedir(d);
  }
  ::rmdir(dir.c_str());
}

// One folder per process, under /tmp, gone at a normal exit: the handlers that write
// files (certificate and key, the JSON helpers) write only there. A crash skips the
// clean-up, so tools/fuzz.sh sets ZEL_FUZZ_TMP to a folder of its own run (only paths
// under /tmp/ are taken) and removes that.
inline const std::string& scratch_dir() {
  static std::string dir;
  static std::once_flag once;
  std::call_once(once, [] {
    std::string base = "/tmp";
    const char* requested = std::getenv("ZEL_FUZZ_TMP");
    if (requested != nullptr && std::strncmp(requested, "/tmp/", 5) == 0 &&
        std::strstr(requested, "..") == nullptr)
      base = requested;
    std::string tmpl = base + "/zel-fuzz-XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    dir = tmpl;
    std::atexit([] { remove_tree(dir); });
  });
  return dir;
}

constexpr const char* kDeviceMac = "00aabbccddee";  // as the library writes it
constexpr const char* kCameraMac = "00aabbccdd01";
constexpr int64_t kClipStart = 1767225600;                 // 2026-01-01T00:00:00Z
constexpr const char* kClipStartIso = "2026-01-01T00:00:00Z";
constexpr const char* kClipStartDecimal = "1767225600";

inline std::string cert_path() { return scratch_dir() + "/client.pem"; }
inline std::string key_path() { return scratch_dir() + "/client.key"; }

inline zel::CloudConnect identity() {
  zel::CloudConnect cc;
  cc.server_uri = "wss://127.0.0.1:9/ws";  // never dialled
  cc.partner = "p1";
  cc.account = "acme";
  cc.mac_address = "00AABBCCDDEE";
  cc.serial_number = "SN1";
  cc.cert_path = cert_path();
  cc.key_path = key_path();
  return cc;
}

// What the host saw during the current input.
struct HostLog {
  int list_actions = 0;
  int perform_action = 0;
  int ota_update = 0;
  int cloud_status = 0;
  bool threw = false;  // a callback threw on purpose
  std::string device;
  zel::ActionInfo action;
  zel::UpdateInfo update;
  zel::CloudStatus status;
  std::vector<int> clip_states;
};

inline HostLog& host() {
  static HostLog log;
  return log;
}

// The texts that make a callback fail are ordinary request values, so the fuzzer finds
// them in the seeds and reaches the error and exception paths of the dispatcher.
inline void register_host_callbacks() {
  zel::Upload::register_list_actions([](std::string device) -> zel::MsgResponse {
    HostLog& h = host();
    ++h.list_actions;
    h.device = device;
    if (device == "throw") {
      h.threw = true;
      throw std::runtime_error("host failed listing actions");
    }
    if (device == "error") return zel::MsgResponse::Error("{\"error\":\"no such device\"}");
    return zel::MsgResponse("{\"actions\":[\"open\",\"close\"]}");
  });
  zel::Upload::register_perform_action([](zel::ActionInfo info) -> zel::MsgResponse {
    HostLog& h = host();
    ++h.perform_action;
    h.action = info;
    if (info.action == "throw") {
      h.threw = true;
      throw std::runtime_error("host failed the action");
    }
    if (info.action == "throw-int") {
      h.threw = true;
      throw 42;  // not a std::exception: the catch-all path
    }
    if (info.action == "error") return zel::MsgResponse::Error("{\"error\":\"refused\"}");
    return zel::MsgResponse("{\"ok\":1}");
  });
  zel::Upload::register_ota_update([](zel::UpdateInfo info) -> zel::MsgResponse {
    HostLog& h = host();
    ++h.ota_update;
    h.update = info;
    if (info.url == "throw") {
      h.threw = true;
      throw std::logic_error("host failed the update");
    }
    if (info.url == "error") return zel::MsgResponse::Error("{\"error\":\"bad image\"}");
    return zel::MsgResponse("{\"ok\":1}");
  });
  zel::Upload::register_cloud_status([](zel::CloudStatus s) {
    HostLog& h = host();
    ++h.cloud_status;
    h.status = s;
  });
}

inline zel::PendingClip seeded_clip(bool in_flight) {
  zel::PendingClip p;
  p.clip.path = "/nonexistent/clip.mp4";  // never opened: there is no upload pool
  p.clip.camera_mac = kCameraMac;
  p.clip.start_time = kClipStart;
  p.clip.end_time = kClipStart + 10;
  p.clip.size = 1;
  p.clip.callback = [](int state, const zel::ClipInfo&, std::string) {
    host().clip_states.push_back(state);
  };
  p.nvr_mac = kDeviceMac;
  p.in_flight = in_flight;
  p.state = in_flight ? zel::CLIP_UPLOADED : zel::CLIP_WAITING_CREDENTIALS;
  return p;
}

inline std::string pending_clip_key() { return std::string(kCameraMac) + kClipStartDecimal; }
inline std::string unacked_clip_key() { return std::string(kCameraMac) + kClipStartIso; }

// Every input starts here: empty queues and tables, the identity, the callbacks, one
// clip waiting for credentials and one waiting for its acknowledgement (so that
// "getStorageAccess" and "transactionAck" can match something), and no missed pong.
inline zel::Messaging& start_clean_input() {
  zel::Messaging& m = zel::Messaging::get();
  std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
  m.reset_for_tests();
  m.prepare_for_tests(identity());
  host() = HostLog();
  register_host_callbacks();
  m.get_pending_clips().emplace(pending_clip_key(), seeded_clip(false));
  m.get_unacked_clips().emplace(unacked_clip_key(), seeded_clip(true));
  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  while (link.inbound_message_ready()) link.get_inbound_message();
  return m;
}

// Every subject the dispatcher knows, in the order the handler fuzzer indexes them.
constexpr const char* kKnownSubjects[] = {
    "pong",           "getStorageAccess", "transaction", "transactionAck",   "version",
    "setSshPassword", "cameraSettingWrite", "details",   "status",           "issueCertificate",
    "update",         "updateFirmware",   "actions",     "action"};
constexpr size_t kKnownSubjectCount = sizeof kKnownSubjects / sizeof kKnownSubjects[0];

inline bool is_known_subject(const std::string& s) {
  for (const char* k : kKnownSubjects)
    if (s == k) return true;
  return false;
}

// Subjects answered by a host callback rather than by the library itself.
inline bool is_host_subject(const std::string& s) {
  return s == "actions" || s == "action" || s == "update" || s == "updateFirmware";
}

}  // namespace zel_fuzz
