// A minimal HTTPS endpoint on 127.0.0.1 that records each request (head and body) and
// answers with a chosen response. It shows what the emulator cannot: the exact headers
// sent, and answers the emulator never gives (300, an error code only in the body, ...).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/certs.h"

namespace upload_test {

struct RecorderResponse {
  std::string status_line = "HTTP/1.1 201 Created";
  std::string extra_headers;  // each ending in "\r\n"
  std::string body;
  bool send_continue = true;  // answer "Expect: 100-continue" at once
};

class HttpsRecorder {
 public:
  using Response = RecorderResponse;
  struct Request {
    std::string head;
    std::string body;
  };

  HttpsRecorder() : HttpsRecorder(Response()) {}
  explicit HttpsRecorder(Response response) : response_(std::move(response)) {
    const zel_test::TestCerts& certs = zel_test::test_certs();
    ctx_ = SSL_CTX_new(TLS_server_method());
    if (ctx_ == nullptr ||
        SSL_CTX_use_certificate_chain_file(ctx_, certs.server_cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx_, certs.server_key.c_str(), SSL_FILETYPE_PEM) != 1)
      throw std::runtime_error("recorder: cannot load the server certificate");
    listen_fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 8) != 0)
      throw std::runtime_error("recorder: cannot listen");
    socklen_t len = sizeof addr;
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }

  ~HttpsRecorder() {
    stop_ = true;
    thread_.join();
    close(listen_fd_);
    SSL_CTX_free(ctx_);
  }

  int port() const { return port_; }

  std::vector<Request> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    while (!stop_) {
      pollfd p{listen_fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      int fd = accept(listen_fd_, nullptr, nullptr);
      if (fd < 0) continue;
      timeval tv{10, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
      SSL* ssl = SSL_new(ctx_);
      SSL_set_fd(ssl, fd);
      if (SSL_accept(ssl) == 1) handle(ssl);
      SSL_shutdown(ssl);
      SSL_free(ssl);
      close(fd);
    }
  }

  static bool has_header(const std::string& head, const std::string& line) {
    std::string lower_head = head, lower_line = line;
    for (auto& c : lower_head) c = static_cast<char>(tolower(c));
    for (auto& c : lower_line) c = static_cast<char>(tolower(c));
    return lower_head.find("\r\n" + lower_line) != std::string::npos;
  }

  static long content_length(const std::string& head) {
    std::string lower = head;
    for (auto& c : lower) c = static_cast<char>(tolower(c));
    size_t at = lower.find("\r\ncontent-length:");
    if (at == std::string::npos) return 0;
    return std::stol(head.substr(at + 17));
  }

  void handle(SSL* ssl) {
    std::string data;
    char buf[65536];
    size_t head_end;
    while ((head_end = data.find("\r\n\r\n")) == std::string::npos) {
      int n = SSL_read(ssl, buf, sizeof buf);
      if (n <= 0) return;
      data.append(buf, static_cast<size_t>(n));
    }
    Request req;
    req.head = data.substr(0, head_end + 4);
    req.body = data.substr(head_end + 4);
    if (response_.send_continue && has_header(req.head, "Expect: 100-continue")) {
      static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
      SSL_write(ssl, kContinue, sizeof kContinue - 1);
    }
    const size_t want = static_cast<size_t>(content_length(req.head));
    while (req.body.size() < want) {
      int n = SSL_read(ssl, buf, sizeof buf);
      if (n <= 0) break;
      req.body.append(buf, static_cast<size_t>(n));
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(req);
    }
    std::string answer = response_.status_line + "\r\n" + response_.extra_headers +
                         "Content-Length: " + std::to_string(response_.body.size()) +
                         "\r\nConnection: close\r\n\r\n" + response_.body;
    SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
  }

  Response response_;
  SSL_CTX* ctx_ = nullptr;
  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<Request> requests_;
};

}  // namespace upload_test
