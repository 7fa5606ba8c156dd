// What the outbox costs, beside the same run without it, against the local messaging
// server over TLS on loopback:
//   1. upload_event on the host thread: p50 and p99 while events flow at about 1000/s;
//   2. the worker's event pass (settle the outbox, take one event, build and queue its
//      envelope), timed around the stages under the work lock;
//   3. bytes the journal writes per event (records, watermarks and copies), and the
//      process's block-device writes per event from /proc/self/io (0 on tmpfs).
// Usage: zel_outbox_bench [events=2000] [passes=500] [outbox_dir=/var/tmp/zel-outbox-bench]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "messaging/messaging.h"
#include "outbox/outbox.h"
#include "support/peer.h"
#include "zel/upload.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double us(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

uint64_t block_writes() {
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value)
    if (key == "write_bytes:") return value;
  return 0;
}

struct Figures {
  double event_p50, event_p99, pass_p50, pass_p99, journal_per_event, disk_per_event;
};

Figures run(zt::Cloud& server, int events, int passes) {
  zel::Messaging& m = zel::Messaging::get();
  zt::Device device(server);
  std::this_thread::sleep_for(1s);  // the start-up messages drain
  zel::Outbox* box = m.get_outbox();
  const uint64_t journal0 = box ? box->get_journal().appended_bytes() : 0;
  const uint64_t disk0 = block_writes();

  std::vector<double> intake;
  for (int i = 0; i < events; ++i) {
    const auto start = Clock::now();
    zel::Upload::upload_event(zel::EventInfo{1, "0a1b2c3d4e5f", 1614600000 + i, 1614600001 + i, "thumb.jpg"});
    intake.push_back(us(Clock::now() - start));
    std::this_thread::sleep_for(1ms);
  }
  zt::eventually([] { return zel::Upload::stats().motion_events_queued == 0; }, 120s);

  std::vector<double> pass;
  for (int i = 0; i < passes; ++i) {
    zel::Upload::upload_event(zel::EventInfo{1, "0a1b2c3d4e5f", 1614700000 + i, 1614700001 + i, "thumb.jpg"});
    {
      std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
      const auto start = Clock::now();
      m.settle_outbox();
      m.process_event();
      pass.push_back(us(Clock::now() - start));
    }
    std::this_thread::sleep_for(5ms);
  }
  // Everything proven and retired before the figures are taken.
  zt::eventually([] { return zel::Upload::stats().outbox_records == 0; }, 30s);
  const double n = events + passes;
  return {percentile(intake, 0.5), percentile(intake, 0.99), percentile(pass, 0.5), percentile(pass, 0.99),
          box ? static_cast<double>(box->get_journal().appended_bytes() - journal0) / n : 0,
          static_cast<double>(block_writes() - disk0) / n};
}

void print(const char* name, const Figures& f) {
  std::printf("%-12s upload_event p50 %6.1f us  p99 %6.1f us | event pass p50 %6.1f us  p99 %6.1f us |"
              " journal %6.0f B/event  block device %6.0f B/event\n",
              name, f.event_p50, f.event_p99, f.pass_p50, f.pass_p99, f.journal_per_event, f.disk_per_event);
}

}  // namespace

int main(int argc, char** argv) {
  const int events = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int passes = argc > 2 ? std::atoi(argv[2]) : 500;
  const std::string dir = argc > 3 ? argv[3] : "/var/tmp/zel-outbox-bench";
  std::filesystem::remove_all(dir);

  zt::Cloud server;
  const Figures without = run(server, events, passes);
  if (!zel::Upload::set_outbox(dir, 64 << 20)) {
    std::fprintf(stderr, "the outbox could not be opened in %s\n", dir.c_str());
    return 1;
  }
  const Figures with = run(server, events, passes);
  std::printf("%d events at ~1000/s, then %d timed passes (goal: upload_event p99 <= 200 us with the outbox)\n",
              events, passes);
  print("no outbox", without);
  print("outbox", with);
  std::printf("outbox left: %lld bytes, %lld records, %lld dropped\n",
              static_cast<long long>(zel::Upload::stats().outbox_bytes),
              static_cast<long long>(zel::Upload::stats().outbox_records),
              static_cast<long long>(zel::Upload::stats().outbox_dropped));
  std::filesystem::remove_all(dir);
  return 0;
}
