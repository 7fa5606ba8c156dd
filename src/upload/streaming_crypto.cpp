#include "upload/streaming_crypto.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace zel {

namespace {
constexpr size_t kBlock = 16;
// Plaintext read per round. Big rounds keep the per-call cost of the cipher and of stdio
// small next to the encryption itself; the output does not depend on the round size.
constexpr size_t kRound = size_t{64} * 1024;
}  // namespace

void init_ssl() {}

void StreamingCrypto::FileCloser::operator()(FILE* f) const {
  // Only ever read: a failing close loses nothing.
  if (f != nullptr) {
    (void)fclose(f);
  }
}

void StreamingCrypto::CtxFree::operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }

StreamingCrypto::StreamingCrypto(const std::string& path, const std::string& password,
                                 crypto_direction dir) {
  // MD5, no salt, one round: the derivation the openssl command applies to -pass with -nosalt.
  if (EVP_BytesToKey(EVP_aes_192_cbc(), EVP_md5(), nullptr,
                     reinterpret_cast<const unsigned char*>(password.data()),
                     static_cast<int>(password.size()), 1, key, iv) <= 0) {
    std::cerr << "error deriving key";
    return;
  }
  if (dir != crypto_direction::ENCRYPTION && dir != crypto_direction::DECRYPTION) {
    std::cerr << "Value of dir is incorrect. Use either crypto_direction::ENCRYPTION or "
                 "crypto_direction::DECRYPTION.";
    return;
  }
  direction = dir;
  ctx.reset(EVP_CIPHER_CTX_new());
  if (!ctx) {
    std::cerr << "error creating cipher context";
    return;
  }
  EVP_CIPHER_CTX_reset(ctx.get());
  int ok;
  if (dir == crypto_direction::ENCRYPTION) {
    ok = EVP_EncryptInit_ex(ctx.get(), EVP_aes_192_cbc(), nullptr, key, iv);
    update = EVP_EncryptUpdate;
    final = EVP_EncryptFinal_ex;
  } else {
    ok = EVP_DecryptInit_ex(ctx.get(), EVP_aes_192_cbc(), nullptr, key, iv);
    update = EVP_DecryptUpdate;
    final = EVP_DecryptFinal_ex;
  }
  if (ok != 1) {
    std::cerr << "error initialising cipher";
    ctx.reset();
    return;
  }
  file.reset(fopen(path.c_str(), "rb"));
  if (!file) {
    std::cerr << "Failed to open file - " << path;
    return;
  }
  scratch.resize(kRound + kBlock);
  set_encrypted_size();
}

StreamingCrypto::~StreamingCrypto() = default;

void StreamingCrypto::set_encrypted_size() {
  if (!file) {
    return;
  }
  FILE* f = file.get();
  if (fseeko(f, 0, SEEK_END) != 0) {
    fail(strerror(errno));
    return;
  }
  off_t end = ftello(f);
  if (end < 0 || fseeko(f, 0, SEEK_SET) != 0) {
    fail(strerror(errno));
    return;
  }
  file_size = static_cast<uint64_t>(end);
  // PKCS#7 always adds 1 to 16 bytes, a whole block when the size is already aligned.
  encrypted_size = file_size / kBlock * kBlock + kBlock;
}

void StreamingCrypto::fail(const std::string& text) {
  std::cerr << text;
  eof = true;
  error = true;
}

size_t StreamingCrypto::drain_carry(char* buf, size_t cap) {
  size_t n = std::min(cap, carry_len - carry_pos);
  if (n > 0) {
    memcpy(buf, carry + carry_pos, n);
    carry_pos += n;
  }
  return n;
}

