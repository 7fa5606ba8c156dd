// A long-running NVR host for fault soaks (tools/soak drives it): on the public facade only,
// it submits a clip every few seconds and a motion and an access event every second, and says
// what the process looks like over time, so that a leak, a stuck clip or a lost link shows.
// Options: see main(). Output, a JSON object a line, each with "t" (seconds since the start):
// {"link"}, {"clip","state",..}, samples {"rss_kb",..}, {"baseline"}, {"midpoint"},
// {"resubmit","as"}, {"log","level"} (the library's errors and warnings), last {"final",..}.
// The library may print lines of its own; readers skip what is not JSON. Input, a line each:
// "resubmit N" sends clip N again, as a recorder does after a failed upload; "events off" /
// "events on"; "baseline" lets the resource baseline be taken from now on.
#include <cjson/cJSON.h>
#include <dirent.h>
#include <malloc.h>
#include <poll.h>
#include <unistd.h>
#include <zel/upload.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../../examples/host/options.h"

namespace {

using Clock = std::chrono::steady_clock;
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;
const Clock::time_point g_started = Clock::now();

double elapsed_s() { return std::chrono::duration<double>(Clock::now() - g_started).count(); }

cJSON* num(double v) { return cJSON_CreateNumber(v); }
cJSON* str(const std::string& v) { return cJSON_CreateString(v.c_str()); }
cJSON* copy(const Json& v) { return cJSON_Duplicate(v.get(), 1); }
void add(cJSON*) {}
template <typename... Rest>
void add(cJSON* o, const char* key, cJSON* value, Rest... rest) {
  cJSON_AddItemToObject(o, key, value);
  add(o, rest...);
}
// An object from key, value, key, value, ...
template <typename... Fields>
Json object(Fields... fields) {
  Json o(cJSON_CreateObject(), &cJSON_Delete);
  add(o.get(), fields...);
  return o;
}

// One write per line, stamped: the library writes to stdout too, and must never split a line.
std::mutex g_out_mu;
void emit(const Json& line) {
  if (!cJSON_HasObjectItem(line.get(), "t"))
    cJSON_AddItemToObject(line.get(), "t", num(std::round(elapsed_s() * 1000) / 1000));
  char* text = cJSON_PrintUnformatted(line.get());
  std::lock_guard<std::mutex> lock(g_out_mu);
  std::printf("%s\n", text);
  std::fflush(stdout);
  cJSON_free(text);
}

// Socket inode -> "ws:STATE", "blob:STATE" or "tcp:STATE", from the kernel's TCP table, so
// that a socket left open can be told from a connection still in use.
std::map<std::string, std::string> tcp_sockets(int ws_port, int blob_port) {
  static const char* kStates[] = {"?",          "ESTABLISHED", "SYN_SENT",  "SYN_RECV",
                                  "FIN_WAIT1",  "FIN_WAIT2",   "TIME_WAIT", "CLOSE",
                                  "CLOSE_WAIT", "LAST_ACK",    "LISTEN",    "CLOSING"};
  std::map<std::string, std::string> out;
  std::ifstream in("/proc/self/net/tcp");
  std::string line, f[10];
  for (std::getline(in, line); std::getline(in, line);) {
    std::istringstream fields(line);
    for (auto& x : f) fields >> x;
    int port = static_cast<int>(std::strtol(f[2].c_str() + f[2].rfind(':') + 1, nullptr, 16));
    long st = std::strtol(f[3].c_str(), nullptr, 16);
    const char* peer = port == ws_port ? "ws" : port == blob_port ? "blob" : "tcp";
    out[f[9]] = std::string(peer) + ":" + (st > 0 && st < 12 ? kStates[st] : "?");
  }
  return out;
}

// Resident memory also counts what the allocator keeps after frees; the heap's bytes in use
// (mallinfo2) tell a leak from fragmentation.
Json sample(int ws_port, int blob_port, bool connected) {
  const struct mallinfo2 mi = mallinfo2();
  Json s =
      object("heap_kb", num(static_cast<double>((mi.uordblks + mi.hblkhd) / 1024)), "connected",
             cJSON_CreateBool(connected), "t", num(std::round(elapsed_s() * 10) / 10));
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) add(s.get(), "rss_kb", num(std::atol(line.c_str() + 6)));
    if (line.rfind("Threads:", 0) == 0) add(s.get(), "threads", num(std::atol(line.c_str() + 8)));
  }
  std::map<std::string, std::string> socks = tcp_sockets(ws_port, blob_port);
  std::map<std::string, int> kinds;
  int fds = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == dirfd(dir)) continue;
      ++fds;
      char target[256] = {};
      std::string path = std::string("/proc/self/fd/") + entry->d_name;
      std::string t = readlink(path.c_str(), target, sizeof target - 1) > 0 ? target : "?";
      std::string kind = t.rfind("socket:[", 0) == 0 ? "socket"
                         : t.rfind("pipe:", 0) == 0  ? "pipe"
                         : t.rfind("anon_inode:", 0) == 0 || t.rfind("/dev/", 0) == 0 || t == "?"
                             ? t
                             : "file";
      auto sock = kind == "socket" ? socks.find(t.substr(8, t.size() - 9)) : socks.end();
      kinds[sock != socks.end() ? sock->second : kind] += 1;
    }
    closedir(dir);
  }
  Json k = object();
  for (const auto& [kind, n] : kinds) cJSON_AddItemToObject(k.get(), kind.c_str(), num(n));
  cJSON_AddItemToObject(s.get(), "fds", num(fds));
  cJSON_AddItemToObject(s.get(), "fd_kinds", k.release());
  return s;
}

