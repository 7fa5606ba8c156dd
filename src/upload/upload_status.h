// What an upload thread reports about one clip: 4 started, then 5 uploaded or 7 failed.
#pragma once

#include <cstdint>
#include <string>

namespace zel {

// The outcome of every upload that disconnect ends, running or still queued.
constexpr const char* kUploadInterrupted = "Upload interrupted by disconnect";

struct UploadStatus {
  std::string key;      // camera MAC followed by the decimal start second
  std::string message;  // "" for the start notice, the uploader's text otherwise
  int64_t bytes = 0;    // bytes uploaded on success, 0 otherwise
  int32_t state = 0;
};

}  // namespace zel
