#include "support/cloud_server.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <memory>
#include <stdexcept>

#include "support/certs.h"

extern char** environ;

namespace zel_test {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kCommandTimeout = std::chrono::seconds(5);
constexpr const char* kPython = "/usr/bin/python3";

struct JsonDeleter {
  void operator()(cJSON* j) const { cJSON_Delete(j); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

std::string str_member(const cJSON* obj, const char* name) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, name);
  return cJSON_IsString(item) && item->valuestring != nullptr ? item->valuestring : "";
}

int int_member(const cJSON* obj, const char* name, int fallback) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, name);
  return cJSON_IsNumber(item) ? item->valueint : fallback;
}

bool bool_member(const cJSON* obj, const char* name) {
  return cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(obj, name));
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

Json parse_object(const std::string& text, const char* what) {
  Json json(cJSON_Parse(text.c_str()));
  if (!json || !cJSON_IsObject(json.get()))
    throw std::invalid_argument(std::string("CloudServer: ") + what +
                                " is not a JSON object: " + text);
  return json;
}

std::string print(const cJSON* json) {
  char* out = cJSON_PrintUnformatted(json);
  if (out == nullptr) throw std::runtime_error("CloudServer: cJSON_PrintUnformatted failed");
  std::string s(out);
  cJSON_free(out);
  return s;
}

// Writes all of data to a socket; false when the peer is gone (no SIGPIPE).
bool write_all(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

CloudServer::CloudServer(bool tls) : CloudServer(Options{tls, 0, {}}) {}

CloudServer::CloudServer(const Options& options)
    : options_(options), scheme_(options.tls ? "wss" : "ws") {
  std::lock_guard<std::mutex> lock(proc_mu_);
  start(options_.port);
}

CloudServer::~CloudServer() {
  try {
    stop();
  } catch (...) {
  }
}

int CloudServer::port() const {
  std::lock_guard<std::mutex> lock(mu_);
  return port_;
}

std::string CloudServer::uri() const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port()) + "/";
}

bool CloudServer::running() const {
  std::lock_guard<std::mutex> lock(proc_mu_);
  return pid_ > 0;
}

// ------------------------------------------------------------------ process

void CloudServer::start(int port) {
  std::vector<std::string> args = {kPython, std::string(ZEL_SOURCE_DIR) +
                                                "/tools/cloud/messaging_server.py",
                                   "--host", "127.0.0.1", "--port", std::to_string(port)};
  if (options_.tls) {
    const TestCerts& certs = test_certs();
    args.insert(args.end(), {"--cert", certs.server_cert, "--key", certs.server_key, "--ca",
                             certs.ca});
  } else {
    args.push_back("--plain");
  }
  args.insert(args.end(), options_.extra_args.begin(), options_.extra_args.end());
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  // stdin: a socket pair, so writing after the child died gives EPIPE and no SIGPIPE.
  int in[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0)
    throw std::runtime_error("CloudServer: socketpair failed");
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    ::close(in[0]);
    ::close(in[1]);
    throw std::runtime_error("CloudServer: pipe failed");
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[1], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int s : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) sigaddset(&defaults, s);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, kPython, &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  ::close(in[1]);
  ::close(out[1]);
  if (rc != 0) {
    ::close(in[0]);
    ::close(out[0]);
    throw std::runtime_error("CloudServer: cannot start " + std::string(kPython));
  }
  pid_ = pid;
  stdin_fd_ = in[0];

  unsigned generation;
  {
    std::lock_guard<std::mutex> lock(mu_);
    generation = ++generation_;
    listening_ = false;
    reader_done_ = false;
  }
  reader_ = std::thread(&CloudServer::reader_loop, this, out[0], generation);

  bool listening;
  {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait_for(lock, kStartTimeout, [&] { return listening_ || reader_done_; });
    listening = listening_;
  }
  if (!listening) {
    end_child(false);
    throw std::runtime_error("CloudServer: the messaging server did not start (port " +
                             std::to_string(port) + ")");
  }
}

