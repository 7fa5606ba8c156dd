// One blob emulator for the whole upload test program (starting it takes a second or two),
// with the development account and a second account, each with the recorder's container.
#pragma once

#include <cstdlib>
#include <exception>
#include <string>

#include "support/azurite.h"

namespace upload_test {

inline const char* kNvr = "0011223344aa";
inline const char* kCamera = "aabbccddeeff";
inline const char* kSecondAccount = "zelsecond";
inline const char* kSecondKey =
    "emVsLXNlY29uZC1hY2NvdW50LWtleS1mb3ItdGhlLWxvY2FsLWVtdWxhdG9yLTAxMjM0NTY3ODlhYmNkZWZnaA==";

struct SharedEmulator {
  zel_test::Azurite az{{{kSecondAccount, kSecondKey}}};
  std::string error;

  // Starts the emulator if it is not running (first use, or after a test stopped it) and
  // points the library at it. Returns false with `error` set when that is impossible.
  bool ensure_running() {
    try {
      if (!az.running()) {
        az.start();
        if (!az.create_container(kNvr) || !az.create_container(kNvr, kSecondAccount)) {
          error = "cannot create the test containers; emulator output:\n" + az.output();
          return false;
        }
      }
      setenv("ZEL_BLOB_DOMAIN", az.blob_domain().c_str(), 1);
      error.clear();
      return true;
    } catch (const std::exception& e) {
      error = std::string("the blob emulator cannot start: ") + e.what();
      return false;
    }
  }
};

inline SharedEmulator& emulator() {
  static SharedEmulator shared;
  return shared;
}

}  // namespace upload_test
