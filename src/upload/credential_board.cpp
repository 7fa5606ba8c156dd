#include "upload/credential_board.h"

namespace zel {

void CredentialBoard::ask(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex);
  Entry& e = entries[key];
  e = Entry();
  e.asked_at = Clock::now();
}

CredentialBoard::Wait CredentialBoard::wait(const std::string& key, int64_t timeout_s,
                                            std::chrono::milliseconds slice,
                                            CloudCredentials& fresh) {
  std::unique_lock<std::mutex> lock(mutex);
  auto ready = [&] {
    auto it = entries.find(key);
    return stopped || it == entries.end() || it->second.has_fresh;
  };
  changed.wait_for(lock, slice, ready);
  if (stopped) return Wait::STOPPED;
  auto it = entries.find(key);
  if (it == entries.end()) return Wait::STOPPED;
  Entry& e = it->second;
  if (e.has_fresh) {
    fresh = e.fresh;
    entries.erase(it);  // answered: nothing more to send after a reconnection
    return Wait::FRESH;
  }
  const Clock::time_point from = e.epoch < 0 ? e.asked_at : e.sent_at;
  return Clock::now() - from >= std::chrono::seconds(timeout_s) ? Wait::EXPIRED : Wait::WAITING;
}

void CredentialBoard::forget(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex);
  entries.erase(key);
}

bool CredentialBoard::sleep(std::chrono::milliseconds d) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_for(lock, d, [this] { return stopped; });
}

std::vector<std::string> CredentialBoard::take_requests(int64_t link_epoch) {
  std::vector<std::string> keys;
  std::lock_guard<std::mutex> lock(mutex);
  for (auto& [key, e] : entries) {
    if (e.has_fresh || e.epoch == link_epoch) continue;
    // A request sent on a link that went down since may have been lost with it.
    e.epoch = link_epoch;
    e.sent_at = Clock::now();
    keys.push_back(key);
  }
  return keys;
}

bool CredentialBoard::deliver(const std::string& key, const CloudCredentials& credentials) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(key);
    if (it == entries.end()) return false;
    it->second.fresh = credentials;
    it->second.has_fresh = true;
  }
  changed.notify_all();
  return true;
}

void CredentialBoard::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopped = true;
  }
  changed.notify_all();
}

}  // namespace zel
