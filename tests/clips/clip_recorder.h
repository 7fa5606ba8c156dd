// Records what a clip's callback reports, for tests to wait on and compare.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zel/records.h"

namespace clip_test {

class ClipRecorder {
 public:
  zel::ClipCallback callback() {
    return [this](int state, const zel::ClipInfo&, std::string message) {
      std::lock_guard<std::mutex> lock(mu_);
      reports_.emplace_back(state, std::move(message));
      cv_.notify_all();
    };
  }
  std::vector<int> states() const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<int> out;
    for (const auto& r : reports_) out.push_back(r.first);
    return out;
  }
  std::string message_of(int state) const {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto& r : reports_)
      if (r.first == state) return r.second;
    return "<never reported>";
  }
  bool wait_for_state(int state, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, [&] {
      for (const auto& r : reports_)
        if (r.first == state) return true;
      return false;
    });
  }
  bool wait_for_final(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, [&] {
      for (const auto& r : reports_)
        if (r.first == zel::CLIP_CONFIRMED || r.first == zel::CLIP_FAILED ||
            r.first == zel::CLIP_REJECTED)
          return true;
      return false;
    });
  }

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::pair<int, std::string>> reports_;
};

}  // namespace clip_test
