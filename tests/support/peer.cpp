#include "support/peer.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace zt {

namespace {
std::string member(const cJSON* obj, const char* name) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(obj, name);
  return cJSON_IsString(item) ? item->valuestring : "";
}

Event parse_event(const std::string& line) {
  Event e;
  e.raw = line;
  cJSON* root = cJSON_Parse(line.c_str());
  e.kind = member(root, "event");
  e.text = member(root, "text");
  const cJSON* seq = cJSON_GetObjectItemCaseSensitive(root, "seq");
  if (cJSON_IsNumber(seq)) e.seq = static_cast<long>(seq->valuedouble);
  cJSON_Delete(root);
  cJSON* inner = cJSON_Parse(e.text.c_str());
  if (cJSON_IsObject(inner)) {
    e.subject = member(inner, "subject");
    e.reply = cJSON_GetObjectItemCaseSensitive(inner, "original_id") != nullptr;
  }
  cJSON_Delete(inner);
  return e;
}
}  // namespace

std::string Event::str(const char* name) const {
  cJSON* root = cJSON_Parse(raw.c_str());
  std::string v = member(root, name);
  cJSON_Delete(root);
  return v;
}

long Event::num(const char* name) const {
  cJSON* root = cJSON_Parse(raw.c_str());
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, name);
  long v = cJSON_IsNumber(item) ? static_cast<long>(item->valuedouble) : -1;
  cJSON_Delete(root);
  return v;
}

Peer::Peer(const std::string& program, const std::vector<std::string>& args) {
  int to_child[2], from_child[2];
  if (pipe2(to_child, O_CLOEXEC) != 0 || pipe2(from_child, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  std::vector<std::string> argv_s = {"/usr/bin/python3",
                                     std::string(ZEL_SOURCE_DIR) + "/tools/cloud/" + program};
  argv_s.insert(argv_s.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argv_s) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(to_child[0], 0);
    dup2(from_child[1], 1);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(to_child[0]);
  close(from_child[1]);
  in_ = to_child[1];
  reader_ = std::thread([this, fd = from_child[0]] { read_loop(fd); });
  auto up = wait([](const Event& e) { return e.kind == "listening"; }, 0, 60s);
  if (!up) throw std::runtime_error(program + " did not start");
  listening_ = *up;
}

Peer::~Peer() {
  close(in_);  // the program ends when its input does
  for (int i = 0; i < 100 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i) usleep(50000);
  if (kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  reader_.join();
}

void Peer::read_loop(int fd) {
  std::string buf;
  char chunk[65536];
  ssize_t n;
  while ((n = read(fd, chunk, sizeof chunk)) > 0) {
    buf.append(chunk, static_cast<size_t>(n));
    size_t nl;
    while ((nl = buf.find('\n')) != std::string::npos) {
      Event e = parse_event(buf.substr(0, nl));
      buf.erase(0, nl + 1);
      std::lock_guard<std::mutex> lock(mu_);
      events_.push_back(std::move(e));
      cv_.notify_all();
    }
  }
  close(fd);
  std::lock_guard<std::mutex> lock(mu_);
  ended_ = true;
  cv_.notify_all();
}

Event Peer::command(const std::string& json_object, Ms timeout) {
  long seq;
  {
    std::lock_guard<std::mutex> lock(mu_);
    seq = ++seq_;
  }
  std::string line = "{\"seq\":" + std::to_string(seq) + "," + json_object.substr(1) + "\n";
  if (write(in_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return Event();
  auto answer = wait([seq](const Event& e) { return e.seq == seq; }, 0, timeout);
  return answer ? *answer : Event();
}

std::optional<Event> Peer::wait(const std::function<bool(const Event&)>& match, size_t nth,
                                Ms timeout) {
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
  size_t n = 0;
  for (const Event& e : events_) n += match(e) ? 1 : 0;
  return n;
}

}  // namespace zt