bool is_final(int state) {
  return state == zel::CLIP_REJECTED || state == zel::CLIP_CONFIRMED || state == zel::CLIP_FAILED;
}

// What the host remembers of its clips stays small and bounded, or its own growth would hide
// (or fake) a leak in the library: one byte a clip, its last state (the driver keeps the
// rest from the lines). Written from the library's worker too; nothing calls into the
// library while holding the lock.
struct ClipBook {
  std::mutex mu;
  std::vector<int8_t> last{-1};  // by clip number (from 1); -1: not reported yet

  int count(bool final_ones, int from_state = -1) {
    std::lock_guard<std::mutex> lock(mu);
    return static_cast<int>(std::count_if(last.begin() + 1, last.end(), [&](int8_t s) {
      return is_final(s) == final_ones && s >= from_state;
    }));
  }
};
ClipBook g_book;

// The driver's commands, read between passes of the main loop (the only thread that reads
// them): waiting on stdin for at most `ms` is the loop's only pause, so no thread is needed.
std::vector<std::string> read_commands(int ms) {
  static std::string pending;
  static bool open = true;
  pollfd pfd{open ? 0 : -1, POLLIN, 0};
  std::vector<std::string> lines;
  if (poll(&pfd, 1, ms) <= 0) return lines;
  char buf[4096];
  ssize_t n = ::read(0, buf, sizeof buf);
  open = n > 0;
  pending.append(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  for (size_t eol; (eol = pending.find('\n')) != std::string::npos; pending.erase(0, eol + 1))
    lines.push_back(pending.substr(0, eol));
  return lines;
}

}  // namespace

