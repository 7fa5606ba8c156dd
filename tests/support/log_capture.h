// Collects the library's log lines (whatever ZEL_DEBUG says) for the life of the object.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace zel_test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  size_t count(const std::string& exact_line) const;
  size_t count_containing(const std::string& fragment) const;
  bool wait_for(const std::string& exact_line, std::chrono::milliseconds timeout, size_t n = 1);
  bool wait_for_containing(const std::string& fragment, std::chrono::milliseconds timeout);
  int level_of(const std::string& exact_line) const;  // -1 when never logged

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::pair<int, std::string>> lines_;
};

}  // namespace zel_test
