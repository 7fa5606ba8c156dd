// The local cloud: tools/cloud programs as Peers in machine mode (JSON lines, commands in,
// events out), the device connected to it, and the texts, files and logs tests compare.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "zel/upload.h"

namespace zt {

using namespace std::chrono_literals;
using Ms = std::chrono::milliseconds;

struct Event {
  std::string raw, kind, text;  // the line, its "event" and "text" (a frame that crossed)
  std::string subject;          // "subject" of text when text is a JSON object
  bool reply = false;           // text carries "original_id"
  long seq = -1;                // the command this event answers
  std::string str(const char* member) const;
  long num(const char* member) const;  // -1 when absent
};

// What a test fails with when a peer cannot start (then its stderr follows).
constexpr const char* kPeerDidNotStart = "Peer did not start: ";

class Peer {
 public:
  // Runs tools/cloud/<program> and waits for its "listening" event (which names its port);
  // throws when that never comes, the child ended.
  Peer(const std::string& program, const std::vector<std::string>& args);
  ~Peer();  // closing its input ends the program
  const Event& listening() const { return up_; }
  // Sends {"cmd":...} and returns the event answering it (kind "" after the time-out).
  Event command(const std::string& json_object, Ms timeout = 10s);
  // The nth (0-based) event that match accepts, waiting for it at most timeout.
  std::optional<Event> wait(const std::function<bool(const Event&)>& match, size_t nth = 0, Ms timeout = 5s);
  size_t count(const std::function<bool(const Event&)>& match);
  bool ok(const std::string& json_object, Ms timeout = 10s);  // a command carried out
  void line(const std::string& text);  // one raw line, for a program that takes no JSON

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  long seq_ = 0;
  bool ended_ = false;
  Event up_;
  std::vector<Event> events_;
  std::mutex mu_;
  std::condition_variable cv_;
  int err_ = -1;  // the peer's stderr
  std::thread reader_;
  void stop();
  std::string stderr_text() const;
};

constexpr const char* kMac = "00:AA:BB:CC:DD:EE";
constexpr const char* kMacLower = "00:aa:bb:cc:dd:ee";
// A recorder that uploads: the test storage holds a container named after it, lower-cased.
constexpr const char* kUploadMac = "0011223344AA";
constexpr const char* kUploadContainer = "0011223344aa";
extern const std::string kVersion;  // of a device without account, partner or serial number
extern const std::string kOkay;     // a reply's content for MsgResponse::Okay()
std::string cert(const char* name);  // made once per build directory ("ca.pem", ...)

// tools/cloud/messaging_server.py on a port of its choosing; flags as its "set" takes them;
// serving the certificate of that name from make_certs.sh ("chain", "other", ...).
struct Cloud : Peer {
  explicit Cloud(bool tls = true, const std::string& flags_json = "{}", const std::string& certificate = "server");
  zel::CloudConnect params(const char* mac = kMac) const;  // a MAC of its own: the blob container
  // The nth message the device sent on its own account (not a reply) with this subject.
  std::optional<std::string> sent(const std::string& subject, size_t nth = 0, Ms timeout = 5s);
  std::optional<std::string> reply(const std::string& id, Ms timeout = 5s);
  void request(const std::string& subject, const std::string& content_json, const std::string& id);
  long close_code(size_t nth = 0, Ms timeout = 5s);  // -1: no close came
  std::string uri;
};

// tools/cloud/blob_storage.py for the whole test program; ZEL_BLOB_DOMAIN points at it.
Peer& storage();
std::string storage_token(const std::string& permissions = "racwdl");
// Cloud flags: storage credentials (this token and secret) for every clip, every clip acknowledged.
std::string storage_flags(const std::string& token, const std::string& secret);

// The library connected as a host connects it (until its version is out); then disconnected.
struct Device {
  Device(Cloud& cloud, const zel::CloudConnect& cc, std::list<std::string> cameras = {});
  explicit Device(Cloud& cloud, std::list<std::string> cameras = {}) : Device(cloud, cloud.params(), cameras) {}
  ~Device();
  std::atomic<int> connects{0}, disconnects{0};
};

// text as a JSON string, quotes included.
std::string json_quote(const std::string& text);
// Placeholders for what follows the clock ("id" digits, "date"), and a device message so.
std::string stable(const std::string& text);
std::string envelope(const std::string& to, const std::string& subject, const std::string& content,
                     const std::string& reply_to = "");
std::string with_device_type(std::string envelope_text, const std::string& type);

using States = std::vector<int>;
// Every state a clip reports, in order, with its message.
struct Reports {
  zel::ClipCallback callback();
  States states();
  std::string message(int state);  // "<never>" when not reported
  bool wait(int state, Ms timeout = 30s);
  std::mutex mu;
  std::vector<std::pair<int, std::string>> seen;
};

// The library's log lines while it lives, each as "<level>|<line>".
struct LogCapture {
  LogCapture();
  ~LogCapture();
  size_t count(const std::string& level_and_line);
  bool wait(const std::string& level_and_line, size_t n = 1, Ms timeout = 5s);
  std::mutex mu;
  std::vector<std::string> lines;
};

// The library's clock stands still; it moves only by zel::advance_clock.
struct FrozenClock {
  FrozenClock();
  ~FrozenClock();
};

// A directory under /tmp, removed with its contents at the end of the test.
struct TempDir {
  TempDir();
  ~TempDir();
  std::string file(const std::string& name, const std::string& bytes) const;
  std::string path;
};
std::string read_file(const std::string& path);
std::string random_bytes(size_t n, unsigned seed);
std::string sha256_hex(const std::string& bytes);
// What `openssl enc -aes-192-cbc -md md5 -nosalt` makes of a file: the judge of our cipher.
std::string openssl_enc(const std::string& path, const std::string& password);
bool eventually(const std::function<bool()>& pred, Ms timeout = 5s);
// Moves the library's clocks to the link's next connection attempt, once one is due; returns
// the seconds moved.
long next_attempt_now();

}  // namespace zt
