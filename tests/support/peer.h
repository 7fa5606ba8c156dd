// A tools/cloud program run in its machine mode: JSON lines on stdin (commands) and
// stdout (events), collected by a reader thread. Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zt {

using namespace std::chrono_literals;
using Ms = std::chrono::milliseconds;

struct Event {
  std::string raw;
  std::string kind;     // "event"
  std::string text;     // "text" (messages), the frame as it crossed
  std::string subject;  // "subject" of text, when it is a JSON object
  bool reply = false;   // text carries "original_id"
  long seq = -1;        // "seq": the command this event answers
  std::string str(const char* member) const;
  long num(const char* member) const;  // -1 when absent
};

class Peer {
 public:
  // Runs tools/cloud/<program> with args and waits for its "listening" event.
  Peer(const std::string& program, const std::vector<std::string>& args);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  const Event& listening() const { return listening_; }
  // Sends {"cmd":...} with a sequence number and returns the event that answers it
  // (kind "error" or "" on time-out).
  Event command(const std::string& json_object, Ms timeout = 10s);
  // The nth event (0-based) that match accepts, waiting for it if need be.
  std::optional<Event> wait(const std::function<bool(const Event&)>& match, size_t nth = 0,
                            Ms timeout = 5s);
  size_t count(const std::function<bool(const Event&)>& match);

 private:
  void read_loop(int fd);

  pid_t pid_ = -1;
  int in_ = -1;
  long seq_ = 0;
  std::thread reader_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Event> events_;
  bool ended_ = false;
  Event listening_;
};

}  // namespace zt
