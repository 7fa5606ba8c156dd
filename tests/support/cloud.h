// The local cloud as the tests meet it: the messaging server and blob storage (both Peers),
// the device connected to it, and the texts and files the tests compare.
#pragma once

#include <atomic>
#include <list>
#include <string>
#include <vector>

#include "support/peer.h"
#include "zel/upload.h"

namespace zt {

// Made once per build directory (see tests/CMakeLists.txt).
std::string cert(const char* name);  // "ca.pem", "client.pem", "client.key", ...

constexpr const char* kMac = "00:AA:BB:CC:DD:EE";
constexpr const char* kMacLower = "00:aa:bb:cc:dd:ee";

// tools/cloud/messaging_server.py on port 0; flags as for its "set" command.
class Cloud : public Peer {
 public:
  explicit Cloud(bool tls = true, const std::string& flags_json = "{}");
  std::string uri() const { return uri_; }
  zel::CloudConnect params() const;
  // The nth message the device sent on its own account (not a reply) with this subject.
  std::optional<std::string> sent(const std::string& subject, size_t nth = 0, Ms timeout = 5s);
  std::optional<std::string> reply(const std::string& id, Ms timeout = 5s);
  // A request envelope with this id; content_json "" sends none.
  void request(const std::string& subject, const std::string& content_json, const std::string& id);
  bool connects(size_t n, Ms timeout = 10s);
  long close_code(size_t nth = 0, Ms timeout = 5s);  // -1 when no close came
  bool ok(const std::string& json_object);           // a command that worked

 private:
  std::string uri_;
};

// tools/cloud/blob_storage.py: the emulator, shared by a test program, ZEL_BLOB_DOMAIN set.
Peer& storage();
std::string storage_token(const std::string& permissions = "racwdl");

// The library connected as a host connects it; disconnected and reset at the end.
class Device {
 public:
  explicit Device(Cloud& cloud, std::list<std::string> cameras = {});
  Device(Cloud& cloud, const zel::CloudConnect& cc, std::list<std::string> cameras = {});
  ~Device();
  std::atomic<int> connects{0}, disconnects{0};
};

// Clock-dependent parts of a message as placeholders: "id" digits and "date".
std::string stable(const std::string& text);
// A message from the device as stable() shows it; reply_to adds "original_id".
std::string envelope(const std::string& to, const std::string& subject, const std::string& content,
                     const std::string& reply_to = "");
std::string with_device_type(std::string envelope_text, const std::string& type);

// Collects the library's log lines while it lives.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  size_t count(const std::string& line);  // exact line, or with level: "2|line"
  bool wait(const std::string& line, size_t n = 1, Ms timeout = 5s);

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::string> lines_;  // "<level>|<line>"
};

// A temporary directory, removed with everything in it at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::string file(const std::string& name, const std::string& bytes) const;
  std::string path;
};
std::string read_file(const std::string& path);
std::string random_bytes(size_t n, unsigned seed);
std::string sha256_hex(const std::string& bytes);
// What `openssl enc -aes-192-cbc -md md5 -nosalt` makes of the file (the judge of our cipher).
std::string openssl_enc(const std::string& path, const std::string& password, bool decrypt = false);

// The library's clock stands still for the test and moves only by zel::advance_clock.
struct FrozenClock {
  FrozenClock();
  ~FrozenClock();
};

bool eventually(const std::function<bool()>& pred, Ms timeout = 5s);

}  // namespace zt
