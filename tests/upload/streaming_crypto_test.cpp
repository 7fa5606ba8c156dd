// StreamingCrypto against the openssl command: whatever the caller's buffer size, the
// stream must be exactly what `openssl enc -aes-192-cbc -md md5 -nosalt` produces, must
// never write past the buffer, and must never yield more than it announced.
#include "upload/streaming_crypto.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "upload_test_util.h"

using namespace upload_test;
using zel::crypto_direction;
using zel::StreamingCrypto;

namespace {

const char kPassword[] = "clip-secret-42";
constexpr unsigned char kGuard = 0x5A;
constexpr size_t kGuardLen = 64;

struct StreamOutcome {
  std::string bytes;
  bool good = true;
  std::string failure;  // first broken promise, empty when all held
};

// Drains a stream through a buffer of exactly `cap` usable bytes followed by a guard zone,
// checking after every call that nothing beyond cap was written and that the running total
// never passes the announced size.
StreamOutcome drain(StreamingCrypto& s, size_t cap, size_t max_calls = 100000000) {
  StreamOutcome out;
  std::vector<char> buf(cap + kGuardLen, static_cast<char>(kGuard));
  const size_t announced = s.get_encrypted_size();
  for (size_t calls = 0; calls < max_calls; ++calls) {
    size_t n = s.stream_to(buf.data(), cap);
    for (size_t i = cap; i < cap + kGuardLen; ++i) {
      if (static_cast<unsigned char>(buf[i]) != kGuard) {
        out.failure = "wrote past cap " + std::to_string(cap) + " at call " + std::to_string(calls);
        return out;
      }
    }
    if (n > cap) {
      out.failure = "returned " + std::to_string(n) + " > cap " + std::to_string(cap);
      return out;
    }
    if (n == 0) break;
    out.bytes.append(buf.data(), n);
    if (out.bytes.size() > announced) {
      out.failure = "yielded " + std::to_string(out.bytes.size()) + " > announced " +
                    std::to_string(announced);
      return out;
    }
  }
  out.good = s.is_good();
  return out;
}

const std::vector<size_t> kSizes = {0, 1, 15, 16, 17, 1000, 1024, 1040, 3 * 1024 * 1024 + 5};
const std::vector<size_t> kCaps = {1, 7, 16, 17, 31, 1000, 1024, 65536, 200000};

// One clip file per size, with what openssl makes of it, made once per process.
struct Sample {
  std::string path;
  std::string plain;
  std::string cipher;       // openssl's ciphertext
  std::string cipher_path;  // the same ciphertext as a file
};

const Sample& sample(size_t size) {
  static std::map<size_t, Sample> cache;
  auto it = cache.find(size);
  if (it != cache.end()) return it->second;
  Sample s;
  s.path =
      make_clip("sample-" + std::to_string(size) + ".mp4", size, static_cast<unsigned>(size + 7));
  s.plain = read_file(s.path);
  s.cipher_path = s.path + ".enc";
  openssl_enc(s.path, s.cipher_path, kPassword);
  s.cipher = read_file(s.cipher_path);
  return cache.emplace(size, s).first->second;
}

class StreamingCryptoByCap : public ::testing::TestWithParam<std::tuple<size_t, size_t>> {};

TEST_P(StreamingCryptoByCap, EncryptionEqualsOpensslAndStaysInsideBuffer) {
  const size_t size = std::get<0>(GetParam());
  const size_t cap = std::get<1>(GetParam());
  const Sample& s = sample(size);
  StreamingCrypto crypto(s.path, kPassword, crypto_direction::ENCRYPTION);
  ASSERT_TRUE(crypto.is_open());
  EXPECT_EQ(crypto.get_file_size(), size);
  EXPECT_EQ(crypto.get_encrypted_size(), s.cipher.size());
  StreamOutcome out = drain(crypto, cap);
  ASSERT_EQ(out.failure, "");
  EXPECT_TRUE(out.good);
  EXPECT_EQ(out.bytes.size(), s.cipher.size());
  EXPECT_TRUE(out.bytes == s.cipher) << "ciphertext differs from openssl's";
  EXPECT_TRUE(crypto.finished());
  char extra[32];
  EXPECT_EQ(crypto.stream_to(extra, sizeof extra), 0u) << "a finished stream must stay finished";
}

TEST_P(StreamingCryptoByCap, DecryptionOfOpensslOutputGivesTheClipBack) {
  const size_t size = std::get<0>(GetParam());
  const size_t cap = std::get<1>(GetParam());
  const Sample& s = sample(size);
  StreamingCrypto crypto(s.cipher_path, kPassword, crypto_direction::DECRYPTION);
  ASSERT_TRUE(crypto.is_open());
  StreamOutcome out = drain(crypto, cap);
  ASSERT_EQ(out.failure, "");
  EXPECT_TRUE(out.good);
  EXPECT_EQ(out.bytes.size(), s.plain.size());
  EXPECT_TRUE(out.bytes == s.plain) << "plaintext differs from the clip";
}

INSTANTIATE_TEST_SUITE_P(SizesAndCaps, StreamingCryptoByCap,
                         ::testing::Combine(::testing::ValuesIn(kSizes),
                                            ::testing::ValuesIn(kCaps)),
                         [](const ::testing::TestParamInfo<std::tuple<size_t, size_t>>& info) {
                           return "size" + std::to_string(std::get<0>(info.param)) + "_cap" +
                                  std::to_string(std::get<1>(info.param));
                         });

// The padding rule: 1 to 16 bytes are added, a whole block when the size is aligned.
TEST(StreamingCryptoSize, AnnouncedSizeFollowsThePaddingRule) {
  const std::vector<std::pair<size_t, size_t>> expected = {
      {0, 16}, {1, 16}, {15, 16}, {16, 32}, {17, 32}, {1000, 1008}, {1024, 1040}, {1040, 1056}};
  for (const auto& [size, encrypted] : expected) {
    const Sample& s = sample(size);
    StreamingCrypto crypto(s.path, kPassword, crypto_direction::ENCRYPTION);
    EXPECT_EQ(crypto.get_encrypted_size(), encrypted) << "size " << size;
    EXPECT_EQ(s.cipher.size(), encrypted) << "openssl disagrees for size " << size;
  }
}

TEST(StreamingCryptoPassword, PasswordBytesAreUsedExactlyAsGiven) {
  const Sample& s = sample(1000);
  for (const std::string password :
       {"", "a", "with spaces and \xc3\xa9 accents!", "0123456789abcdef0123"}) {
    std::string expected = openssl_encrypt(s.path, password);
    StreamingCrypto crypto(s.path, password, crypto_direction::ENCRYPTION);
    StreamOutcome out = drain(crypto, 4096);
    ASSERT_EQ(out.failure, "");
    EXPECT_TRUE(out.bytes == expected) << "password '" << password << "'";
  }
}

TEST(StreamingCryptoDecryptFailures, BadCiphertextFailsWhereOpensslFails) {
  const Sample& s = sample(1000);
  struct Case {
    std::string name;
    std::string cipher;
    std::string password;
  };
  std::string flipped_tail = s.cipher;
  flipped_tail.back() = static_cast<char>(flipped_tail.back() ^ 0x01);
  std::vector<Case> cases = {
      {"wrong password", s.cipher, "not-the-password"},
      {"last byte flipped", flipped_tail, kPassword},
      {"truncated to an unaligned length", s.cipher.substr(0, s.cipher.size() - 5), kPassword},
  };
  for (const Case& c : cases) {
    std::string path = temp_dir() + "/bad-" + std::to_string(&c - cases.data()) + ".enc";
    write_file(path, c.cipher);
    CommandResult oracle =
        run_command("openssl enc -d -aes-192-cbc -md md5 -nosalt -pass 'pass:" + c.password +
                    "' -in '" + path + "' -out /dev/null");
    ASSERT_NE(oracle.status, 0) << c.name << ": openssl accepted it, so the case proves nothing";
    StderrCapture err;
    StreamingCrypto crypto(path, c.password, crypto_direction::DECRYPTION);
    StreamOutcome out = drain(crypto, 1024);
    std::string text = err.text();
    ASSERT_EQ(out.failure, "") << c.name;
    EXPECT_FALSE(out.good) << c.name;
    EXPECT_FALSE(crypto.is_good()) << c.name;
    EXPECT_NE(text.find("error in EVP_EncryptFinal\n"), std::string::npos)
        << c.name << ": " << text;
  }
}

TEST(StreamingCryptoToFile, EncryptedFileIsOpensslsAndDecryptsBack) {
  const Sample& s = sample(3 * 1024 * 1024 + 5);
  std::string enc = temp_dir() + "/to_file.enc";
  {
    StreamingCrypto crypto(s.path, kPassword, crypto_direction::ENCRYPTION);
    ASSERT_TRUE(crypto.to_file(enc));
  }
  std::string ours = read_file(enc);
  EXPECT_TRUE(ours == s.cipher) << "to_file output differs from openssl's";
  EXPECT_TRUE(openssl_decrypt(ours, kPassword) == s.plain);

  std::string dec = temp_dir() + "/to_file.dec";
  {
    StreamingCrypto crypto(enc, kPassword, crypto_direction::DECRYPTION);
    ASSERT_TRUE(crypto.to_file(dec));
  }
  EXPECT_TRUE(read_file(dec) == s.plain);
}

TEST(StreamingCryptoToFile, FailuresReturnFalseWithTheirMessage) {
  const Sample& s = sample(1000);
  {
    std::string out = temp_dir() + "/no-such-dir/out.enc";
    StderrCapture err;
    StreamingCrypto crypto(s.path, kPassword, crypto_direction::ENCRYPTION);
    EXPECT_FALSE(crypto.to_file(out));
    EXPECT_EQ(err.text(), "to_file failed to open output file - " + out);
  }
  {
    std::string missing = temp_dir() + "/missing-for-to-file.mp4";
    StderrCapture err;
    StreamingCrypto crypto(missing, kPassword, crypto_direction::ENCRYPTION);
    EXPECT_FALSE(crypto.to_file(temp_dir() + "/never.enc"));
    EXPECT_EQ(err.text(), "Failed to open file - " + missing);
  }
  {
    // A decryption that fails must not report success even though bytes were written.
    std::string path = temp_dir() + "/wrong-pass.enc";
    write_file(path, s.cipher);
    StreamingCrypto crypto(path, "not-the-password", crypto_direction::DECRYPTION);
    StderrCapture err;
    EXPECT_FALSE(crypto.to_file(temp_dir() + "/wrong-pass.dec"));
  }
}

TEST(StreamingCryptoMissingFile, NoOutputAndTheOpenFailureIsReported) {
  std::string missing = temp_dir() + "/does-not-exist.mp4";
  StderrCapture err;
  StreamingCrypto crypto(missing, kPassword, crypto_direction::ENCRYPTION);
  std::string text = err.text();
  EXPECT_EQ(text, "Failed to open file - " + missing);
  EXPECT_FALSE(crypto.is_open());
  EXPECT_EQ(crypto.get_encrypted_size(), 0u);
  char buf[64];
  EXPECT_EQ(crypto.stream_to(buf, sizeof buf), 0u);
  EXPECT_TRUE(crypto.is_good());
}

TEST(StreamingCryptoDirection, InvalidDirectionIsRefused) {
  const Sample& s = sample(16);
  StderrCapture err;
  StreamingCrypto crypto(s.path, kPassword, static_cast<crypto_direction>(5));
  EXPECT_EQ(err.text(),
            "Value of dir is incorrect. Use either crypto_direction::ENCRYPTION or "
            "crypto_direction::DECRYPTION.");
  char buf[64];
  EXPECT_EQ(crypto.stream_to(buf, sizeof buf), 0u);
}

// The length announced for an upload must hold even if the file changes underneath.
TEST(StreamingCryptoChangingFile, GrowingFileYieldsOnlyWhatWasAnnounced) {
  std::string path = make_clip("growing.mp4", 100000, 11);
  std::string original_cipher = openssl_encrypt(path, kPassword);
  StreamingCrypto crypto(path, kPassword, crypto_direction::ENCRYPTION);
  const size_t announced = crypto.get_encrypted_size();
  {
    std::ofstream grow(path, std::ios::binary | std::ios::app);
    std::string more = random_bytes(50000, 12);
    grow.write(more.data(), static_cast<std::streamsize>(more.size()));
  }
  StreamOutcome out = drain(crypto, 1000);
  ASSERT_EQ(out.failure, "");
  EXPECT_TRUE(out.good);
  EXPECT_EQ(out.bytes.size(), announced);
  EXPECT_TRUE(out.bytes == original_cipher) << "the stream must be the file as announced";
}

TEST(StreamingCryptoChangingFile, ShrinkingFileEndsTheStreamWithAnError) {
  std::string path = make_clip("shrinking.mp4", 300000, 13);
  StreamingCrypto crypto(path, kPassword, crypto_direction::ENCRYPTION);
  const size_t announced = crypto.get_encrypted_size();
  ASSERT_EQ(truncate(path.c_str(), 1000), 0);
  StderrCapture err;
  StreamOutcome out = drain(crypto, 65536);
  std::string text = err.text();
  ASSERT_EQ(out.failure, "");
  EXPECT_FALSE(out.good);
  EXPECT_LT(out.bytes.size(), announced);
  EXPECT_NE(text.find("shrank"), std::string::npos) << text;
}

TEST(StreamingCryptoUnpad, PaddingLengthOrMinusOne) {
  const Sample& s = sample(16);
  StreamingCrypto dec(s.cipher_path, kPassword, crypto_direction::DECRYPTION);
  StreamingCrypto enc(s.path, kPassword, crypto_direction::ENCRYPTION);
  const char four[] = {'a', 'b', 4, 4, 4, 4};
  const char zero[] = {'a', 'b', 0};
  const char seventeen[] = {'a', 0x11};
  const char broken[] = {'a', 2, 3, 3};
  const char full_block[16] = {16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16};
  const char too_long[] = {5, 5, 5};
  EXPECT_EQ(dec.unpad(four, sizeof four), 4);
  EXPECT_EQ(dec.unpad(zero, sizeof zero), -1);
  EXPECT_EQ(dec.unpad(seventeen, sizeof seventeen), -1);
  EXPECT_EQ(dec.unpad(broken, sizeof broken), -1);
  EXPECT_EQ(dec.unpad(full_block, sizeof full_block), 16);
  EXPECT_EQ(dec.unpad(too_long, sizeof too_long), -1);
  EXPECT_EQ(dec.unpad(four, 0), -1);
  EXPECT_EQ(enc.unpad(four, sizeof four), 0);
}

}  // namespace