void CloudServer::end_child(bool graceful) {
  if (pid_ <= 0) return;
  // Closing stdin makes the server leave on its own (closing connections with 1001).
  if (graceful) ::shutdown(stdin_fd_, SHUT_WR);
  else ::kill(pid_, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(graceful ? 5 : 3);
  bool reaped = false;
  while (std::chrono::steady_clock::now() < deadline) {
    pid_t r = ::waitpid(pid_, nullptr, WNOHANG);
    if (r == pid_ || (r < 0 && errno != EINTR)) {
      reaped = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!reaped) {
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  ::close(stdin_fd_);
  stdin_fd_ = -1;
  pid_ = -1;
  if (reader_.joinable()) reader_.join();
}

void CloudServer::stop(bool graceful) {
  std::lock_guard<std::mutex> lock(proc_mu_);
  end_child(graceful);
}

void CloudServer::restart() {
  std::lock_guard<std::mutex> lock(proc_mu_);
  end_child(false);
  start(port());
}

// ------------------------------------------------------------------- events

void CloudServer::reader_loop(int fd, unsigned generation) {
  std::string buffer;
  char chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    buffer.append(chunk, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t nl; (nl = buffer.find('\n', start)) != std::string::npos; start = nl + 1)
      handle_line(buffer.substr(start, nl - start), generation);
    buffer.erase(0, start);
  }
  ::close(fd);
  std::lock_guard<std::mutex> lock(mu_);
  if (generation == generation_) reader_done_ = true;
  cv_.notify_all();
}

void CloudServer::handle_line(const std::string& line, unsigned generation) {
  Json json(cJSON_Parse(line.c_str()));
  if (!json || !cJSON_IsObject(json.get())) return;  // not ours: ignore
  const cJSON* obj = json.get();
  Event e;
  e.kind = str_member(obj, "event");
  e.raw = line;
  e.binary = bool_member(obj, "binary");
  e.code = int_member(obj, "code", 0);
  e.sent_code = int_member(obj, "sent_code", 0);
  e.conn = int_member(obj, "conn", 0);
  e.path = str_member(obj, "path");
  e.origin = str_member(obj, "origin");
  e.client_cert = bool_member(obj, "client_cert");
  e.automatic = bool_member(obj, "auto");
  e.text = e.kind == "error" ? str_member(obj, "message") : str_member(obj, "text");
  const cJSON* headers = cJSON_GetObjectItemCaseSensitive(obj, "headers");
  const cJSON* h = nullptr;
  cJSON_ArrayForEach(h, headers) {
    if (cJSON_IsString(h) && h->string != nullptr) e.headers[lower(h->string)] = h->valuestring;
  }
  if (e.kind == "message" || e.kind == "sent") {
    Json body(cJSON_Parse(e.text.c_str()));
    if (body && cJSON_IsObject(body.get())) {
      e.subject = str_member(body.get(), "subject");
      e.original_id = str_member(body.get(), "original_id");
    }
  }
  const cJSON* seq = cJSON_GetObjectItemCaseSensitive(obj, "seq");

  std::lock_guard<std::mutex> lock(mu_);
  if (e.kind == "listening" && generation == generation_) {
    port_ = int_member(obj, "port", 0);
    listening_ = true;
  }
  if (cJSON_IsNumber(seq) && (e.kind == "sent" || e.kind == "done" || e.kind == "error")) {
    long s = static_cast<long>(seq->valuedouble);
    acks_[s] = e.kind != "error";
    ack_texts_[s] = e.text;
  }
  events_.push_back(std::move(e));
  cv_.notify_all();
}

std::vector<CloudServer::Event> CloudServer::events() const {
  std::lock_guard<std::mutex> lock(mu_);
  return events_;
}

std::vector<std::string> CloudServer::messages() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<std::string> out;
  for (const Event& e : events_)
    if (e.kind == "message") out.push_back(e.text);
  return out;
}

void CloudServer::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  events_.clear();
}

bool CloudServer::wait_for(const std::function<bool(const std::vector<Event>&)>& pred,
                           std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, timeout, [&] { return pred(events_); });
}

