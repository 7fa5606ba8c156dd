// The local cloud messaging server (tools/cloud/messaging_server.py) run as a child
// process on 127.0.0.1, with its JSON-lines event stream collected in the background.
//
// Every method may be called from any thread. Predicates given to wait_for() run with
// the event lock held: they must not call back into the CloudServer.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zel_test {

class CloudServer {
 public:
  struct Options {
    bool tls = true;                      // false: plain ws:// (--plain)
    int port = 0;                         // 0: the server picks a free port
    std::vector<std::string> extra_args;  // appended to the command line
  };

  struct Event {
    std::string kind;       // listening, connect, message, close, sent, done, error
    std::string text;       // message/sent: the exact frame text; error: the message
    bool binary = false;    // message/sent
    int code = 0;           // close: the client's close code (1006 when none came)
    int sent_code = 0;      // close: the code the server sent (0 when it sent none)
    int conn = 0;           // connect/message/close: connection number (per process)
    std::string path;       // connect
    std::string origin;     // connect: Origin header ("" when absent)
    bool client_cert = false;                   // connect: a valid client cert was shown
    std::map<std::string, std::string> headers;  // connect: names lower-cased
    std::string subject;    // message/sent: "subject" of the JSON text, if any
    std::string original_id;  // message: "original_id" of the JSON text (a reply), if any
    bool automatic = false;  // sent: an automatic reply (pong, version, ...)
    std::string raw;        // the whole event line
  };

  // Starts the server with the test certificates (server cert, key and CA from
  // test_certs()) and waits up to 10 s for it to listen. Throws std::runtime_error.
  explicit CloudServer(bool tls = true);
  explicit CloudServer(const Options& options);
  ~CloudServer();
  CloudServer(const CloudServer&) = delete;
  CloudServer& operator=(const CloudServer&) = delete;

  int port() const;
  std::string uri() const;  // "wss://127.0.0.1:PORT/" or "ws://127.0.0.1:PORT/"

  // Recorded events (kept across restart(); clear() forgets them).
  std::vector<Event> events() const;
  std::vector<std::string> messages() const;  // texts of "message" events, in order
  void clear();

  bool wait_for(const std::function<bool(const std::vector<Event>&)>& pred,
                std::chrono::milliseconds timeout);
  // Raw text of the nth (0-based) received message that `match` accepts.
  std::optional<std::string> wait_for_message(const std::function<bool(const Event&)>& match,
                                              size_t nth, std::chrono::milliseconds timeout);
  // Raw text of the nth (0-based) received message whose "subject" equals subject.
  std::optional<std::string> wait_for_subject(const std::string& subject,
                                              std::chrono::milliseconds timeout,
                                              size_t nth = 0);
  int count_subject(const std::string& subject) const;
  // Raw text of the nth received reply (a message whose "original_id" equals id).
  std::optional<std::string> wait_for_reply(const std::string& original_id,
                                            std::chrono::milliseconds timeout,
                                            size_t nth = 0);
  bool wait_for_connects(size_t n, std::chrono::milliseconds timeout);
  // Close code of the nth (0-based) "close" event.
  std::optional<int> wait_for_close(std::chrono::milliseconds timeout, size_t nth = 0);

  // Sends one command object (a JSON object text) and waits up to 5 s for the server's
  // answer. True when the server did it ("sent"/"done"), false on "error" or timeout.
  bool send_command(const std::string& json_object);
  bool send_text(const std::string& text);
  bool send_binary(const std::string& text);
  // One text message in several frames; the last part carries FIN, or with empty_final
  // every part is non-final and an empty final frame follows (what websockets does).
  bool send_fragments(const std::vector<std::string>& parts, bool empty_final = false);
  // Sends a request envelope; content_json is JSON text ("" = no "content" member),
  // id "" lets the server number it. Returns the request id, "" on failure.
  std::string request(const std::string& subject, const std::string& content_json = "",
                      const std::string& id = "");
  bool close(int code, const std::string& reason = "");
  bool drop();                                // abort the TCP connection, no close frame
  bool set(const std::string& flags_json);    // e.g. R"({"auto_pong":false})"

  // Ends the server. Default: SIGTERM, so the device sees the TCP connection end with
  // no close frame (like a crash). graceful: the server closes with 1001 and exits.
  void stop(bool graceful = false);
  void restart();  // stop (not graceful) if running, then start again on the same port
  bool running() const;

 private:
  void start(int port);                    // proc_mu_ held
  void end_child(bool graceful);           // proc_mu_ held
  bool run_command(const std::string& json_object, std::string* sent_text);
  void reader_loop(int fd, unsigned generation);
  void handle_line(const std::string& line, unsigned generation);

  const Options options_;
  std::string scheme_;

  // Process state: guarded by proc_mu_ (commands are serialised by it too).
  mutable std::mutex proc_mu_;
  pid_t pid_ = -1;
  int stdin_fd_ = -1;
  std::thread reader_;
  long next_seq_ = 1;

  // Event state: guarded by mu_.
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Event> events_;
  std::map<long, bool> acks_;
  std::map<long, std::string> ack_texts_;
  int port_ = 0;
  unsigned generation_ = 0;     // increments with every start
  bool listening_ = false;      // the current generation printed "listening"
  bool reader_done_ = false;    // the current generation's stdout ended
};

}  // namespace zel_test
