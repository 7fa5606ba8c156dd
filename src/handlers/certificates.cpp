// "issueCertificate": the server hands the device a new client certificate and key.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "foundation/json_ptr.h"
#include "handlers/zel_handler.h"
#include "messaging/messaging.h"
#include "zel/json.h"

namespace zel {

namespace {

bool write_all(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes beside the target and renames over it, so a reader (the next TLS handshake)
// never sees half a certificate. Where no temporary file can be made, writes in place.
void replace_file(const std::string& path, const std::string& text, mode_t mode) {
  std::string tmp_path = path + ".XXXXXX";
  int fd = mkstemp(&tmp_path[0]);
  if (fd >= 0) {
    bool ok = fchmod(fd, mode) == 0 && write_all(fd, text) && fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok && std::rename(tmp_path.c_str(), path.c_str()) == 0) return;
    ::unlink(tmp_path.c_str());
    // A text that could not be written whole (disk full) would only be written in half
    // in place too; the old file is better than a broken one.
    if (!ok) return;
  }
  int out = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (out < 0) return;
  write_all(out, text);
  ::close(out);
}

void write_member(const cJSON* contents, const char* name, const std::string& path, mode_t mode) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(contents, name);
  if (item == nullptr) return;
  // A member that is not a string still leaves the file empty, as it was opened.
  std::string text = (cJSON_IsString(item) && item->valuestring != nullptr) ? item->valuestring : "";
  replace_file(path, text, mode);
}

}  // namespace

MsgResponse ZelHandler::issueCertificateHandler(const std::string& contents, Messaging* messaging) {
  std::string cert_path = messaging->get_cert_path();
  std::string key_path = messaging->get_key_path();
  CppJSON json(contents);
  const cJSON* inner = cJSON_GetObjectItemCaseSensitive(json, "contents");
  if (inner == nullptr) return MsgResponse::Error(kCouldNotParseContents);
  write_member(inner, "cert", cert_path, 0644);
  write_member(inner, "key", key_path, 0600);
  return MsgResponse::Okay();
}

}  // namespace zel
