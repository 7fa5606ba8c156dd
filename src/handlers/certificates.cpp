// "issueCertificate": the server hands the device a new client certificate and key. They
// are replaced as a pair or not at all: a new certificate beside the old key (or a torn
// file after a power cut) would keep the recorder off the cloud for good.
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "foundation/json_ptr.h"
#include "foundation/log.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "zel/json.h"

namespace zel {

namespace {

constexpr const char* kCouldNotWriteCertificate = "{\"error\": \"Could not write certificate\"}";

bool write_all(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string directory_of(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool sync_directory(const std::string& path) {
  int fd = ::open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  return (::close(fd) == 0) && ok;
}

// One file to replace: written whole and synced beside its target, then renamed over it.
struct Staged {
  std::string path;
  std::string tmp_path;
  ~Staged() {
    if (!tmp_path.empty()) ::unlink(tmp_path.c_str());
  }
  bool write(const std::string& text, mode_t mode) {
    std::string name = path + ".XXXXXX";
    int fd = mkstemp(&name[0]);
    if (fd < 0) return false;
    tmp_path = name;
    bool ok = fchmod(fd, mode) == 0 && write_all(fd, text) && fsync(fd) == 0;
    return (::close(fd) == 0) && ok;
  }
  bool commit() {
    if (std::rename(tmp_path.c_str(), path.c_str()) != 0) return false;
    tmp_path.clear();
    return true;
  }
};

// A member that is not a string stands for an empty file, as an empty value would.
const cJSON* member(const cJSON* contents, const char* name, std::string* text) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(contents, name);
  if (item != nullptr && cJSON_IsString(item) && item->valuestring != nullptr) *text = item->valuestring;
  return item;
}

bool key_matches_certificate(const std::string& cert_pem, const std::string& key_pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> cert_bio(BIO_new_mem_buf(cert_pem.data(), static_cast<int>(cert_pem.size())), BIO_free);
  std::unique_ptr<BIO, decltype(&BIO_free)> key_bio(BIO_new_mem_buf(key_pem.data(), static_cast<int>(key_pem.size())), BIO_free);
  if (!cert_bio || !key_bio) return false;
  std::unique_ptr<X509, decltype(&X509_free)> cert(PEM_read_bio_X509(cert_bio.get(), nullptr, nullptr, nullptr), X509_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      PEM_read_bio_PrivateKey(key_bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  return cert && key && X509_check_private_key(cert.get(), key.get()) == 1;
}

}  // namespace

MsgResponse ZelHandler::issueCertificateHandler(const std::string& contents, Messaging* messaging) {
  CppJSON json(contents);
  const cJSON* inner = cJSON_GetObjectItemCaseSensitive(json, "contents");
  if (inner == nullptr) return MsgResponse::Error(kCouldNotParseContents);
  std::string cert_text;
  std::string key_text;
  const bool has_cert = member(inner, "cert", &cert_text) != nullptr;
  const bool has_key = member(inner, "key", &key_text) != nullptr;
  if (has_cert && has_key && !key_matches_certificate(cert_text, key_text)) {
    zel_log(LEVEL_ERR, "Issued key does not match the issued certificate; both files kept\n");
    return MsgResponse::Error(kCouldNotWriteCertificate);
  }
  // Key first: a certificate is never in place without the key that goes with it.
  std::vector<Staged> files;
  files.reserve(2);
  if (has_key) files.push_back({messaging->get_key_path(), ""});
  if (has_cert) files.push_back({messaging->get_cert_path(), ""});
  for (Staged& f : files) {
    const bool is_key = has_key && &f == &files.front();
    if (!f.write(is_key ? key_text : cert_text, is_key ? 0600 : 0644)) {
      zel_log(LEVEL_ERR, "Could not write %s; the old files are kept\n", f.path.c_str());
      return MsgResponse::Error(kCouldNotWriteCertificate);
    }
  }
  for (Staged& f : files) {
    if (!f.commit() || !sync_directory(f.path)) {
      zel_log(LEVEL_ERR, "Could not replace %s\n", f.path.c_str());
      return MsgResponse::Error(kCouldNotWriteCertificate);
    }
  }
  return MsgResponse::Okay();
}

}  // namespace zel
