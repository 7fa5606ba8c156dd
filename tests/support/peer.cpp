#include "support/peer.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>

#include "foundation/json_ptr.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace zt {

namespace {
std::string member(const cJSON* obj, const char* name) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, name);
  return cJSON_IsString(item) ? item->valuestring : "";
}
}  // namespace

std::string Event::str(const char* name) const {
  cJSON* root = cJSON_Parse(raw.c_str());
  std::string v = member(root, name);
  return cJSON_Delete(root), v;
}

long Event::num(const char* name) const {
  cJSON* root = cJSON_Parse(raw.c_str());
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, name);
  long v = cJSON_IsNumber(item) ? static_cast<long>(item->valuedouble) : -1;
  return cJSON_Delete(root), v;
}

Peer::Peer(const std::string& program, const std::vector<std::string>& args) {
  int to[2], from[2];
  if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  // The peer's stderr goes to a nameless file: the reason if it does not start; shown at its end.
  if ((err_ = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)) < 0) throw std::runtime_error("stderr");
  std::vector<std::string> words = {"/usr/bin/python3", ZEL_SOURCE_DIR "/tools/cloud/" + program};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  if ((pid_ = fork()) == 0) {
    dup2(to[0], 0), dup2(from[1], 1), dup2(err_, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (pid_ < 0) throw std::runtime_error("fork");
  close(to[0]), close(from[1]);
  in_ = to[1];
  reader_ = std::thread([this, fd = from[0]] {
    std::string buf;
    char chunk[65536];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) {
      buf.append(chunk, static_cast<size_t>(n));
      for (size_t nl; (nl = buf.find('\n')) != std::string::npos; buf.erase(0, nl + 1)) {
        Event e;
        e.raw = buf.substr(0, nl);
        e.kind = e.str("event"), e.text = e.str("text"), e.seq = e.num("seq");
        cJSON* inner = cJSON_Parse(e.text.c_str());
        e.subject = member(inner, "subject");
        e.reply = cJSON_GetObjectItemCaseSensitive(inner, "original_id") != nullptr;
        cJSON_Delete(inner);
        std::lock_guard<std::mutex> lock(mu_);
        events_.push_back(std::move(e));
        cv_.notify_all();
      }
    }
    close(fd);
    std::lock_guard<std::mutex> lock(mu_);
    ended_ = true;
    cv_.notify_all();
  });
  auto up = wait([](const Event& e) { return e.kind == "listening"; }, 0, 60s);
  if (!up) {
    // A throw, not an exit: the test fails with the reason and the next one runs; the
    // child and the readers go first, as a destructor would have taken them.
    std::string why = kPeerDidNotStart + program + ": " + stderr_text();
    stop();
    throw std::runtime_error(why);
  }
  up_ = *up;
}

Peer::~Peer() { stop(); }

