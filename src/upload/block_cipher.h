// The clip's encryption cut into blocks: the same AES-192-CBC stream as StreamingCrypto
// makes of the whole file, produced one block at a time. Each block but the last is a
// whole number of cipher blocks without padding; the next block's chaining starts from
// this block's last ciphertext block. Because any block can start again from its plain
// offset and its starting vector, a retry re-reads only that block.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace zel {

class BlockCipher {
 public:
  static constexpr size_t kBlock = 16;

  // Derives key and starting vector from the password as the openssl command does.
  BlockCipher(const std::string& path, const std::string& password);
  bool is_open() const { return file != nullptr; }
  uint64_t file_size() const { return size; }
  uint64_t encrypted_size() const { return size / kBlock * kBlock + kBlock; }

  // Starts block n of block_bytes ciphertext bytes each. Block 0 chains from the derived
  // vector, block n > 0 from chain (the last ciphertext block of block n - 1).
  bool begin(uint64_t n, uint64_t block_bytes, const unsigned char* chain);
  // The next ciphertext bytes of the block, at most cap; 0 at its end or on an error.
  size_t read(char* buf, size_t cap);
  bool is_good() const { return !error; }
  // The last ciphertext block produced: what the next block chains from.
  const unsigned char* tail() const { return last; }

 private:
  struct FileCloser {
    void operator()(FILE* f) const;
  };
  struct CtxFree {
    void operator()(EVP_CIPHER_CTX* c) const;
  };
  size_t round_output() const;
  size_t encrypt_round(unsigned char* dest);

  std::unique_ptr<FILE, FileCloser> file;
  std::unique_ptr<EVP_CIPHER_CTX, CtxFree> ctx;
  uint64_t size = 0;
  unsigned char key[24] = {};
  unsigned char iv[16] = {};
  unsigned char last[16] = {};
  uint64_t plain_left = 0;  // plaintext of this block not yet read
  bool padded = false;      // the last block: padding follows its plaintext
  bool finished = false;
  bool error = false;
  std::vector<unsigned char> in;
  std::vector<unsigned char> out;
  size_t out_pos = 0;
  size_t out_len = 0;
};

}  // namespace zel
