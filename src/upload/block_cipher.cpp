#include "upload/block_cipher.h"

#include <sys/types.h>

#include <algorithm>
#include <cstring>

namespace zel {

namespace {
// Plaintext read per round: a multiple of the cipher block, large enough that the cost per
// call stays small next to the encryption.
constexpr size_t kRound = size_t{64} * 1024;
}  // namespace

void BlockCipher::FileCloser::operator()(FILE* f) const {
  if (f != nullptr) (void)fclose(f);  // only ever read
}

void BlockCipher::CtxFree::operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }

BlockCipher::BlockCipher(const std::string& path, const std::string& password)
    : in(kRound), out(kRound + 2 * kBlock) {
  if (EVP_BytesToKey(EVP_aes_192_cbc(), EVP_md5(), nullptr,
                     reinterpret_cast<const unsigned char*>(password.data()),
                     static_cast<int>(password.size()), 1, key, iv) <= 0) {
    return;
  }
  ctx.reset(EVP_CIPHER_CTX_new());
  if (!ctx) return;
  file.reset(fopen(path.c_str(), "rb"));
  if (!file || fseeko(file.get(), 0, SEEK_END) != 0) {
    file.reset();
    return;
  }
  off_t end = ftello(file.get());
  if (end < 0) {
    file.reset();
    return;
  }
  size = static_cast<uint64_t>(end);
}

bool BlockCipher::begin(uint64_t n, uint64_t block_bytes, const unsigned char* chain) {
  error = !file || !ctx;
  if (error) return false;
  const uint64_t offset = n * block_bytes;
  // Every block but the last turns block_bytes of plaintext into as many ciphertext bytes;
  // the last takes what is left, possibly nothing, and ends with the padding.
  padded = encrypted_size() - offset <= block_bytes;
  plain_left = padded ? size - offset : block_bytes;
  finished = false;
  out_pos = out_len = 0;
  if (fseeko(file.get(), static_cast<off_t>(offset), SEEK_SET) != 0 ||
      EVP_EncryptInit_ex(ctx.get(), EVP_aes_192_cbc(), nullptr, key, n == 0 ? iv : chain) != 1 ||
      EVP_CIPHER_CTX_set_padding(ctx.get(), padded ? 1 : 0) != 1) {
    error = true;
  }
  return !error;
}

size_t BlockCipher::round_output() const {
  const size_t want = static_cast<size_t>(std::min<uint64_t>(plain_left, kRound));
  return padded && want == plain_left ? want / kBlock * kBlock + kBlock : want;
}

// One round into dest (room for round_output() bytes): the next plaintext through the
// cipher, and the final block after the last. Returns the bytes made, 0 on an error.
size_t BlockCipher::encrypt_round(unsigned char* dest) {
  const size_t want = static_cast<size_t>(std::min<uint64_t>(plain_left, kRound));
  int produced = 0;
  if (want > 0) {
    // A file that shrank since it was measured comes short here: the block fails.
    if (fread(in.data(), 1, want, file.get()) != want ||
        EVP_EncryptUpdate(ctx.get(), dest, &produced, in.data(), static_cast<int>(want)) != 1) {
      error = true;
      return 0;
    }
    plain_left -= want;
  }
  if (plain_left == 0) {
    int final_len = 0;
    if (EVP_EncryptFinal_ex(ctx.get(), dest + produced, &final_len) != 1) {
      error = true;
      return 0;
    }
    produced += final_len;
    finished = true;
  }
  const size_t made = static_cast<size_t>(produced);
  if (made >= kBlock) memcpy(last, dest + made - kBlock, kBlock);
  return made;
}

size_t BlockCipher::read(char* buf, size_t cap) {
  size_t given = 0;
  while (given < cap && !error) {
    if (out_pos == out_len) {
      if (finished) break;
      // Straight into the caller's buffer when a whole round fits (libcurl's buffer is
      // one round): a copy per byte would cost as much as a tenth of the encryption.
      if (cap - given >= round_output()) {
        given += encrypt_round(reinterpret_cast<unsigned char*>(buf) + given);
        continue;
      }
      out_pos = 0;
      out_len = encrypt_round(out.data());
      continue;
    }
    const size_t n = std::min(cap - given, out_len - out_pos);
    memcpy(buf + given, out.data() + out_pos, n);
    out_pos += n;
    given += n;
  }
  return error ? 0 : given;
}

}  // namespace zel
