#include "foundation/log.h"

#include <libwebsockets.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zel {

namespace {
// Guards our lines on standard error, the enabled flag, the host's callback and its
// mask, and the observer.
// The two functions are never destroyed: a library thread may still log while the
// process exits.
std::mutex g_log_mutex;
std::function<void(int, const std::string&)>& g_observer =
    *new std::function<void(int, const std::string&)>;
std::function<void(int, const std::string&)>& g_callback =
    *new std::function<void(int, const std::string&)>;
int g_levels = LEVEL_ERR | LEVEL_WARN | LEVEL_NOTICE;
bool g_enabled = false;  // ZEL_DEBUG: our lines go to standard error

// Set while this thread runs the host's callback.
thread_local bool t_in_callback = false;

std::string without_newline(const char* line) {
  std::string s(line);
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

// g_log_mutex held.
void deliver_locked(int level, const std::string& line) {
  if (!g_callback || (level & g_levels) == 0) return;
  t_in_callback = true;
  try {
    g_callback(level, line);
  } catch (...) {
    // The host's logger failing must not take a library thread down with it.
  }
  t_in_callback = false;
}

// lws's own lines, all written on the worker thread, come through here.
void emit(int level, const char* line) {
  if (t_in_callback) return;
  std::lock_guard<std::mutex> lock(g_log_mutex);
  if (g_callback) {
    deliver_locked(level, without_newline(line));
  } else {
    lwsl_emit_stderr(level, line);
  }
}

// The logger starts silent unless ZEL_DEBUG asks otherwise, even for lines written
// before the first connect.
std::once_flag g_level_once;
void apply_level_locked() {
  g_enabled = std::getenv("ZEL_DEBUG") != nullptr;
  lws_set_log_level(g_enabled ? 65535 : 0, &emit);
}
}  // namespace

void zel_log(int level, const char* format, ...) {
  if (t_in_callback) return;
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
  if (g_callback) {
    deliver_locked(level, without_newline(line.c_str()));
  } else if (g_enabled) {
    // Written here in lws's format rather than through _lws_log: lws formats into one
    // static buffer, which its own lines on the worker thread use without our lock.
    char stamp[64];
    lwsl_timestamp(level, stamp, sizeof stamp);
    std::fprintf(stderr, "%s%s", stamp, line.c_str());
  }
  if (g_observer) g_observer(level, line);
}

void log_foreign_line(const std::string& line) {
  if (t_in_callback) return;
  std::lock_guard<std::mutex> lock(g_log_mutex);
  if (g_callback) {
    deliver_locked(LEVEL_NOTICE, line);
  } else if (g_enabled) {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

void apply_log_level_from_env() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  apply_level_locked();
}

void set_log_callback(std::function<void(int, const std::string&)> callback) {
  std::call_once(g_level_once, [] {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    apply_level_locked();
  });
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_callback = std::move(callback);
}

void set_log_levels(int levels) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_levels = levels;
}

bool in_log_callback() { return t_in_callback; }

void set_log_observer(std::function<void(int, const std::string&)> observer) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_observer = std::move(observer);
}

}  // namespace zel
