// One recorder of a fleet, as small as a host can be: it connects, says on standard output
// when it tries, when its link comes up and when it goes, and disconnects when standard
// input closes. tools/fleet.py runs hundreds of them against one messaging server.
//
//   zel_fleet_host SERVER_URI CA_FILE MAC
#include <zel/upload.h>

#include <cstdio>
#include <ctime>
#include <iostream>
#include <string>

namespace {

// Wall-clock seconds, so that the driver can line up the lines of every host.
void say(const char* what) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::printf("%s %ld.%03ld\n", what, static_cast<long>(now.tv_sec), now.tv_nsec / 1000000);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s SERVER_URI CA_FILE MAC\n", argv[0]);
    return 2;
  }
  zel::CloudConnect cc;
  cc.server_uri = argv[1];
  cc.ca_path = argv[2];
  cc.mac_address = argv[3];
  // The library's own lines stay out of the way; an attempt is the one the driver counts.
  zel::Upload::register_log([](int, const std::string& line) {
    if (line == "Attempting to connect to messaging server...") say("attempt");
  });
  if (!zel::Upload::connect(cc, [] { say("up"); }, [] { say("down"); }, {})) return 1;
  for (std::string line; std::getline(std::cin, line);) {
  }
  return zel::Upload::disconnect() ? 0 : 1;
}