void Peer::stop() {
  close(in_);
  for (int i = 0; i < 100 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i) usleep(50000);
  if (kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  reader_.join();
  std::fputs(stderr_text().c_str(), stderr);
  close(err_);
}

std::string Peer::stderr_text() const {
  std::string text(8192, '\0');
  return text.substr(0, static_cast<size_t>(std::max<ssize_t>(0, pread(err_, &text[0], text.size(), 0))));
}

Event Peer::command(const std::string& json_object, Ms timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  long seq = ++seq_;
  lock.unlock();
  std::string line = "{\"seq\":" + std::to_string(seq) + "," + json_object.substr(1) + "\n";
  if (write(in_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return Event();
  return wait([seq](const Event& e) { return e.seq == seq; }, 0, timeout).value_or(Event());
}

std::optional<Event> Peer::wait(const std::function<bool(const Event&)>& match, size_t nth, Ms timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  std::optional<Event> found;
  cv_.wait_for(lock, timeout, [&] {
    size_t seen = 0;
    for (const Event& e : events_)
      if (match(e) && seen++ == nth) return found = e, true;
    return ended_;
  });
  return found;
}

size_t Peer::count(const std::function<bool(const Event&)>& match) {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<size_t>(std::count_if(events_.begin(), events_.end(), match));
}

void Peer::line(const std::string& text) {
  std::string l = text + "\n";
  EXPECT_EQ(write(in_, l.data(), l.size()), static_cast<ssize_t>(l.size()));
}

bool Peer::ok(const std::string& json_object, Ms timeout) {
  std::string kind = command(json_object, timeout).kind;
  return kind == "sent" || kind == "done";
}

const std::string kVersion =
    "{\"version\":\"22.1.0\",\"buildNumber\":1,\"buildDate\":\"202007080000\","
    "\"architecture\":\"pelmo_linux64\",\"ui\":\"none\"}";
const std::string kOkay = "{\"status\":\"OK\",\"details\":\"OK\"}";

std::string cert(const char* name) { return std::string(ZEL_TEST_CERTS "/") + name; }

Cloud::Cloud(bool tls, const std::string& flags, const std::string& certificate)
    : Peer("messaging_server.py", tls ? std::vector<std::string>{"--cert", cert((certificate + ".pem").c_str()), "--key",
                                                                 cert((certificate + ".key").c_str()), "--ca", cert("ca.pem"),
                                                                 "--set", flags}
                                      : std::vector<std::string>{"--plain", "--set", flags}),
      uri(std::string(tls ? "wss" : "ws") + "://127.0.0.1:" + std::to_string(listening().num("port")) + "/") {}

zel::CloudConnect Cloud::params(const char* mac) const {
  zel::CloudConnect cc;
  cc.server_uri = uri, cc.mac_address = mac, cc.ca_path = cert("ca.pem");
  cc.cert_path = cert("client.pem"), cc.key_path = cert("client.key");
  return cc;
}

std::optional<std::string> Cloud::sent(const std::string& subject, size_t nth, Ms timeout) {
  auto e = wait([&](const Event& e) { return e.kind == "message" && e.subject == subject && !e.reply; },
                nth, timeout);
  return e ? std::optional<std::string>(e->text) : std::nullopt;
}

std::optional<std::string> Cloud::reply(const std::string& id, Ms timeout) {
  std::string tag = "\"original_id\":\"" + id + "\"";
  auto e = wait([&](const Event& e) { return e.reply && e.text.find(tag) != std::string::npos; }, 0, timeout);
  return e ? std::optional<std::string>(e->text) : std::nullopt;
}

void Cloud::request(const std::string& subject, const std::string& content_json, const std::string& id) {
  std::string content = content_json.empty() ? "" : ",\"content\":" + content_json;
  EXPECT_TRUE(ok("{\"cmd\":\"request\",\"subject\":\"" + subject + "\",\"id\":\"" + id + "\"" + content + "}"));
}

long Cloud::close_code(size_t nth, Ms timeout) {
  auto e = wait([](const Event& e) { return e.kind == "close"; }, nth, timeout);
  return e ? e->num("code") : -1;
}

Peer& storage() {
  static Peer peer("blob_storage.py", {"--machine", "--certs", ZEL_TEST_CERTS, "--container", kUploadContainer});
  static int pointed = setenv("ZEL_BLOB_DOMAIN", peer.listening().str("blob_domain").c_str(), 1);
  return pointed == 0 ? peer : peer;
}

std::string storage_token(const std::string& permissions) {
  return storage().command("{\"cmd\":\"sas\",\"permissions\":\"" + permissions + "\"}").str("token");
}

std::string storage_flags(const std::string& token, const std::string& secret) {
  return "{\"auto_storage\":true,\"auto_ack\":true,\"storage_token\":\"" + token + "\",\"storage_secret\":\"" +
         secret + "\"}";
}

Device::Device(Cloud& cloud, const zel::CloudConnect& cc, std::list<std::string> cameras) {
  EXPECT_TRUE(zel::Upload::connect(cc, [this] { ++connects; }, [this] { ++disconnects; }, cameras));
  EXPECT_TRUE(cloud.sent("version", 0, 10s));
}

Device::~Device() {
  EXPECT_TRUE(zel::Upload::disconnect());
  zel::Messaging::get().reset_for_tests();
  auto& link = zel::WebSocketClient::instance();  // what is left there belongs to no later test
  while (link.inbound_message_ready()) link.get_inbound_message();
}

std::string stable(const std::string& text) {
  static const std::regex id("\"id\":\"([^\"]*?)[0-9]{16}\""), date("\"date\":\"[0-9-]{10}T[0-9:]{8}Z\"");
  return std::regex_replace(std::regex_replace(text, id, "\"id\":\"$1<us>\""), date, "\"date\":\"<date>\"");
}

std::string envelope(const std::string& to, const std::string& subject, const std::string& content,
                     const std::string& reply_to) {
  return std::string("{\"id\":\"") + kMacLower + "<us>\",\"from\":\"" + kMacLower + "\",\"to\":\"" + to +
         "\",\"subject\":\"" + subject + "\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":" + content +
         (reply_to.empty() ? "" : ",\"original_id\":\"" + reply_to + "\"") + "}";
}

std::string with_device_type(std::string text, const std::string& type) {
  return text.insert(text.find(",\"content\":"), ",\"fromDeviceType\":\"" + type + "\"");
}

zel::ClipCallback Reports::callback() {
  return [this](int state, const zel::ClipInfo&, std::string message) {
    std::lock_guard<std::mutex> lock(mu);
    seen.emplace_back(state, std::move(message));
  };
}

States Reports::states() {
  std::lock_guard<std::mutex> lock(mu);
  States out;
  for (const auto& r : seen) out.push_back(r.first);
  return out;
}

std::string Reports::message(int state) {
  std::lock_guard<std::mutex> lock(mu);
  auto it = std::find_if(seen.begin(), seen.end(), [&](const auto& r) { return r.first == state; });
  return it == seen.end() ? "<never>" : it->second;
}

bool Reports::wait(int state, Ms timeout) {
  return eventually([&] { return message(state) != "<never>"; }, timeout);
}

LogCapture::LogCapture() {
  zel::set_log_observer([this](int level, const std::string& line) {
    std::lock_guard<std::mutex> lock(mu);
    lines.push_back(std::to_string(level) + "|" + line);
  });
}

LogCapture::~LogCapture() { zel::set_log_observer(nullptr); }

size_t LogCapture::count(const std::string& line) {
  std::lock_guard<std::mutex> lock(mu);
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

bool LogCapture::wait(const std::string& line, size_t n, Ms timeout) {
  return eventually([&] { return count(line) >= n; }, timeout);
}

FrozenClock::FrozenClock() { zel::freeze_clock(true); }

FrozenClock::~FrozenClock() { zel::advance_clock(-zel::clock_offset()), zel::freeze_clock(false); }

TempDir::TempDir() : path(std::filesystem::temp_directory_path() / "zel-test-XXXXXX") { mkdtemp(&path[0]); }

TempDir::~TempDir() { std::filesystem::remove_all(path); }

std::string TempDir::file(const std::string& name, const std::string& bytes) const {
  std::ofstream(path + "/" + name, std::ios::binary) << bytes;
  return path + "/" + name;
}

std::string read_file(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

std::string sha256_hex(const std::string& bytes) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_Digest(bytes.data(), bytes.size(), md, &len, EVP_sha256(), nullptr);
  std::string out;
  for (unsigned i = 0; i < len; ++i) out += {"0123456789abcdef"[md[i] >> 4], "0123456789abcdef"[md[i] & 15]};
  return out;
}

std::string openssl_enc(const std::string& path, const std::string& password) {
  std::string out = path + ".openssl", cmd = "openssl enc -aes-192-cbc -md md5 -nosalt -pass 'pass:" +
                                             password + "' -in '" + path + "' -out '" + out + "'";
  std::string bytes = std::system(cmd.c_str()) == 0 ? read_file(out) : "<openssl failed>";
  std::remove(out.c_str());
  return bytes;
}

std::string json_quote(const std::string& text) {
  cJSON* s = cJSON_CreateString(text.c_str());
  std::string out = zel::print_unformatted(s);
  return cJSON_Delete(s), out;
}

long next_attempt_now() {
  eventually([] { return zel::Upload::stats().next_attempt_at != 0; });
  const long wait = std::max(0L, static_cast<long>(zel::Upload::stats().next_attempt_at - zel::time_now()));
  return zel::advance_clock(wait), wait;
}

bool eventually(const std::function<bool()>& pred, Ms timeout) {
  for (auto end = std::chrono::steady_clock::now() + timeout; !pred(); std::this_thread::sleep_for(10ms))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

}  // namespace zt