std::optional<std::string> CloudServer::wait_for_message(
    const std::function<bool(const Event&)>& match, size_t nth, std::chrono::milliseconds timeout) {
  std::optional<std::string> found;
  wait_for(
      [&](const std::vector<Event>& events) {
        size_t seen = 0;
        for (const Event& e : events) {
          if (e.kind != "message" || !match(e)) continue;
          if (seen++ == nth) {
            found = e.text;
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

std::optional<std::string> CloudServer::wait_for_subject(const std::string& subject,
                                                         std::chrono::milliseconds timeout,
                                                         size_t nth) {
  return wait_for_message([&](const Event& e) { return e.subject == subject; }, nth, timeout);
}

std::optional<std::string> CloudServer::wait_for_reply(const std::string& original_id,
                                                       std::chrono::milliseconds timeout,
                                                       size_t nth) {
  return wait_for_message([&](const Event& e) { return e.original_id == original_id; }, nth,
                          timeout);
}

int CloudServer::count_subject(const std::string& subject) const {
  std::lock_guard<std::mutex> lock(mu_);
  int n = 0;
  for (const Event& e : events_)
    if (e.kind == "message" && e.subject == subject) ++n;
  return n;
}

bool CloudServer::wait_for_connects(size_t n, std::chrono::milliseconds timeout) {
  return wait_for(
      [&](const std::vector<Event>& events) {
        size_t seen = 0;
        for (const Event& e : events)
          if (e.kind == "connect") ++seen;
        return seen >= n;
      },
      timeout);
}

std::optional<int> CloudServer::wait_for_close(std::chrono::milliseconds timeout, size_t nth) {
  std::optional<int> code;
  wait_for(
      [&](const std::vector<Event>& events) {
        size_t seen = 0;
        for (const Event& e : events) {
          if (e.kind != "close") continue;
          if (seen++ == nth) {
            code = e.code;
            return true;
          }
        }
        return false;
      },
      timeout);
  return code;
}

// ----------------------------------------------------------------- commands

bool CloudServer::run_command(const std::string& json_object, std::string* sent_text) {
  Json cmd = parse_object(json_object, "command");
  std::lock_guard<std::mutex> proc_lock(proc_mu_);
  if (pid_ <= 0) return false;
  long seq = next_seq_++;
  cJSON_DeleteItemFromObjectCaseSensitive(cmd.get(), "seq");
  cJSON_AddNumberToObject(cmd.get(), "seq", static_cast<double>(seq));
  if (!write_all(stdin_fd_, print(cmd.get()) + "\n")) return false;

  std::unique_lock<std::mutex> lock(mu_);
  if (!cv_.wait_for(lock, kCommandTimeout, [&] { return acks_.count(seq) > 0; })) return false;
  bool ok = acks_[seq];
  if (sent_text != nullptr) *sent_text = ack_texts_[seq];
  acks_.erase(seq);
  ack_texts_.erase(seq);
  return ok;
}

bool CloudServer::send_command(const std::string& json_object) {
  return run_command(json_object, nullptr);
}

bool CloudServer::send_text(const std::string& text) {
  Json cmd(cJSON_CreateObject());
  cJSON_AddStringToObject(cmd.get(), "cmd", "send");
  cJSON_AddStringToObject(cmd.get(), "text", text.c_str());
  return run_command(print(cmd.get()), nullptr);
}

bool CloudServer::send_binary(const std::string& text) {
  Json cmd(cJSON_CreateObject());
  cJSON_AddStringToObject(cmd.get(), "cmd", "send_binary");
  cJSON_AddStringToObject(cmd.get(), "text", text.c_str());
  return run_command(print(cmd.get()), nullptr);
}

bool CloudServer::send_fragments(const std::vector<std::string>& parts, bool empty_final) {
  Json cmd(cJSON_CreateObject());
  cJSON_AddStringToObject(cmd.get(), "cmd", "send_fragments");
  cJSON* list = cJSON_AddArrayToObject(cmd.get(), "parts");
  for (const std::string& p : parts) cJSON_AddItemToArray(list, cJSON_CreateString(p.c_str()));
  cJSON_AddBoolToObject(cmd.get(), "empty_final", empty_final);
  return run_command(print(cmd.get()), nullptr);
}

std::string CloudServer::request(const std::string& subject, const std::string& content_json,
                                 const std::string& id) {
  Json cmd(cJSON_CreateObject());
  cJSON_AddStringToObject(cmd.get(), "cmd", "request");
  cJSON_AddStringToObject(cmd.get(), "subject", subject.c_str());
  if (!content_json.empty()) {
    cJSON* content = cJSON_Parse(content_json.c_str());
    if (content == nullptr)
      throw std::invalid_argument("CloudServer::request: content is not JSON: " + content_json);
    cJSON_AddItemToObject(cmd.get(), "content", content);
  }
  if (!id.empty()) cJSON_AddStringToObject(cmd.get(), "id", id.c_str());
  std::string sent;
  if (!run_command(print(cmd.get()), &sent)) return "";
  Json envelope(cJSON_Parse(sent.c_str()));
  return envelope ? str_member(envelope.get(), "id") : "";
}

bool CloudServer::close(int code, const std::string& reason) {
  Json cmd(cJSON_CreateObject());
  cJSON_AddStringToObject(cmd.get(), "cmd", "close");
  cJSON_AddNumberToObject(cmd.get(), "code", code);
  cJSON_AddStringToObject(cmd.get(), "reason", reason.c_str());
  return run_command(print(cmd.get()), nullptr);
}

bool CloudServer::drop() { return run_command(R"({"cmd":"drop"})", nullptr); }

bool CloudServer::set(const std::string& flags_json) {
  Json cmd = parse_object(flags_json, "set flags");
  cJSON_DeleteItemFromObjectCaseSensitive(cmd.get(), "cmd");
  cJSON_AddStringToObject(cmd.get(), "cmd", "set");
  return run_command(print(cmd.get()), nullptr);
}

}  // namespace zel_test
