// What a host takes on its command line ("--name value" pairs) and the link settings made
// from them; the example host and the soak host (tools/soak/host.cpp) share it.
#pragma once

#include <zel/upload.h>

#include <cstdlib>
#include <map>
#include <string>

struct Options {
  std::map<std::string, std::string> values;

  Options(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) values[argv[i]] = argv[i + 1];
  }
  std::string text(const std::string& name, const std::string& fallback = "") const {
    auto it = values.find(name);
    return it == values.end() || it->second.empty() ? fallback : it->second;
  }
  long number(const std::string& name, long fallback) const {
    std::string v = text(name);
    return v.empty() ? fallback : std::strtol(v.c_str(), nullptr, 10);
  }
  bool has_link() const { return !text("--server").empty() && !text("--mac").empty(); }
  zel::CloudConnect link(const std::string& serial) const {
    zel::CloudConnect cc;
    cc.server_uri = text("--server");
    cc.mac_address = text("--mac");
    cc.ca_path = text("--ca");
    cc.cert_path = text("--cert");
    cc.key_path = text("--key");
    cc.serial_number = serial;
    return cc;
  }
};
