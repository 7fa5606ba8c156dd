// The blob storage emulator (Azurite, installed by `npm ci` in tools/cloud) as a test
// peer: HTTPS on 127.0.0.1 with the test server certificate, data in memory, reachable
// production-style as https://<account>.blob.localhost:<port>/ (libcurl resolves every
// *.localhost name to the loopback address itself).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zel_test {

struct HttpReply {
  long status = 0;  // 0: no answer at all
  std::string body;
  std::string headers;  // raw header block(s)
  std::string error;    // libcurl's text when there was no answer
};

struct BlobProperties {
  long status = 0;
  std::string blob_type;  // "BlockBlob", ...
  int64_t length = -1;
};

class Azurite {
 public:
  struct Account {
    std::string name;
    std::string key;  // base64
  };

  // The emulator's published development account and key.
  static const char* const kAccount;
  static const char* const kAccountKey;

  // Extra accounts besides the development one (each with its own key).
  explicit Azurite(std::vector<Account> extra_accounts = {});
  ~Azurite();
  Azurite(const Azurite&) = delete;
  Azurite& operator=(const Azurite&) = delete;

  // Starts the emulator (on a free port the first time, on the same port afterwards) and
  // waits until it listens. Throws std::runtime_error with its output if it cannot start.
  void start();
  // Kills the emulator at once (SIGKILL), as a crash would; in-memory data is lost.
  void stop();
  bool running() const { return pid_ > 0; }

  int port() const { return port_; }
  // Value for ZEL_BLOB_DOMAIN: ".blob.localhost:<port>".
  std::string blob_domain() const;
  // "https://<account>.blob.localhost:<port>"
  std::string endpoint(const std::string& account = kAccount) const;
  // Account SAS (services b, resource types sco) signed with the account's key, valid from
  // an hour ago for valid_s seconds. Returned as a query string without "?".
  std::string account_sas(const std::string& account = kAccount,
                          const std::string& permissions = "racwdl", long valid_s = 3600) const;

  // Creates a container; true when it exists afterwards (created now or before).
  bool create_container(const std::string& name, const std::string& account = kAccount);
  // GET of "<container>/<blob path>": the bytes; throws unless the answer is 200.
  std::string get_blob(const std::string& path, const std::string& account = kAccount);
  // GET with the full answer, for callers that expect a failure.
  HttpReply request_blob(const std::string& path, const std::string& account = kAccount);
  // HEAD of the blob: status, blob type and length.
  BlobProperties blob_properties(const std::string& path, const std::string& account = kAccount);

  // Everything the emulator printed so far.
  std::string output() const;

 private:
  std::string key_of(const std::string& account) const;
  HttpReply send(const std::string& method, const std::string& url);

  std::vector<Account> accounts_;
  std::string dir_;
  std::string log_path_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// Signs data with HMAC-SHA256 under a base64 key and returns the base64 signature.
std::string hmac_sha256_base64(const std::string& base64_key, const std::string& data);

}  // namespace zel_test
