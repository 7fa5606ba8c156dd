#include "support/log_capture.h"

#include <algorithm>

#include "foundation/log.h"

namespace zel_test {

LogCapture::LogCapture() {
  zel::set_log_observer([this](int level, const std::string& line) {
    std::lock_guard<std::mutex> lock(mu_);
    lines_.emplace_back(level, line);
    cv_.notify_all();
  });
}

LogCapture::~LogCapture() { zel::set_log_observer(nullptr); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<std::string> out;
  for (const auto& l : lines_) out.push_back(l.second);
  return out;
}

size_t LogCapture::count(const std::string& exact_line) const {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(),
                                            [&](const auto& l) { return l.second == exact_line; }));
}

size_t LogCapture::count_containing(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) {
    return l.second.find(fragment) != std::string::npos;
  }));
}

bool LogCapture::wait_for(const std::string& exact_line, std::chrono::milliseconds timeout,
                          size_t n) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, timeout, [&] {
    return static_cast<size_t>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) {
             return l.second == exact_line;
           })) >= n;
  });
}

bool LogCapture::wait_for_containing(const std::string& fragment,
                                     std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mu_);
  return cv_.wait_for(lock, timeout, [&] {
    return std::any_of(lines_.begin(), lines_.end(), [&](const auto& l) {
      return l.second.find(fragment) != std::string::npos;
    });
  });
}

int LogCapture::level_of(const std::string& exact_line) const {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& l : lines_)
    if (l.second == exact_line) return l.first;
  return -1;
}

}  // namespace zel_test
