#include "foundation/log.h"

#include <libwebsockets.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zel {

namespace {
// Guards our lines on standard error, the enabled flag and the observer.
std::mutex g_log_mutex;
std::function<void(int, const std::string&)> g_observer;
bool g_enabled = false;
}  // namespace

namespace {
// The logger starts silent unless ZEL_DEBUG asks otherwise, even for lines written
// before the first connect.
std::once_flag g_level_once;
void apply_level_locked() {
  g_enabled = std::getenv("ZEL_DEBUG") != nullptr;
  lws_set_log_level(g_enabled ? 65535 : 0, nullptr);
}
}  // namespace

void zel_log(int level, const char* format, ...) {
  std::call_once(g_level_once, [] {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    apply_level_locked();
  });
  char stack_buf[1024];
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(stack_buf, sizeof stack_buf, format, args);
  va_end(args);
  std::string line;
  if (n < 0) {
    line = format;
  } else if (static_cast<size_t>(n) < sizeof stack_buf) {
    line.assign(stack_buf, static_cast<size_t>(n));
  } else {
    line.resize(static_cast<size_t>(n) + 1);
    vsnprintf(&line[0], line.size(), format, copy);
    line.resize(static_cast<size_t>(n));
  }
  va_end(copy);

  std::lock_guard<std::mutex> lock(g_log_mutex);
  // Written here in lws's own format rather than through _lws_log: lws formats into one
  // static buffer, which its own lines on the worker thread use without our lock.
  if (g_enabled) {
    char stamp[64];
    lwsl_timestamp(level, stamp, sizeof stamp);
    std::fprintf(stderr, "%s%s", stamp, line.c_str());
  }
  if (g_observer) g_observer(level, line);
}

void apply_log_level_from_env() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  apply_level_locked();
}

void set_log_observer(std::function<void(int, const std::string&)> observer) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_observer = std::move(observer);
}

}  // namespace zel
