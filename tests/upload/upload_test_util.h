// Helpers shared by the upload tests: clip files, the openssl command as the independent
// judge of the encryption, and capture of standard error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/certs.h"

namespace upload_test {

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

// Deterministic pseudo-random bytes: a failure can be reproduced.
inline std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(gen() & 0xff);
  return s;
}

inline std::string temp_dir() {
  static const std::string dir = zel_test::make_temp_dir("zel-upload-test-");
  return dir;
}

inline std::string make_clip(const std::string& name, size_t n, unsigned seed = 1) {
  std::string path = temp_dir() + "/" + name;
  write_file(path, random_bytes(n, seed));
  return path;
}

struct CommandResult {
  int status = -1;
  std::string err;
};

// Runs a shell command; its standard error is returned for failure messages.
inline CommandResult run_command(const std::string& cmd) {
  static int counter = 0;
  std::string err_path = temp_dir() + "/cmd-" + std::to_string(++counter) + ".err";
  CommandResult r;
  r.status = std::system((cmd + " 2>'" + err_path + "'").c_str());
  std::ifstream in(err_path);
  std::ostringstream s;
  s << in.rdbuf();
  r.err = s.str();
  std::remove(err_path.c_str());
  return r;
}

// `openssl enc` of in_path into out_path; throws with openssl's complaint on failure.
inline void openssl_enc(const std::string& in_path, const std::string& out_path,
                        const std::string& password, bool decrypt = false) {
  CommandResult r = run_command(std::string("openssl enc ") + (decrypt ? "-d " : "") +
                                "-aes-192-cbc -md md5 -nosalt -pass 'pass:" + password + "' -in '" +
                                in_path + "' -out '" + out_path + "'");
  if (r.status != 0) throw std::runtime_error("openssl enc failed: " + r.err);
}

// Ciphertext the openssl command makes of a file.
inline std::string openssl_encrypt(const std::string& in_path, const std::string& password) {
  std::string out = in_path + ".openssl.enc";
  openssl_enc(in_path, out, password);
  std::string bytes = read_file(out);
  std::remove(out.c_str());
  return bytes;
}

// Plaintext the openssl command recovers from ciphertext bytes.
inline std::string openssl_decrypt(const std::string& cipher, const std::string& password) {
  static int counter = 0;
  std::string in = temp_dir() + "/dec-" + std::to_string(++counter) + ".bin";
  write_file(in, cipher);
  std::string out = in + ".plain";
  openssl_enc(in, out, password, true);
  std::string bytes = read_file(out);
  std::remove(in.c_str());
  std::remove(out.c_str());
  return bytes;
}

// Collects what is written to file descriptor 2 while it lives.
class StderrCapture {
 public:
  StderrCapture() {
    static int counter = 0;
    path_ = temp_dir() + "/stderr-" + std::to_string(++counter) + ".txt";
    std::cerr.flush();
    fflush(stderr);
    saved_ = dup(2);
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    close(fd);
  }
  ~StderrCapture() { restore(); }
  std::string text() {
    restore();
    return read_file(path_);
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::cerr.flush();
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
  }
  std::string path_;
  int saved_ = -1;
};

}  // namespace upload_test
