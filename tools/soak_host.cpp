// A long-running NVR host for fault soaks: it stays connected through the public facade
// only, submits a fresh clip every few seconds and a motion and an access event every
// second, and says what the process looks like over time, so that a leak, a stuck clip
// or a lost connection shows up in its output. tools/soak.py drives it and breaks the
// cloud around it; it can also run alone against any local cloud.
//
//   zel_soak_host --server wss://127.0.0.1:PORT/ --ca ca.pem --cert client.pem
//                 --key client.key --mac 001122334455 [--seconds 600] [--clip-bytes N]
//                 [--clip-every 4] [--dir DIR] [--camera MAC] [--final-wait 60]
//
// Output: one JSON object per line on stdout.
//   {"link":"up"|"down","t":..}                         connection callbacks
//   {"clip":n,"state":s,"t":..,"start_time":..,"msg":..} every clip state
//   {"t":..,"rss_kb":..,"fds":..,"threads":..,...}      about every 10 s
//   {"resubmit":n,"as":m,"t":..}                        clip n sent again as clip m
//   {"log":..,"level":l,"t":..}                         the library's errors and warnings
//   {"final":true,...}                                  the summary, last
// Input on stdin: "resubmit N" sends clip N again (same camera, start time and bytes),
// as a recorder does with a clip whose upload failed; "events off" / "events on" stop
// and resume the events (a quiet recorder leaves its link idle); "baseline" lets the
// resource baseline be taken from now on (with --baseline-on-command 1, not before).
// The library may print lines of its own on stdout; readers skip what is not JSON.
#include <dirent.h>
#include <malloc.h>
#include <unistd.h>
#include <zel/upload.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const Clock::time_point g_started = Clock::now();

double elapsed_s() { return std::chrono::duration<double>(Clock::now() - g_started).count(); }

std::string fixed(double v, int decimals = 2) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

std::string json_string(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

// One printf per line: the library also writes to stdout, and a line must never be
// split by its output.
std::mutex g_out_mu;
void emit(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_out_mu);
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// ------------------------------------------------------------------ process figures

struct ProcSample {
  double t = 0;
  long rss_kb = -1;
  long rss_anon_kb = -1;
  long rss_file_kb = -1;   // library code and data pages: grows as new paths first run
  long heap_kb = -1;       // what the allocator has handed out and not had back
  long heap_free_kb = -1;  // freed, but kept by the allocator for reuse
  int fds = -1;
  int threads = -1;
  bool connected = false;
  bool busy = false;  // a clip was between credentials and confirmation
  std::map<std::string, int> fd_kinds;

  std::string json() const {
    std::string s = "{\"t\":" + fixed(t, 1) + ",\"rss_kb\":" + std::to_string(rss_kb) +
                    ",\"rss_anon_kb\":" + std::to_string(rss_anon_kb) +
                    ",\"rss_file_kb\":" + std::to_string(rss_file_kb) +
                    ",\"heap_kb\":" + std::to_string(heap_kb) +
                    ",\"heap_free_kb\":" + std::to_string(heap_free_kb) +
                    ",\"fds\":" + std::to_string(fds) + ",\"threads\":" + std::to_string(threads) +
                    ",\"connected\":" + (connected ? "true" : "false") +
                    ",\"busy\":" + (busy ? "true" : "false") + ",\"fd_kinds\":{";
    bool first = true;
    for (const auto& kv : fd_kinds) {
      if (!first) s += ",";
      first = false;
      s += json_string(kv.first) + ":" + std::to_string(kv.second);
    }
    return s + "}}";
  }
};

// Socket inode -> "ws:STATE", "blob:STATE" or "tcp:STATE", from the kernel's TCP tables,
// so that a socket left open can be told apart from a connection still in use.
std::map<std::string, std::string> tcp_sockets(int ws_port, int blob_port) {
  static const char* kStates[] = {"?",          "ESTABLISHED", "SYN_SENT",  "SYN_RECV",
                                  "FIN_WAIT1",  "FIN_WAIT2",   "TIME_WAIT", "CLOSE",
                                  "CLOSE_WAIT", "LAST_ACK",    "LISTEN",    "CLOSING"};
  std::map<std::string, std::string> out;
  for (const char* table : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues, timer, retr, uid, timeout, inode;
      fields >> slot >> local >> remote >> state >> queues >> timer >> retr >> uid >> timeout >>
          inode;
      if (inode.empty()) continue;
      size_t colon = remote.rfind(':');
      int port = colon == std::string::npos
                     ? -1
                     : static_cast<int>(std::strtol(remote.c_str() + colon + 1, nullptr, 16));
      int st = static_cast<int>(std::strtol(state.c_str(), nullptr, 16));
      std::string state_name = st >= 0 && st < 12 ? kStates[st] : "?";
      std::string peer = port == ws_port ? "ws" : port == blob_port ? "blob" : "tcp";
      out[inode] = peer + ":" + state_name;
    }
  }
  // Other sockets only by family: the library keeps none of its own, but its
  // dependencies may (name resolution, for one).
  for (const char* table : {"/proc/self/net/udp", "/proc/self/net/udp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string f[10];
      for (auto& x : f) fields >> x;
      if (!f[9].empty()) out[f[9]] = "udp";
    }
  }
  std::ifstream unix_table("/proc/self/net/unix");
  std::string line;
  std::getline(unix_table, line);
  while (std::getline(unix_table, line)) {
    std::istringstream fields(line);
    std::string f[7];
    for (auto& x : f) fields >> x;
    if (!f[6].empty()) out[f[6]] = "unix";
  }
  return out;
}

