// How long disconnect() takes on an idle connected link, against the local messaging server
// over TLS on loopback. Beside it, in the same run, a request round trip: the time the link
// itself needs for one exchange, so the figure reads against the link and not against a guess.
// Usage: zel_disconnect_bench [runs=20]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/peer.h"
#include "zel/upload.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5))];
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
  zt::Cloud server;
  std::vector<double> took, round_trip;
  for (int i = 0; i < runs; ++i) {
    if (!zel::Upload::connect(server.params(), nullptr, nullptr, {}) || !server.sent("version", i, 10s)) {
      std::fprintf(stderr, "run %d: the library did not connect\n", i);
      return 1;
    }
    const std::string id = "rt-" + std::to_string(i);
    auto start = Clock::now();
    server.request("details", "", id);
    if (!server.reply(id, 5s)) return std::fprintf(stderr, "no reply to %s\n", id.c_str()), 1;
    round_trip.push_back(ms(Clock::now() - start));
    std::this_thread::sleep_for(300ms);  // idle: nothing queued either way
    start = Clock::now();
    const bool ok = zel::Upload::disconnect();
    took.push_back(ms(Clock::now() - start));
    if (!ok) return std::fprintf(stderr, "run %d: disconnect returned false\n", i), 1;
  }
  std::printf("disconnect of an idle link (%d runs): p50 %.1f ms  max %.1f ms\n", runs,
              percentile(took, 0.5), *std::max_element(took.begin(), took.end()));
  std::printf("reference, request round trip on the same links: p50 %.1f ms  max %.1f ms\n",
              percentile(round_trip, 0.5), *std::max_element(round_trip.begin(), round_trip.end()));
  return 0;
}
