// Plain records that cross the library's public interface. They are aggregates:
// fill them with braces or field by field; they carry no behaviour.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zel {

// States reported through a clip's callback.
enum ClipState : int32_t {
  CLIP_QUEUED = 0,
  CLIP_REJECTED = 1,
  CLIP_WAITING_CREDENTIALS = 2,
  CLIP_UPLOAD_STARTED = 3,
  CLIP_UPLOADING = 4,
  CLIP_UPLOADED = 5,
  CLIP_CONFIRMED = 6,
  CLIP_FAILED = 7,
};

// Connection parameters given to Upload::connect.
struct CloudConnect {
  int32_t device_type = 0;     // 1: access controller; anything else: recorder
  std::string server_uri;      // wss:// or https:// for TLS, ws:// or http:// for plain
  std::string partner;
  std::string account;
  std::string mac_address;     // device identifier; lower-cased in every message
  std::string serial_number;
  std::string ca_path;         // CA used to verify the messaging server and blob storage
  std::string cert_path;       // client certificate, used only when readable
  std::string key_path;        // client private key, used only when readable
};

struct ClipInfo;

// Progress and outcome of one clip: (state, the clip, message). Called on the worker
// thread, except for rejections, which arrive on the thread that called upload_clip.
using ClipCallback = std::function<void(int status, const ClipInfo& clip, std::string message)>;

// Progress of one storage upload; a non-zero result aborts it. Called on an upload thread.
using UploadProgressCallback =
    std::function<int(const std::string& camera_mac, int elapsed_s, int64_t total, int64_t now)>;

struct ClipInfo {
  std::string path;
  std::string camera_mac;
  int64_t start_time = 0;      // seconds since the epoch; must be below end_time
  int64_t end_time = 0;
  int64_t size = 0;            // must equal the file's size, at most 256000000
  std::vector<double> keyframe_times;
  std::string metadata;
  ClipCallback callback;
};

struct UploadOpts {
  int32_t upload_option = 1;     // seconds to wait for "100 Continue"; 0 or less: no wait
  int32_t timeout_seconds = 10;  // credential and confirmation time-out
  int32_t confirm_timeout = 30;  // whole-transfer time-out; 0 also disables the confirmation time-out
  UploadProgressCallback upload_callback;
};

struct EventInfo {
  int32_t type = 0;  // 1 = "MOTION", 2 = "HYPERVIEW"; other values are not reported
  std::string camera_mac;
  int64_t start_time = 0;
  int64_t end_time = 0;
  std::string thumbnail;
};

struct AccessEventInfo {
  std::string event_type;
  int64_t start_time = 0;
  int64_t end_time = 0;
  std::string device_uuid;      // required: events without it are ignored
  std::string credential_uuid;  // optional
  std::string meta;             // optional JSON value, inserted as it is
  std::string tag;              // optional
};

struct ActionInfo {
  std::string device;
  std::string action;
  std::string value;  // the request's "value" as compact JSON text (a string keeps its quotes)
};

struct UpdateInfo {
  std::string url;
  std::string hash;
  std::string device;
  std::string reserved;  // always left empty by the library
};

struct CloudStatus {
  bool registered = false;
  bool enabled = false;
  int32_t account_id = 0;
  std::string device_uuid;
  int32_t partner_id = 0;
};

struct CloudCredentials {
  std::string account;
  std::string token;
  std::string secret;
  std::string start_at;
  std::string camera_mac;
  int64_t expires_at = 0;
};

struct TransactionAck {
  std::string type;
  std::string from;
  std::string start_at;
};

// How strictly the link and the uploads check the servers they reach (Upload::set_tls_policy).
// Pins are the bare base64 of the SHA-256 of a certificate's SubjectPublicKeyInfo. The
// defaults check the chain against ca_path and nothing more.
struct TlsPolicy {
  bool verify_host_name = false;  // the link's server certificate names the host of server_uri
  std::vector<std::string> pinned_sha256;          // the link: a key of the verified chain
  std::vector<std::string> storage_pinned_sha256;  // the uploads: the blob server's own key
};

// What Upload::stats() returns: the link, the queues and the clips at a glance. Queue
// counts are as of the last change to the queue; times are seconds since the epoch
// (0 = never). The totals count from the last connect.
struct CloudStats {
  bool link_up = false;
  int64_t connections = 0;  // links established since connect
  int64_t last_connected_at = 0;
  int64_t last_disconnected_at = 0;
  int64_t outbound_queued = 0;
  int64_t inbound_queued = 0;
  int64_t motion_events_queued = 0;
  int64_t access_events_queued = 0;
  int64_t clips_queued = 0;
  int64_t clips_waiting_credentials = 0;
  int64_t clips_uploading = 0;
  int64_t clips_awaiting_confirmation = 0;
  int64_t credentials_held = 0;
  int64_t upload_threads = 0;
  int64_t clips_uploaded = 0;
  int64_t clips_confirmed = 0;
  int64_t clips_failed = 0;
  int64_t bytes_uploaded = 0;
  std::string last_upload_error;  // the message of the last failed upload
  int64_t last_upload_error_at = 0;
  bool clock_unset = false;  // the clock reads before this build was made: TLS cannot work
  int64_t reconnect_attempts = 0;  // connection attempts since connect
  int64_t next_attempt_at = 0;     // when the next is due; 0 while linked or trying
  int64_t blocks_retried = 0;         // tries of a block after a failed one
  int64_t credentials_refreshed = 0;  // fresh credentials a block upload received
  // The outbox (Upload::set_outbox): bytes and records live in the journal, records
  // dropped at its bound, and whether it works from memory after an I/O error.
  int64_t outbox_bytes = 0;
  int64_t outbox_records = 0;
  int64_t outbox_dropped = 0;
  bool outbox_degraded = false;
};

}  // namespace zel
