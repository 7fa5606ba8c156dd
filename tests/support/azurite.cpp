#include "support/azurite.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <signal.h>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/certs.h"
#include "upload/uploader.h"

extern char** environ;

namespace zel_test {

const char* const Azurite::kAccount = "devstoreaccount1";
const char* const Azurite::kAccountKey =
    "Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw==";

namespace {

std::string base64_decode(const std::string& in) {
  std::string out(in.size() / 4 * 3 + 3, '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                          reinterpret_cast<const unsigned char*>(in.data()),
                          static_cast<int>(in.size()));
  if (n < 0) {
    throw std::runtime_error("bad base64 key");
  }
  // EVP_DecodeBlock counts the bytes that stand for '=' padding as well.
  size_t pad = 0;
  if (!in.empty() && in.back() == '=') {
    ++pad;
  }
  if (in.size() > 1 && in[in.size() - 2] == '=') {
    ++pad;
  }
  out.resize(static_cast<size_t>(n) - pad);
  return out;
}

std::string base64_encode(const unsigned char* data, size_t len) {
  std::string out(4 * ((len + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), data, static_cast<int>(len));
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string url_encode(const std::string& s) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : s) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string utc_text(time_t t) {
  struct tm parts {};
  gmtime_r(&t, &parts);
  char buf[32];
  if (strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
    throw std::runtime_error("cannot format a time");
  }
  return buf;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Last value of a header in a raw header block, matched without regard to case.
std::string header_value(const std::string& headers, const std::string& name) {
  std::string value;
  std::istringstream lines(headers);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.size() > name.size() && line[name.size()] == ':' &&
        strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
      value = line.substr(name.size() + 1);
      size_t first = value.find_first_not_of(" \t");
      size_t last = value.find_last_not_of(" \t\r");
      value = first == std::string::npos ? std::string() : value.substr(first, last - first + 1);
    }
  }
  return value;
}

size_t append_to_string(char* data, size_t size, size_t n, void* out) {
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

}  // namespace

std::string hmac_sha256_base64(const std::string& base64_key, const std::string& data) {
  std::string key = base64_decode(base64_key);
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int mac_len = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac,
           &mac_len) == nullptr) {
    throw std::runtime_error("HMAC failed");
  }
  return base64_encode(mac, mac_len);
}

Azurite::Azurite(std::vector<Account> extra_accounts) {
  accounts_.push_back({kAccount, kAccountKey});
  for (auto& a : extra_accounts) {
    accounts_.push_back(std::move(a));
  }
  dir_ = make_temp_dir("zel-azurite-");
  log_path_ = dir_ + "/azurite.log";
}

Azurite::~Azurite() { stop(); }