int main(int argc, char** argv) {
  const Options arg(argc, argv);
  if (!arg.has_link()) {
    std::fprintf(stderr, "usage: %s --server URI --mac MAC [options, see the source]\n", argv[0]);
    return 2;
  }
  const long seconds = arg.number("--seconds", 600);
  const int64_t clip_bytes = arg.number("--clip-bytes", 8 * 1024 * 1024);
  const long clip_every = std::max(1L, arg.number("--clip-every", 4));
  // The driver says when every kind of fault has been seen once; only then may the baseline
  // be taken, or one-off high-water marks would pass for growth.
  const bool baseline_on_command = arg.number("--baseline-on-command", 0) != 0;
  const std::string dir = arg.text("--dir", "/tmp"), camera = arg.text("--camera", "0a1b2c3d4e5f");
  // The port after the last colon ("wss://127.0.0.1:PORT/", ".blob.localhost:PORT").
  auto port_of = [](const char* text) {
    return text && std::strrchr(text, ':') ? std::atoi(std::strrchr(text, ':') + 1) : 443;
  };
  const std::string server = arg.text("--server");
  const int ws_port = port_of(server.c_str()), blob_port = port_of(std::getenv("ZEL_BLOB_DOMAIN"));

  // Block mode for the slow and resetting uplinks: 0 keeps one PUT per clip.
  if (!zel::Upload::set_block_upload(static_cast<uint64_t>(arg.number("--block-bytes", 0)))) return 2;
  std::atomic<bool> connected{false};
  std::atomic<int> connects{0}, disconnects{0};
  long motion_sent = 0, access_sent = 0;
  auto take_sample = [&] { return sample(ws_port, blob_port, connected); };
  Json before_connect = take_sample();

  // A real host registers every callback; these do nothing, and return at once.
  zel::Upload::register_cloud_status([](zel::CloudStatus) {});
  zel::Upload::register_list_actions([](std::string) { return zel::MsgResponse("[]"); });
  zel::Upload::register_perform_action(
      [](zel::ActionInfo) { return zel::MsgResponse::Error("{}"); });
  zel::Upload::register_ota_update([](zel::UpdateInfo) { return zel::MsgResponse::Error("{}"); });
  // Errors and warnings, timed: an upload thread logs its failure when it happens, while
  // the clip's state-7 report waits for the worker's next pass.
  zel::Upload::set_log_levels(3);
  zel::Upload::register_log([](int level, const std::string& line) {
    emit(object("log", str(line.substr(0, 400)), "level", num(level)));
  });
  auto link = [&](bool up) {
    connected = up;
    ++(up ? connects : disconnects);
    emit(object("link", str(up ? "up" : "down")));
  };
  if (!zel::Upload::connect(
          arg.link("SOAK-0001"), [&] { link(true); }, [&] { link(false); }, {camera})) {
    std::fprintf(stderr, "connect refused to start\n");
    return 1;
  }
  // Two uploads side by side drain a backlog (after credentials were withheld) sooner.
  zel::Upload::set_upload_threads(2);

  // Start times lie two days back and step by the clip length, so every clip (and so every
  // blob name and credential key) is distinct for runs up to days long.
  const int64_t clip_base = static_cast<int64_t>(std::time(nullptr)) - 2 * 86400;
  int clips_submitted = 0;
  auto clip_path = [&](int n) { return dir + "/soak-clip-" + std::to_string(n) + ".mp4"; };
  // Clip `content` is clip n itself, or the earlier clip it sends again.
  auto submit_clip_as = [&](int content) {
    const int n = ++clips_submitted;
    const std::string path = clip_path(n);
    const int64_t start_time = clip_base + static_cast<int64_t>(content) * clip_every;
    // Content does not matter to the library: a sparse file of the size wanted.
    if (!std::ofstream(path, std::ios::binary).seekp(clip_bytes - 1).put('\0').flush())
      emit(object("error", str("could not write " + path)));
    {
      std::lock_guard<std::mutex> lock(g_book.mu);
      g_book.last.resize(std::max(g_book.last.size(), static_cast<size_t>(n) + 1), -1);
    }
    auto report = [n](int state, const zel::ClipInfo& info, std::string message) {
      if (is_final(state)) std::remove(info.path.c_str());  // a long soak must not fill the disk
      {
        std::lock_guard<std::mutex> lock(g_book.mu);
        g_book.last[static_cast<size_t>(n)] = static_cast<int8_t>(state);
      }
      emit(object("clip", num(n), "state", num(state), "start_time",
                  num(static_cast<double>(info.start_time)), "camera", str(info.camera_mac), "msg",
                  str(message.substr(0, 300))));
    };
    const std::vector<double> keyframes = {0, 2};
    const zel::UploadOpts opts{1, 20, 60, nullptr};  // credentials 20 s, the whole PUT 60 s
    zel::Upload::upload_clip(
        zel::ClipInfo{path, camera, start_time, start_time + clip_every, clip_bytes, keyframes,
                      "soak-" + std::to_string(n), report},
        opts);
  };

  auto submit_events = [&] {
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    // The sequence number rides in fields the library passes through untouched.
    ++motion_sent;
    zel::Upload::upload_event(
        zel::EventInfo{1, camera, now - 1, now, "soak-m-" + std::to_string(motion_sent)});
    ++access_sent;
    zel::Upload::upload_event(zel::AccessEventInfo{"door_opened", now - 1, now, "door-1", "",
                                                   "{\"seq\":" + std::to_string(access_sent) + "}",
                                                   "soak-a-" + std::to_string(access_sent)});
  };

  // The baseline is taken once the process has done everything once (connected, a clip
  // through) at a moment with no upload in progress, as the end is; a second such sample
  // half-way: growth from there is what a leak looks like once every fault has been seen.
  Json start_sample(nullptr, &cJSON_Delete), mid_sample(nullptr, &cJSON_Delete);
  bool events_on = true, baseline_asked = !baseline_on_command;
  // A sample every 10 s; the baseline no sooner than 30 s in.
  double baseline_from = 30, next_event = 1, next_clip = 1, next_report = 10, half = seconds / 2.0;
  for (double t = elapsed_s(); t < seconds; t = elapsed_s()) {
    for (const std::string& line : read_commands(100)) {
      if (line == "events off" || line == "events on") events_on = line == "events on";
      if (line == "baseline" && !baseline_asked)
        baseline_asked = true, baseline_from = std::max(baseline_from, elapsed_s());
      int n = line.rfind("resubmit ", 0) == 0 ? std::atoi(line.c_str() + 9) : 0;
      if (n < 1 || n > clips_submitted) continue;
      emit(object("resubmit", num(n), "as", num(clips_submitted + 1)));
      submit_clip_as(n);
    }
    t = elapsed_s();
    if (t >= next_event) {
      next_event = std::floor(t) + 1;
      if (events_on) submit_events();
    }
    if (t >= next_clip) {
      next_clip = std::floor(t) + static_cast<double>(clip_every);
      submit_clip_as(clips_submitted + 1);
    }
    const bool quiet = connected && g_book.count(false, zel::CLIP_WAITING_CREDENTIALS) == 0;
    if (!start_sample && baseline_asked && t >= baseline_from &&
        ((quiet && g_book.count(true) > 0) || t >= baseline_from + 90)) {
      start_sample = take_sample();
      emit(object("baseline", copy(start_sample)));
    } else if (start_sample && !mid_sample && t >= std::max(half, baseline_from) &&
               (quiet || t >= half + 90)) {
      mid_sample = take_sample();
      emit(object("midpoint", copy(mid_sample)));
    }
    if (t >= next_report) {
      next_report = std::floor(t) + 10;
      Json s = take_sample();
      add(s.get(), "clips", num(clips_submitted), "clips_final", num(g_book.count(true)), "events",
          num(motion_sent + access_sent));
      emit(s);
    }
  }

  // Submitting is over: every clip has its chance to end, bounded.
  const Clock::time_point drain_end =
      Clock::now() + std::chrono::seconds(arg.number("--final-wait", 60));
  while (Clock::now() < drain_end && g_book.count(false) > 0) {
    read_commands(250);  // a pause that also keeps the driver's pipe drained
  }
  // A short pause lets the last queued events leave too (one per worker pass).
  std::this_thread::sleep_for(std::chrono::seconds(2));
  Json end_sample = take_sample();

  const double disconnect_started = elapsed_s();
  const bool disconnected = zel::Upload::disconnect();
  const double disconnect_s = elapsed_s() - disconnect_started;
  for (int n = 1; n <= clips_submitted; ++n) std::remove(clip_path(n).c_str());
  Json after_disconnect = take_sample();

  // Every clip's outcome the driver has from the clip lines; these are the host's own figures.
  const int non_final = g_book.count(false);
  emit(object("final", cJSON_CreateTrue(), "clips_submitted", num(clips_submitted), "non_final",
              num(non_final), "events_submitted",
              object("motion", num(motion_sent), "access", num(access_sent)).release(), "connects",
              num(connects), "disconnects", num(disconnects), "start",
              copy(start_sample ? start_sample : end_sample), "mid",
              copy(mid_sample ? mid_sample : end_sample), "end", copy(end_sample), "before_connect",
              copy(before_connect), "after_disconnect", copy(after_disconnect), "disconnect_ok",
              cJSON_CreateBool(disconnected), "disconnect_s",
              num(std::round(disconnect_s * 100) / 100)));
  return disconnected && non_final == 0 ? 0 : 1;
}