size_t StreamingCrypto::stream_to(char* buf, size_t cap) {
  size_t n = drain_carry(buf, cap);
  if (n == cap) {
    return n;
  }
  if (!file || !ctx || eof) {
    eof = true;
    return n;
  }
  size_t room = cap - n;
  if (room >= kBlock) {
    return n + fill(reinterpret_cast<unsigned char*>(buf) + n, room);
  }
  // Less than a block of room: the cipher cannot be trusted to fit, so make the next
  // blocks aside and hand out what fits now; the rest goes out with the next calls.
  carry_pos = 0;
  carry_len = fill(carry, sizeof carry);
  return n + drain_carry(buf + n, room);
}

// Fills out with at most room bytes (room >= 16). Each round reads only as much input as
// the cipher can turn into output that still fits, and the final block is made only when a
// whole block of room is left, so the caller's buffer is never overrun whatever its size.
size_t StreamingCrypto::fill(unsigned char* out, size_t room) {
  size_t produced = 0;
  while (!eof && room - produced >= kBlock) {
    uint64_t target = std::min<uint64_t>((room - produced) / kBlock * kBlock, kRound);
    uint64_t held = consumed - emitted;
    // Encryption turns every whole block of input into output at once; decryption keeps the
    // last block back until it knows whether it is the padded one, hence one block more.
    uint64_t want =
        direction == crypto_direction::ENCRYPTION ? target - held : target + kBlock - held;
    // The size measured at set-up is the end of the input: a file still growing cannot make
    // the stream longer than the length announced for it.
    size_t request = static_cast<size_t>(std::min<uint64_t>(want, file_size - consumed));
    if (request > 0) {
      size_t got = fread(scratch.data(), 1, request, file.get());
      if (got < request) {
        if (ferror(file.get())) {
          fail(strerror(errno));
        } else {
          // The file shrank after its size was announced; the upload could only come short.
          fail("File shrank while streaming - expected " + std::to_string(file_size) +
               " bytes, found " + std::to_string(consumed + got));
        }
        return 0;
      }
      int out_len = 0;
      if (update(ctx.get(), out + produced, &out_len, scratch.data(), static_cast<int>(got)) != 1) {
        fail("error in EVP_EncryptUpdate\n");
        return 0;
      }
      consumed += got;
      emitted += static_cast<uint64_t>(out_len);
      produced += static_cast<size_t>(out_len);
    }
    if (consumed == file_size) {
      if (room - produced < kBlock) {
        break;  // the next call finishes with a whole block of room
      }
      int final_len = 0;
      if (final(ctx.get(), out + produced, &final_len) != 1) {
        fail("error in EVP_EncryptFinal\n");
        return 0;
      }
      emitted += static_cast<uint64_t>(final_len);
      produced += static_cast<size_t>(final_len);
      eof = true;
    }
  }
  return produced;
}

bool StreamingCrypto::to_file(const std::string& out_path) {
  std::unique_ptr<FILE, FileCloser> out(fopen(out_path.c_str(), "wb"));
  if (!out) {
    std::cerr << "to_file failed to open output file - " << out_path;
    return false;
  }
  std::vector<char> buf(kRound);
  uint64_t total = 0;
  bool write_failed = false;
  while (!error) {
    size_t n = stream_to(buf.data(), buf.size());
    if (n == 0 || error) {
      break;
    }
    if (fwrite(buf.data(), 1, n, out.get()) != n) {
      write_failed = true;
      break;
    }
    total += n;
  }
  if (fclose(out.release()) != 0) {
    write_failed = true;
  }
  if (write_failed) {
    std::cerr << "to_file failed to write output file - " << out_path;
    return false;
  }
  if (total == 0) {
    return false;
  }
  return !error;
}

int StreamingCrypto::unpad(const char* buf, int len) const {
  if (direction == crypto_direction::ENCRYPTION) {
    return 0;
  }
  if (len < 1) {
    return -1;
  }
  int p = static_cast<unsigned char>(buf[len - 1]);
  if (p == 0 || p > static_cast<int>(kBlock) || p > len) {
    return -1;
  }
  for (int i = len - p; i < len; ++i) {
    if (static_cast<unsigned char>(buf[i]) != p) {
      return -1;
    }
  }
  return p;
}

}  // namespace zel