void Azurite::start() {
  if (running()) {
    return;
  }
  const TestCerts& certs = test_certs();
  if (port_ == 0) {
    port_ = free_port();
  }
  std::string program = std::string(ZEL_SOURCE_DIR) + "/tools/cloud/node_modules/.bin/azurite-blob";
  if (access(program.c_str(), X_OK) != 0) {
    throw std::runtime_error(program +
                             " is missing: run `npm ci` in tools/cloud (or tools/setup.sh)");
  }

  std::vector<std::string> args = {program,
                                   "--blobHost",
                                   "127.0.0.1",
                                   "--blobPort",
                                   std::to_string(port_),
                                   "--cert",
                                   certs.server_cert,
                                   "--key",
                                   certs.server_key,
                                   "--inMemoryPersistence",
                                   "--skipApiVersionCheck",
                                   "--disableTelemetry"};
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (strncmp(*e, "AZURITE_ACCOUNTS=", 17) != 0) {
      env.emplace_back(*e);
    }
  }
  if (accounts_.size() > 1) {
    std::string list;
    for (const auto& a : accounts_) {
      list += a.name + ":" + a.key + ";";
    }
    env.push_back("AZURITE_ACCOUNTS=" + list);
  }
  // Everything the child needs is prepared before fork: only async-signal-safe calls follow.
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& a : args) {
    argv.push_back(&a[0]);
  }
  argv.push_back(nullptr);
  std::vector<char*> envp;
  envp.reserve(env.size() + 1);
  for (auto& e : env) {
    envp.push_back(&e[0]);
  }
  envp.push_back(nullptr);

  size_t log_mark = read_file(log_path_).size();
  int log_fd = open(log_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (log_fd < 0 || null_fd < 0) {
    throw std::runtime_error("cannot open the emulator's log file");
  }
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) {
    close(log_fd);
    close(null_fd);
    throw std::runtime_error("fork failed");
  }
  if (pid == 0) {
    // The emulator must not outlive a test process that crashes.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(127);
    }
    dup2(null_fd, 0);
    dup2(log_fd, 1);
    dup2(log_fd, 2);
    if (chdir(dir_.c_str()) != 0) {
      _exit(126);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(log_fd);
  close(null_fd);
  pid_ = pid;

  const std::string ready = "successfully listens on https://127.0.0.1:" + std::to_string(port_);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (;;) {
    std::string out = read_file(log_path_);
    if (out.size() > log_mark && out.find(ready, log_mark) != std::string::npos) {
      return;
    }
    int wstatus = 0;
    if (waitpid(pid_, &wstatus, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("the blob emulator exited while starting:\n" + out.substr(log_mark));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      stop();
      throw std::runtime_error("the blob emulator did not listen within 60 s:\n" +
                               out.substr(log_mark));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

void Azurite::stop() {
  if (pid_ <= 0) {
    return;
  }
  kill(pid_, SIGKILL);
  int wstatus = 0;
  while (waitpid(pid_, &wstatus, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

std::string Azurite::blob_domain() const { return ".blob.localhost:" + std::to_string(port_); }

std::string Azurite::endpoint(const std::string& account) const {
  return "https://" + account + blob_domain();
}

std::string Azurite::key_of(const std::string& account) const {
  for (const auto& a : accounts_) {
    if (a.name == account) {
      return a.key;
    }
  }
  throw std::runtime_error("unknown account " + account);
}

std::string Azurite::account_sas(const std::string& account, const std::string& permissions,
                                 long valid_s) const {
  const std::string version = "2020-04-08";
  const std::string services = "b";
  const std::string resource_types = "sco";
  const std::string protocol = "https";
  time_t now = std::time(nullptr);
  // Started an hour back so that a clock step in either process cannot make it not-yet-valid.
  std::string start = utc_text(now - 3600);
  std::string expiry = utc_text(now + valid_s);
  std::string to_sign = account + "\n" + permissions + "\n" + services + "\n" + resource_types +
                        "\n" + start + "\n" + expiry + "\n" + "" + "\n" + protocol + "\n" +
                        version + "\n";
  std::string sig = hmac_sha256_base64(key_of(account), to_sign);
  return "sv=" + version + "&ss=" + services + "&srt=" + resource_types + "&sp=" + permissions +
         "&st=" + url_encode(start) + "&se=" + url_encode(expiry) + "&spr=" + protocol +
         "&sig=" + url_encode(sig);
}

HttpReply Azurite::send(const std::string& method, const std::string& url) {
  zel::uploader_global_init();
  HttpReply reply;
  CURL* h = curl_easy_init();
  if (h == nullptr) {
    throw std::runtime_error("curl_easy_init failed");
  }
  curl_slist* headers = curl_slist_append(nullptr, "x-ms-version: 2020-04-08");
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_CAINFO, test_certs().ca.c_str());
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, 120L);
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &append_to_string);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &append_to_string);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &reply.headers);
  if (method == "HEAD") {
    curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
  } else if (method == "PUT") {
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "PUT");
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, "");
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, 0L);
  }
  CURLcode res = curl_easy_perform(h);
  if (res == CURLE_OK) {
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &reply.status);
  } else {
    reply.error = curl_easy_strerror(res);
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(h);
  return reply;
}

bool Azurite::create_container(const std::string& name, const std::string& account) {
  HttpReply r =
      send("PUT", endpoint(account) + "/" + name + "?restype=container&" + account_sas(account));
  return r.status == 201 || r.status == 409;
}

HttpReply Azurite::request_blob(const std::string& path, const std::string& account) {
  return send("GET", endpoint(account) + "/" + path + "?" + account_sas(account));
}

std::string Azurite::get_blob(const std::string& path, const std::string& account) {
  HttpReply r = request_blob(path, account);
  if (r.status != 200) {
    throw std::runtime_error("GET " + path + " answered " + std::to_string(r.status) + " " +
                             r.error);
  }
  return r.body;
}

BlobProperties Azurite::blob_properties(const std::string& path, const std::string& account) {
  HttpReply r = send("HEAD", endpoint(account) + "/" + path + "?" + account_sas(account));
  BlobProperties p;
  p.status = r.status;
  p.blob_type = header_value(r.headers, "x-ms-blob-type");
  std::string length = header_value(r.headers, "content-length");
  if (!length.empty()) {
    p.length = std::stoll(length);
  }
  return p;
}

std::string Azurite::output() const { return read_file(log_path_); }

}  // namespace zel_test