ProcSample sample_process(int ws_port, int blob_port) {
  ProcSample s;
  s.t = elapsed_s();
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) s.rss_kb = std::strtol(line.c_str() + 6, nullptr, 10);
    if (line.rfind("RssAnon:", 0) == 0) s.rss_anon_kb = std::strtol(line.c_str() + 8, nullptr, 10);
    if (line.rfind("RssFile:", 0) == 0) s.rss_file_kb = std::strtol(line.c_str() + 8, nullptr, 10);
    if (line.rfind("Threads:", 0) == 0)
      s.threads = static_cast<int>(std::strtol(line.c_str() + 8, nullptr, 10));
  }
  // Resident memory also counts what the allocator keeps cached after frees; the bytes
  // in use tell a leak from fragmentation.
  const struct mallinfo2 mi = mallinfo2();
  s.heap_kb = static_cast<long>((mi.uordblks + mi.hblkhd) / 1024);
  s.heap_free_kb = static_cast<long>(mi.fordblks / 1024);
  std::map<std::string, std::string> sockets = tcp_sockets(ws_port, blob_port);
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return s;
  const int own = dirfd(dir);
  s.fds = 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    if (std::atoi(entry->d_name) == own) continue;  // the listing itself
    ++s.fds;
    char target[256];
    std::string path = std::string("/proc/self/fd/") + entry->d_name;
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    std::string kind = "?";
    if (n > 0) {
      target[n] = '\0';
      std::string t = target;
      if (t.rfind("socket:[", 0) == 0) {
        std::string inode = t.substr(8, t.size() - 9);
        auto it = sockets.find(inode);
        kind = it != sockets.end() ? it->second : "socket";
      } else if (t.rfind("pipe:", 0) == 0) {
        kind = "pipe";
      } else if (t.rfind("anon_inode:", 0) == 0) {
        kind = t;
      } else if (t.rfind("/dev/", 0) == 0) {
        kind = t;
      } else {
        kind = "file";
      }
    }
    s.fd_kinds[kind] += 1;
  }
  closedir(dir);
  return s;
}

// ------------------------------------------------------------------------ clips

bool is_final(int state) {
  return state == zel::CLIP_REJECTED || state == zel::CLIP_CONFIRMED || state == zel::CLIP_FAILED;
}

// What the host remembers of its clips. It must stay small and bounded itself, or its
// own growth would hide (or fake) a leak in the library: a clip that is over leaves
// one byte (its last state) and a count in the tallies.
// Written from the library's worker thread too; nothing calls into the library while
// holding the lock, so the worker never waits on the host.
struct ClipBook {
  std::mutex mu;
  std::vector<int8_t> last;                  // by clip number; -1: not reported yet
  std::map<int, std::string> files;          // files not removed yet
  std::map<int, std::string> open_messages;  // last message of clips not over yet
  std::map<std::string, int> failed_messages;
  int after_final = 0;  // states reported after a final one: none should come
};
ClipBook g_book;

