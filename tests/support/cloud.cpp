#include "support/cloud.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace zt {

std::string cert(const char* name) { return std::string(ZEL_TEST_CERTS) + "/" + name; }

Cloud::Cloud(bool tls, const std::string& flags_json)
    : Peer("messaging_server.py",
           tls ? std::vector<std::string>{"--cert", cert("server.pem"), "--key", cert("server.key"),
                                          "--ca", cert("ca.pem"), "--set", flags_json}
               : std::vector<std::string>{"--plain", "--set", flags_json}) {
  uri_ = std::string(tls ? "wss" : "ws") + "://127.0.0.1:" + std::to_string(listening().num("port")) + "/";
}

zel::CloudConnect Cloud::params() const {
  zel::CloudConnect cc;
  cc.server_uri = uri_;
  cc.mac_address = kMac;
  cc.ca_path = cert("ca.pem");
  cc.cert_path = cert("client.pem");
  cc.key_path = cert("client.key");
  return cc;
}

std::optional<std::string> Cloud::sent(const std::string& subject, size_t nth, Ms timeout) {
  auto e = wait([&](const Event& e) { return e.kind == "message" && e.subject == subject && !e.reply; },
                nth, timeout);
  return e ? std::optional<std::string>(e->text) : std::nullopt;
}

std::optional<std::string> Cloud::reply(const std::string& id, Ms timeout) {
  std::string tag = "\"original_id\":\"" + id + "\"";
  auto e = wait([&](const Event& e) { return e.reply && e.text.find(tag) != std::string::npos; },
                0, timeout);
  return e ? std::optional<std::string>(e->text) : std::nullopt;
}

void Cloud::request(const std::string& subject, const std::string& content_json,
                    const std::string& id) {
  std::string cmd = "{\"cmd\":\"request\",\"subject\":\"" + subject + "\",\"id\":\"" + id + "\"";
  if (!content_json.empty()) cmd += ",\"content\":" + content_json;
  EXPECT_EQ(command(cmd + "}").kind, "sent") << subject;
}

bool Cloud::connects(size_t n, Ms timeout) {
  return wait([](const Event& e) { return e.kind == "connect"; }, n - 1, timeout).has_value();
}

long Cloud::close_code(size_t nth, Ms timeout) {
  auto e = wait([](const Event& e) { return e.kind == "close"; }, nth, timeout);
  return e ? e->num("code") : -1;
}

bool Cloud::ok(const std::string& json_object) {
  std::string kind = command(json_object).kind;
  return kind == "sent" || kind == "done";
}

Peer& storage() {
  static Peer peer("blob_storage.py", {"--machine", "--certs", ZEL_TEST_CERTS, "--container",
                                       "0011223344aa"});
  static bool pointed = setenv("ZEL_BLOB_DOMAIN", peer.listening().str("blob_domain").c_str(), 1) == 0;
  (void)pointed;
  return peer;
}

std::string storage_token(const std::string& permissions) {
  return storage().command("{\"cmd\":\"sas\",\"permissions\":\"" + permissions + "\"}").str("token");
}

Device::Device(Cloud& cloud, std::list<std::string> cameras)
    : Device(cloud, cloud.params(), std::move(cameras)) {}

Device::Device(Cloud& cloud, const zel::CloudConnect& cc, std::list<std::string> cameras) {
  EXPECT_TRUE(zel::Upload::connect(cc, [this] { ++connects; }, [this] { ++disconnects; }, cameras));
  // The version announcement goes out once the device counts itself connected.
  EXPECT_TRUE(cloud.sent("version"));
}

Device::~Device() {
  EXPECT_TRUE(zel::Upload::disconnect());
  zel::Messaging::get().reset_for_tests();
  // What a test left in the link's inbound queue belongs to no later test.
  auto& link = zel::WebSocketClient::instance();
  while (link.inbound_message_ready()) link.get_inbound_message();
}

std::string stable(const std::string& text) {
  static const std::regex id("\"id\":\"([^\"]*?)[0-9]{16}\"");
  static const std::regex date("\"date\":\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z\"");
  return std::regex_replace(std::regex_replace(text, id, "\"id\":\"$1<us>\""), date,
                            "\"date\":\"<date>\"");
}

std::string envelope(const std::string& to, const std::string& subject, const std::string& content,
                     const std::string& reply_to) {
  return std::string("{\"id\":\"") + kMacLower + "<us>\",\"from\":\"" + kMacLower + "\",\"to\":\"" +
         to + "\",\"subject\":\"" + subject + "\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":" +
         content + (reply_to.empty() ? "" : ",\"original_id\":\"" + reply_to + "\"") + "}";
}

std::string with_device_type(std::string text, const std::string& type) {
  return text.insert(text.find(",\"content\":"), ",\"fromDeviceType\":\"" + type + "\"");
}

LogCapture::LogCapture() {
  zel::set_log_observer([this](int level, const std::string& line) {
    std::lock_guard<std::mutex> lock(mu_);
    lines_.push_back(std::to_string(level) + "|" + line);
    cv_.notify_all();
  });
}

LogCapture::~LogCapture() { zel::set_log_observer(nullptr); }

size_t LogCapture::count(const std::string& line) {
  std::lock_guard<std::mutex> lock(mu_);
  size_t n = 0;
  for (const auto& l : lines_) n += (l == line || l.substr(l.find('|') + 1) == line) ? 1 : 0;
  return n;
}

bool LogCapture::wait(const std::string& line, size_t n, Ms timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (count(line) < n)
    if (std::chrono::steady_clock::now() > deadline) return false;
    else std::this_thread::sleep_for(10ms);
  return true;
}

TempDir::TempDir() {
  char pattern[] = "/tmp/zel-test-XXXXXX";
  path = mkdtemp(pattern);
}

TempDir::~TempDir() { std::filesystem::remove_all(path); }

std::string TempDir::file(const std::string& name, const std::string& bytes) const {
  std::ofstream(path + "/" + name, std::ios::binary) << bytes;
  return path + "/" + name;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen() & 0xff);
  return s;
}

std::string sha256_hex(const std::string& bytes) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_Digest(bytes.data(), bytes.size(), md, &len, EVP_sha256(), nullptr);
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < len; ++i) out += {hex[md[i] >> 4], hex[md[i] & 15]};
  return out;
}

std::string openssl_enc(const std::string& path, const std::string& password, bool decrypt) {
  std::string out = path + ".openssl";
  std::string cmd = std::string("openssl enc ") + (decrypt ? "-d " : "") +
                    "-aes-192-cbc -md md5 -nosalt -pass 'pass:" + password + "' -in '" + path +
                    "' -out '" + out + "' 2>/dev/null";
  std::string bytes = std::system(cmd.c_str()) == 0 ? read_file(out) : "<openssl failed>";
  std::remove(out.c_str());
  return bytes;
}

FrozenClock::FrozenClock() { zel::freeze_clock(true); }

FrozenClock::~FrozenClock() {
  zel::advance_clock(-zel::clock_offset());
  zel::freeze_clock(false);
}

bool eventually(const std::function<bool()>& pred, Ms timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!pred())
    if (std::chrono::steady_clock::now() > deadline) return false;
    else std::this_thread::sleep_for(10ms);
  return true;
}

}  // namespace zt
