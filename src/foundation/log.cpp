#include "foundation/log.h"

#include <libwebsockets.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zel {

namespace {
// Guards the lws logger (its default emitter formats into a shared buffer) and the observer.
std::mutex g_log_mutex;
std::function<void(int, const std::string&)> g_observer;
}  // namespace

namespace {
// The logger starts silent unless ZEL_DEBUG asks otherwise, even for lines written
// before the first connect.
std::once_flag g_level_once;
void apply_level_locked() { lws_set_log_level(std::getenv("ZEL_DEBUG") != nullptr ? 65535 : 0, nullptr); }
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
  _lws_log(level, "%s", line.c_str());
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
