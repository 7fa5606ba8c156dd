// What the library costs a recorder: a host on the public facade only that measures itself
// between steps it is told to take. tools/footprint.py drives it against the local cloud.
//
//   zel_footprint_host --server wss://127.0.0.1:PORT/ --ca ca.pem --cert client.pem
//                      --key client.key --mac 001122334455
//
// Commands on stdin, one a line; each answers with one JSON object on stdout:
//   connect          connects and waits for the link      {"connected":true|false}
//   offline          connects to a server that never answers, so the link stays down
//   sample           {"rss_kb":..,"threads":..,"heap":..}  (heap: bytes malloc has handed out)
//   upload N FILE    N upload threads upload N clips of FILE at once; the largest resident
//                    size and thread count while they run  {"uploaded":k,"peak_rss_kb":..,...}
//   events N         N motion events queued; heap bytes per event   {"per_event":..}
//   clips N FILE     N clips of FILE queued; heap bytes per clip    {"per_clip":..}
//   quit             disconnects and exits
// The library may print lines of its own on stdout; readers skip what is not JSON.
#include <malloc.h>
#include <sys/stat.h>
#include <zel/upload.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace {

using namespace std::chrono_literals;

std::mutex mu;
std::condition_variable changed;
bool linked = false;
int finished = 0, uploaded = 0;

long status_field(const char* name) {  // a number from /proc/self/status ("VmRSS", "Threads")
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(std::string(name) + ":", 0) == 0)
      return std::stol(line.substr(line.find(':') + 1));
  return -1;
}

size_t heap() { return mallinfo2().uordblks; }

void say(const std::string& json) { std::cout << json << std::endl; }

int64_t file_size(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

zel::ClipInfo clip_of(const std::string& path, int64_t start) {
  zel::ClipInfo clip;
  clip.path = path, clip.camera_mac = "0A1B2C3D4E5F";
  clip.start_time = start, clip.end_time = start + 60, clip.size = file_size(path);
  clip.callback = [](int state, const zel::ClipInfo&, const std::string&) {
    if (state != zel::CLIP_UPLOADED && state != zel::CLIP_FAILED) return;
    std::lock_guard<std::mutex> lock(mu);
    ++finished, uploaded += state == zel::CLIP_UPLOADED;
    changed.notify_all();
  };
  return clip;
}

// Heap handed out per item by n calls of add. While the link is down the worker leaves the
// queues alone, so what they hold is all there is to count.
double per_item(int n, const std::function<void(int)>& add) {
  const size_t before = heap();
  for (int i = 0; i < n; ++i) add(i);
  return static_cast<double>(heap() - before) / n;
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> opt;
  for (int i = 1; i + 1 < argc; i += 2) opt[argv[i]] = argv[i + 1];
  zel::CloudConnect cc;
  cc.server_uri = opt["--server"], cc.mac_address = opt["--mac"];
  cc.ca_path = opt["--ca"], cc.cert_path = opt["--cert"], cc.key_path = opt["--key"];
  zel::Upload::set_log_levels(1);
  const auto on_connect = [] {
    std::lock_guard<std::mutex> l(mu);
    linked = true;
    changed.notify_all();
  };
  const auto on_disconnect = [] {
    std::lock_guard<std::mutex> l(mu);
    linked = false;
  };

  int64_t start = 1614600000;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string cmd, path;
    int n = 0;
    words >> cmd >> n >> path;
    if (cmd == "connect" || cmd == "offline") {
      zel::Upload::connect(cc, on_connect, on_disconnect, {"0A1B2C3D4E5F"});
      std::unique_lock<std::mutex> lock(mu);
      const bool up = cmd == "connect" && changed.wait_for(lock, 60s, [] { return linked; });
      say(std::string("{\"connected\":") + (up ? "true" : "false") + "}");
    } else if (cmd == "sample") {
      say("{\"rss_kb\":" + std::to_string(status_field("VmRSS")) + ",\"threads\":" +
          std::to_string(status_field("Threads")) + ",\"heap\":" + std::to_string(heap()) + "}");
    } else if (cmd == "upload") {
      zel::Upload::set_upload_threads(static_cast<unsigned>(n));
      zel::UploadOpts opts;
      opts.confirm_timeout = 900;  // 256 MB clips side by side take longer than the default
      {
        std::lock_guard<std::mutex> lock(mu);
        finished = uploaded = 0;
      }
      for (int i = 0; i < n; ++i) zel::Upload::upload_clip(clip_of(path, start += 60), opts);
      long peak_rss = 0, peak_threads = 0;
      std::unique_lock<std::mutex> lock(mu);
      const auto deadline = std::chrono::steady_clock::now() + 900s;
      do {  // sampled every 100 ms until every clip has its outcome
        peak_rss = std::max(peak_rss, status_field("VmRSS"));
        peak_threads = std::max(peak_threads, status_field("Threads"));
      } while (!changed.wait_for(lock, 100ms, [n] { return finished == n; }) &&
               std::chrono::steady_clock::now() < deadline);
      say("{\"uploaded\":" + std::to_string(uploaded) + ",\"peak_rss_kb\":" +
          std::to_string(peak_rss) + ",\"peak_threads\":" + std::to_string(peak_threads) + "}");
    } else if (cmd == "events") {
      const double per = per_item(n, [](int i) {
        zel::EventInfo event{1, "0A1B2C3D4E5F", 1614600000 + i, 1614600010 + i, ""};
        zel::Upload::upload_event(event);
      });
      say("{\"per_event\":" + std::to_string(per) +
          ",\"queued\":" + std::to_string(zel::Upload::stats().motion_events_queued) + "}");
    } else if (cmd == "clips") {
      const double per =
          per_item(n, [&](int) { zel::Upload::upload_clip(clip_of(path, start += 60)); });
      say("{\"per_clip\":" + std::to_string(per) +
          ",\"queued\":" + std::to_string(zel::Upload::stats().clips_queued) + "}");
    } else if (cmd == "quit") {
      break;
    }
  }
  zel::Upload::disconnect();
  return 0;
}
