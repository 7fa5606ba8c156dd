// Latency and idle cost of a connected library, measured against the local messaging
// server over TLS on loopback:
//   1. request round trip: the server sends "details" N times, one after another;
//   2. idle cost: CPU time of the process while connected with nothing to do;
//   3. intake cost: how long host threads are blocked in upload_event while the server
//      sends "details" back to back.
// Usage: zel_latency_bench [round_trips=1000] [idle_seconds=60] [events=10000]
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "messaging/messaging.h"
#include "support/peer.h"
#include "zel/upload.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

double cpu_seconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  const int round_trips = argc > 1 ? std::atoi(argv[1]) : 1000;
  const int idle_s = argc > 2 ? std::atoi(argv[2]) : 60;
  const int events = argc > 3 ? std::atoi(argv[3]) : 10000;

  zt::Cloud server;
  zt::Device device(server);
  if (!server.sent("version", 0, 10s)) {
    std::fprintf(stderr, "the library did not connect\n");
    return 1;
  }
  std::this_thread::sleep_for(1s);  // let the start-up messages drain

  // 1. Round trips. The fixture's own relay (a pipe to the server process and back)
  // is part of each figure, so the floor it shows is the library's plus a little.
  std::vector<double> rtt;
  for (int i = 0; i < round_trips; ++i) {
    std::string id = "rt-" + std::to_string(i);
    auto start = Clock::now();
    server.request("details", "", id);
    if (!server.reply(id, 5s)) {
      std::fprintf(stderr, "no reply to %s\n", id.c_str());
      return 1;
    }
    rtt.push_back(ms(Clock::now() - start));
  }
  std::printf("request round trip (%d x \"details\"): p50 %.1f ms  p99 %.1f ms  max %.1f ms"
              "  (floor: two 50 ms worker passes = 100 ms; goal p99 <= 110 ms)\n",
              round_trips, percentile(rtt, 0.5), percentile(rtt, 0.99),
              *std::max_element(rtt.begin(), rtt.end()));

  // 2. Idle cost.
  double cpu0 = cpu_seconds();
  auto wall0 = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(idle_s));
  double cpu = cpu_seconds() - cpu0;
  double wall = std::chrono::duration<double>(Clock::now() - wall0).count();
  std::printf("idle cost (%d s connected, nothing to do): %.3f s CPU = %.2f%% of one core"
              "  (goal < 1%%)\n",
              idle_s, cpu, 100.0 * cpu / wall);

  // 3. Intake cost under load.
  std::atomic<bool> load{true};
  std::thread requester([&] {
    for (int i = 0; load; ++i) {
      std::string id = "load-" + std::to_string(i);
      server.request("details", "", id);
      server.reply(id, 5s);
    }
  });
  std::vector<std::vector<double>> blocked(4);
  std::vector<std::thread> hosts;
  for (int t = 0; t < 4; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; i < events / 4; ++i) {
        auto start = Clock::now();
        zel::Upload::upload_event(zel::EventInfo{1, "cam", 1, 2, "thumb"});
        blocked[t].push_back(ms(Clock::now() - start));
        std::this_thread::sleep_for(1ms);
      }
    });
  }
  for (auto& h : hosts) h.join();
  load = false;
  requester.join();
  std::vector<double> all;
  for (auto& b : blocked) all.insert(all.end(), b.begin(), b.end());
  std::printf("intake cost (%d upload_event calls, 4 threads, requests back to back): "
              "p99 %.3f ms  max %.3f ms  (goal p99 < 1 ms; the maximum is one worker pass:"
              " the work mutex is held for a whole pass)\n",
              events, percentile(all, 0.99), *std::max_element(all.begin(), all.end()));
  zel::Upload::clear_queued_clips();
  return 0;
}