// Content does not matter to the library; a cheap generator keeps every file distinct.
bool write_clip(const std::string& path, int64_t size, uint64_t seed) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  std::vector<uint64_t> buf(1 << 14);
  uint64_t x = seed * 0x9E3779B97F4A7C15ULL + 1;
  int64_t left = size;
  bool ok = true;
  while (left > 0 && ok) {
    for (auto& w : buf) {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      w = x;
    }
    size_t chunk =
        static_cast<size_t>(std::min<int64_t>(left, static_cast<int64_t>(buf.size() * 8)));
    ok = std::fwrite(buf.data(), 1, chunk, f) == chunk;
    left -= static_cast<int64_t>(chunk);
  }
  return std::fclose(f) == 0 && ok;
}

std::mutex g_commands_mu;
std::vector<int> g_resubmits;  // clip numbers to send again
std::atomic<bool> g_events_on{true};
std::atomic<bool> g_baseline_asked{false};

void read_commands() {
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line == "events off" || line == "events on") g_events_on = line == "events on";
    if (line == "baseline") g_baseline_asked = true;
    if (line.rfind("resubmit ", 0) != 0) continue;
    std::lock_guard<std::mutex> lock(g_commands_mu);
    g_resubmits.push_back(std::atoi(line.c_str() + 9));
  }
}

int port_of_uri(const std::string& uri) {
  size_t scheme = uri.find("://");
  size_t host = scheme == std::string::npos ? 0 : scheme + 3;
  size_t slash = uri.find('/', host);
  std::string authority =
      uri.substr(host, slash == std::string::npos ? std::string::npos : slash - host);
  size_t colon = authority.rfind(':');
  if (colon == std::string::npos)
    return uri.rfind("wss", 0) == 0 || uri.rfind("https", 0) == 0 ? 443 : 80;
  return std::atoi(authority.c_str() + colon + 1);
}

