// Encrypts (or decrypts) one clip file with AES-192-CBC while it is read, so a clip can
// be uploaded encrypted without an encrypted copy ever touching the disk. The output is
// byte for byte what `openssl enc -aes-192-cbc -md md5 -nosalt -pass pass:PASSWORD`
// makes of the same file.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace zel {

enum class crypto_direction : int32_t { ENCRYPTION = 0, DECRYPTION = 1 };

// OpenSSL initialises itself on first use; kept so callers have one place to call.
void init_ssl();

class StreamingCrypto {
 public:
  StreamingCrypto(const std::string& path, const std::string& password, crypto_direction dir);
  ~StreamingCrypto();
  StreamingCrypto(const StreamingCrypto&) = delete;
  StreamingCrypto& operator=(const StreamingCrypto&) = delete;

  // Writes the next output bytes into buf, never more than cap, and returns how many.
  // 0 means the stream is finished (check is_good() to tell success from failure).
  // Never yields more than get_encrypted_size() in total.
  size_t stream_to(char* buf, size_t cap);
  // Streams the whole output into out_path; false on any failure or an empty output.
  bool to_file(const std::string& out_path);

  size_t get_encrypted_size() const { return static_cast<size_t>(encrypted_size); }
  void set_encrypted_size();
  // Length of the PKCS#7 padding that ends buf (DECRYPTION); 0 when encrypting; -1 if invalid.
  int unpad(const char* buf, int len) const;
  bool is_good() const { return !error; }

  // Whether the source file could be opened.
  bool is_open() const { return file != nullptr; }
  // Size of the source file when the stream was set up; the stream reads no further.
  uint64_t get_file_size() const { return file_size; }
  // Finished, normally or by error, and every output byte has been handed out.
  bool finished() const { return eof && carry_pos == carry_len; }

 private:
  struct FileCloser {
    void operator()(FILE* f) const;
  };
  struct CtxFree {
    void operator()(EVP_CIPHER_CTX* c) const;
  };
  using UpdateFn = int (*)(EVP_CIPHER_CTX*, unsigned char*, int*, const unsigned char*, int);
  using FinalFn = int (*)(EVP_CIPHER_CTX*, unsigned char*, int*);

  size_t fill(unsigned char* out, size_t room);
  size_t drain_carry(char* buf, size_t cap);
  void fail(const std::string& text);

  std::unique_ptr<FILE, FileCloser> file;
  uint64_t file_size = 0;
  uint64_t encrypted_size = 0;
  unsigned char key[24] = {};
  unsigned char iv[16] = {};
  crypto_direction direction = crypto_direction::ENCRYPTION;
  bool eof = false;
  bool error = false;
  std::unique_ptr<EVP_CIPHER_CTX, CtxFree> ctx;
  UpdateFn update = nullptr;
  FinalFn final = nullptr;

  // Bytes given to the cipher and bytes it has given back: their difference is what the
  // context holds, which bounds the next round's output so that it fits the caller's room.
  uint64_t consumed = 0;
  uint64_t emitted = 0;
  std::vector<unsigned char> scratch;
  // Output made aside for callers offering less than one block of room.
  unsigned char carry[32] = {};
  size_t carry_len = 0;
  size_t carry_pos = 0;
};

}  // namespace zel
