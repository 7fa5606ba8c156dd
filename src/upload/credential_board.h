// Where a block upload asks for fresh storage credentials in the middle of a clip and
// waits for them. The upload thread posts the request; the messaging worker takes it on
// its pass and sends the clip's storage access request (again after a reconnection, if
// the answer has not come); the answer is handed to the waiting upload. The pool's stop
// wakes every wait here at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "zel/records.h"

namespace zel {

class CredentialBoard {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Wait { FRESH, STOPPED, EXPIRED, WAITING };

  // Upload thread: asks for fresh credentials for the clip under key.
  void ask(const std::string& key);
  // Upload thread: waits at most slice. FRESH fills fresh; EXPIRED once timeout_s have
  // passed since the request went out (or since it was asked, while it could not go out).
  Wait wait(const std::string& key, int64_t timeout_s, std::chrono::milliseconds slice,
            CloudCredentials& fresh);
  // Upload thread: the upload under key is over.
  void forget(const std::string& key);
  // Upload thread: sleeps for d; true at once when the pool stops.
  bool sleep(std::chrono::milliseconds d);

  // Worker: the keys whose request goes out now (never sent, or sent before the link
  // counted as connection number link_epoch came up).
  std::vector<std::string> take_requests(int64_t link_epoch);
  // Worker: credentials for key; true when an upload was waiting for them.
  bool deliver(const std::string& key, const CloudCredentials& credentials);
  // The pool's stop: every wait returns now, and from now on.
  void stop();

 private:
  struct Entry {
    Clock::time_point asked_at;
    Clock::time_point sent_at;
    int64_t epoch = -1;  // connection the request went out on; -1: not yet
    bool has_fresh = false;
    CloudCredentials fresh;
  };
  std::mutex mutex;  // guards entries and stopped
  std::condition_variable changed;
  std::map<std::string, Entry> entries;
  bool stopped = false;
};

}  // namespace zel