int blob_port_from_env() {
  const char* domain = std::getenv("ZEL_BLOB_DOMAIN");
  if (domain == nullptr) return 443;
  const char* colon = std::strrchr(domain, ':');
  return colon != nullptr ? std::atoi(colon + 1) : 443;
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> arg;
  for (int i = 1; i + 1 < argc; i += 2) arg[argv[i]] = argv[i + 1];
  auto num = [&](const char* name, long fallback) {
    return arg[name].empty() ? fallback : std::strtol(arg[name].c_str(), nullptr, 10);
  };
  if (arg["--server"].empty() || arg["--mac"].empty()) {
    std::fprintf(stderr,
                 "usage: %s --server URI --mac MAC [--ca FILE] [--cert FILE] [--key FILE] "
                 "[--seconds N] [--clip-bytes N] [--clip-every S] [--dir DIR] [--camera MAC] "
                 "[--final-wait S] [--report-every S] [--warmup S] [--baseline-on-command 1] "
                 "[--block-bytes N]\n",
                 argv[0]);
    return 2;
  }
  const long seconds = num("--seconds", 600);
  const int64_t clip_bytes = num("--clip-bytes", 8 * 1024 * 1024);
  const long clip_every = std::max(1L, num("--clip-every", 4));
  const long final_wait = num("--final-wait", 60);
  const long report_every = std::max(1L, num("--report-every", 10));
  const long warmup = num("--warmup", 30);
  // The driver says when every kind of fault has been seen once; only then may the
  // baseline be taken, or one-off high-water marks would pass for growth.
  const bool baseline_on_command = num("--baseline-on-command", 0) != 0;
  double baseline_from = static_cast<double>(warmup);
  bool baseline_asked = false;
  const std::string dir = arg["--dir"].empty() ? "/tmp" : arg["--dir"];
  const std::string camera = arg["--camera"].empty() ? "0a1b2c3d4e5f" : arg["--camera"];
  const int ws_port = port_of_uri(arg["--server"]);
  const int blob_port = blob_port_from_env();

  std::atomic<bool> connected{false};
  std::atomic<int> connects{0}, disconnects{0}, statuses{0};
  long motion_sent = 0, access_sent = 0;

  const ProcSample before_connect = sample_process(ws_port, blob_port);

  // A real host registers every callback; these only count, and must return at once.
  zel::Upload::register_cloud_status([&](zel::CloudStatus) { ++statuses; });
  zel::Upload::register_list_actions([](std::string) { return zel::MsgResponse("[]"); });
  zel::Upload::register_perform_action([](zel::ActionInfo) {
    return zel::MsgResponse::Error("{\"error\":\"soak host performs nothing\"}");
  });
  zel::Upload::register_ota_update([](zel::UpdateInfo) {
    return zel::MsgResponse::Error("{\"error\":\"soak host takes no updates\"}");
  });

  // The library's errors and warnings, timed: an upload thread logs its failure when it
  // happens, while the clip's state-7 report waits for the worker's next pass.
  zel::Upload::set_log_levels(3);
  zel::Upload::register_log([](int level, const std::string& line) {
    emit("{\"log\":" + json_string(line.substr(0, 400)) + ",\"level\":" + std::to_string(level) +
         ",\"t\":" + fixed(elapsed_s(), 3) + "}");
  });

  // Block mode for the slow and resetting uplinks: 0 keeps one PUT per clip.
  if (!zel::Upload::set_block_upload(static_cast<uint64_t>(num("--block-bytes", 0)))) return 2;

  zel::CloudConnect cc;
  cc.server_uri = arg["--server"];
  cc.mac_address = arg["--mac"];
  cc.ca_path = arg["--ca"];
  cc.cert_path = arg["--cert"];
  cc.key_path = arg["--key"];
  cc.serial_number = "SOAK-0001";
  bool started = zel::Upload::connect(
      cc,
      [&] {
        connected = true;
        ++connects;
        emit("{\"link\":\"up\",\"t\":" + fixed(elapsed_s(), 3) + "}");
      },
      [&] {
        connected = false;
        ++disconnects;
        emit("{\"link\":\"down\",\"t\":" + fixed(elapsed_s(), 3) + "}");
      },
      {camera});
  if (!started) {
    std::fprintf(stderr, "connect refused to start\n");
    return 1;
  }
  // Two uploads side by side drain a backlog (after credentials were withheld) sooner.
  zel::Upload::set_upload_threads(2);

  // Start times lie two days back and step by the clip length, so every clip (and so
  // every blob name and credential key) is distinct for runs up to days long.
  const int64_t clip_base = static_cast<int64_t>(std::time(nullptr)) - 2 * 86400;
  const int64_t clip_span = clip_every;
  int clips_submitted = 0;

  g_book.last.reserve(static_cast<size_t>(seconds / clip_every + 16));
  // Clip `content` is clip n itself, or the earlier clip it sends again.
  auto submit_clip_as = [&](int content) {
    const int n = ++clips_submitted;
    const std::string path = dir + "/soak-clip-" + std::to_string(n) + ".mp4";
    const int64_t start_time = clip_base + static_cast<int64_t>(content) * clip_span;
    if (!write_clip(path, clip_bytes, static_cast<uint64_t>(content))) {
      emit("{\"error\":" + json_string("could not write " + path) + "}");
    }
    {
      std::lock_guard<std::mutex> lock(g_book.mu);
      if (g_book.last.size() <= static_cast<size_t>(n))
        g_book.last.resize(static_cast<size_t>(n) + 1, -1);
      g_book.files[n] = path;
    }
    zel::ClipInfo clip;
    clip.path = path;
    clip.camera_mac = camera;
    clip.start_time = start_time;
    clip.end_time = start_time + clip_span;
    clip.size = clip_bytes;
    clip.keyframe_times = {0, 2};
    clip.metadata = "soak-" + std::to_string(n);
    clip.callback = [n](int state, const zel::ClipInfo& info, std::string message) {
      {
        std::lock_guard<std::mutex> lock(g_book.mu);
        int8_t& last = g_book.last[static_cast<size_t>(n)];
        if (is_final(last)) g_book.after_final += 1;
        last = static_cast<int8_t>(state);
        if (is_final(state)) {
          g_book.open_messages.erase(n);
          if (state != zel::CLIP_CONFIRMED) g_book.failed_messages[message.substr(0, 160)] += 1;
        } else {
          g_book.open_messages[n] = message.substr(0, 160);
        }
      }
      emit("{\"clip\":" + std::to_string(n) + ",\"state\":" + std::to_string(state) + ",\"t\":" +
           fixed(elapsed_s(), 3) + ",\"start_time\":" + std::to_string(info.start_time) +
           ",\"camera\":" + json_string(info.camera_mac) +
           ",\"msg\":" + json_string(message.substr(0, 300)) + "}");
    };
    zel::UploadOpts opts;
    opts.upload_option = 1;
    opts.timeout_seconds = 20;
    opts.confirm_timeout = 60;
    zel::Upload::upload_clip(clip, opts);
    return n;
  };
  auto submit_clip = [&]() { submit_clip_as(clips_submitted + 1); };

  // Commands from the driver, read on a thread of their own so the loop never blocks
  // (detached: it may sit in read() when the process ends).
  std::thread(read_commands).detach();

  auto submit_events = [&]() {
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    ++motion_sent;
    // The sequence number rides in fields the library passes through untouched, so the
    // cloud side can tell exactly which events arrived.
    zel::Upload::upload_event(
        zel::EventInfo{1, camera, now - 1, now, "soak-m-" + std::to_string(motion_sent)});
    ++access_sent;
    zel::AccessEventInfo access;
    access.event_type = "door_opened";
    access.start_time = now - 1;
    access.end_time = now;
    access.device_uuid = "door-1";
    access.meta = "{\"seq\":" + std::to_string(access_sent) + "}";
    access.tag = "soak-a-" + std::to_string(access_sent);
    zel::Upload::upload_event(access);
  };

  // Files of clips that are over are removed at once: a long soak must not fill the disk.
  auto tidy = [&](bool all) {
    std::vector<std::string> doomed;
    {
      std::lock_guard<std::mutex> lock(g_book.mu);
      for (auto it = g_book.files.begin(); it != g_book.files.end();) {
        if (all || is_final(g_book.last[static_cast<size_t>(it->first)])) {
          doomed.push_back(it->second);
          it = g_book.files.erase(it);
        } else {
          ++it;
        }
      }
    }
    for (const auto& p : doomed) std::remove(p.c_str());
  };

  struct Census {
    int in_progress = 0;  // credentials asked .. confirmation outstanding
    int non_final = 0;
    int finals = 0;
  };
  auto census = [&]() {
    Census k;
    std::lock_guard<std::mutex> lock(g_book.mu);
    for (size_t n = 1; n < g_book.last.size(); ++n) {
      int s = g_book.last[n];
      if (is_final(s)) {
        ++k.finals;
      } else {
        ++k.non_final;
        if (s >= zel::CLIP_WAITING_CREDENTIALS) ++k.in_progress;
      }
    }
    return k;
  };

  auto take_sample = [&]() {
    ProcSample s = sample_process(ws_port, blob_port);
    s.connected = connected.load();
    s.busy = census().in_progress > 0;
    return s;
  };

  // The baseline is taken once the process has done everything once (connected, one
  // clip through) and at a moment without an upload in progress, so that it compares
  // with the end, which is taken in the same condition.
  ProcSample start_sample, mid_sample;
  bool have_start = false, have_mid = false;
  long next_event = 1, next_clip = 1, next_report = report_every, next_check = warmup;
  long next_mid_check = std::max(warmup, seconds / 2);

  const Clock::time_point run_end = g_started + std::chrono::seconds(seconds);
  while (Clock::now() < run_end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const double t = elapsed_s();
    if (t >= next_event) {
      next_event = static_cast<long>(t) + 1;
      if (g_events_on) submit_events();
    }
    if (t >= next_clip) {
      next_clip = static_cast<long>(t) + clip_every;
      submit_clip();
    }
    std::vector<int> again;
    {
      std::lock_guard<std::mutex> lock(g_commands_mu);
      again.swap(g_resubmits);
    }
    for (int n : again) {
      if (n < 1 || n > clips_submitted) continue;
      emit("{\"resubmit\":" + std::to_string(n) + ",\"as\":" + std::to_string(clips_submitted + 1) +
           ",\"t\":" + fixed(elapsed_s(), 3) + "}");
      submit_clip_as(n);
    }
    tidy(false);
    if (baseline_on_command && !baseline_asked && g_baseline_asked) {
      baseline_asked = true;
      baseline_from = t;
    }
    if (!have_start && t >= next_check && (!baseline_on_command || baseline_asked)) {
      next_check = static_cast<long>(t) + 1;
      Census k = census();
      bool ready = connected.load() && k.finals > 0 && k.in_progress == 0;
      if (ready || t >= baseline_from + 90) {
        start_sample = take_sample();
        have_start = true;
        emit("{\"baseline\":" + start_sample.json() + "}");
      }
    }
    // A second quiet sample half-way: growth from there to the end is what a leak
    // looks like once every fault has been seen at least once.
    if (have_start && !have_mid && t >= next_mid_check) {
      next_mid_check = static_cast<long>(t) + 1;
      Census k = census();
      if ((connected.load() && k.in_progress == 0) || t >= seconds / 2 + 90) {
        mid_sample = take_sample();
        have_mid = true;
        emit("{\"midpoint\":" + mid_sample.json() + "}");
      }
    }
    if (t >= next_report) {
      next_report = static_cast<long>(t) + report_every;
      ProcSample s = take_sample();
      Census k = census();
      emit("{\"t\":" + fixed(s.t, 1) + ",\"rss_kb\":" + std::to_string(s.rss_kb) +
           ",\"rss_anon_kb\":" + std::to_string(s.rss_anon_kb) + ",\"rss_file_kb\":" +
           std::to_string(s.rss_file_kb) + ",\"heap_kb\":" + std::to_string(s.heap_kb) +
           ",\"heap_free_kb\":" + std::to_string(s.heap_free_kb) +
           ",\"fds\":" + std::to_string(s.fds) + ",\"threads\":" + std::to_string(s.threads) +
           ",\"connected\":" + (s.connected ? "true" : "false") + ",\"clips\":" +
           std::to_string(clips_submitted) + ",\"clips_final\":" + std::to_string(k.finals) +
           ",\"events\":" + std::to_string(motion_sent + access_sent) + "}");
    }
  }

  // Submitting is over: give every clip its chance to end, bounded.
  emit("{\"draining\":true,\"t\":" + fixed(elapsed_s(), 1) + "}");
  const Clock::time_point drain_end = Clock::now() + std::chrono::seconds(final_wait);
  while (Clock::now() < drain_end && census().non_final > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    tidy(false);
  }
  // A short pause lets the last queued events leave too (one per worker pass).
  std::this_thread::sleep_for(std::chrono::seconds(2));
  ProcSample end_sample = take_sample();
  if (!have_start) start_sample = end_sample;
  if (!have_mid) mid_sample = end_sample;

  const double disconnect_started = elapsed_s();
  const bool disconnected = zel::Upload::disconnect();
  const double disconnect_s = elapsed_s() - disconnect_started;
  tidy(true);
  ProcSample after_disconnect = sample_process(ws_port, blob_port);

  std::map<int, int> finals;
  std::map<std::string, int> failed_messages;
  std::string stuck = "[";
  int non_final = 0, after_final = 0;
  {
    std::lock_guard<std::mutex> lock(g_book.mu);
    failed_messages = g_book.failed_messages;
    after_final = g_book.after_final;
    for (size_t n = 1; n < g_book.last.size(); ++n) {
      const int state = g_book.last[n];
      if (is_final(state)) {
        finals[state] += 1;
        continue;
      }
      if (non_final++ > 0) stuck += ",";
      auto msg = g_book.open_messages.find(static_cast<int>(n));
      stuck += "{\"clip\":" + std::to_string(n) + ",\"state\":" + std::to_string(state) +
               ",\"msg\":" + json_string(msg != g_book.open_messages.end() ? msg->second : "") +
               "}";
    }
  }
  stuck += "]";
  std::string finals_json = "{", messages_json = "{";
  for (const auto& kv : finals) {
    if (finals_json.size() > 1) finals_json += ",";
    finals_json += "\"" + std::to_string(kv.first) + "\":" + std::to_string(kv.second);
  }
  for (const auto& kv : failed_messages) {
    if (messages_json.size() > 1) messages_json += ",";
    messages_json += json_string(kv.first) + ":" + std::to_string(kv.second);
  }
  finals_json += "}";
  messages_json += "}";

  emit("{\"final\":true,\"t\":" + fixed(elapsed_s(), 1) + ",\"clips_submitted\":" +
       std::to_string(clips_submitted) + ",\"final_states\":" + finals_json +
       ",\"failed_messages\":" + messages_json + ",\"non_final\":" + std::to_string(non_final) +
       ",\"non_final_clips\":" + stuck + ",\"states_after_final\":" + std::to_string(after_final) +
       ",\"events_submitted\":{\"motion\":" + std::to_string(motion_sent) + ",\"access\":" +
       std::to_string(access_sent) + "},\"connects\":" + std::to_string(connects.load()) +
       ",\"disconnects\":" + std::to_string(disconnects.load()) +
       ",\"cloud_status_callbacks\":" + std::to_string(statuses.load()) +
       ",\"start\":" + start_sample.json() + ",\"mid\":" + mid_sample.json() +
       ",\"end\":" + end_sample.json() + ",\"before_connect\":" + before_connect.json() +
       ",\"after_disconnect\":" + after_disconnect.json() + ",\"disconnect_ok\":" +
       (disconnected ? "true" : "false") + ",\"disconnect_s\":" + fixed(disconnect_s, 2) + "}");
  return disconnected && non_final == 0 ? 0 : 1;
}
