// The library's one way to log. Every thread comes through here; lines go, under one
// mutex, to the host's own log when it registered one, else with ZEL_DEBUG to standard
// error in libwebsockets' format. lws's formatter is not thread-safe and is left to lws's
// own lines, all written on the worker thread.
#pragma once

#include <functional>
#include <string>

namespace zel {

// Not LOG_*: those are <syslog.h>'s macros, and in a unit that includes it too they would
// stand for syslog's numbers.
enum LogLevel { LEVEL_ERR = 1, LEVEL_WARN = 2, LEVEL_NOTICE = 4 };

void zel_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Applies ZEL_DEBUG: everything to standard error when set, silence otherwise.
void apply_log_level_from_env();

// The host's log: with one registered, every line goes there (without its newline) and
// none to standard error. Calls are serialised; a line logged from inside the callback
// itself is dropped rather than deadlock.
void set_log_callback(std::function<void(int level, const std::string& line)> callback);
void set_log_levels(int levels);  // a mask of LogLevel values; 7 by default
// True while the calling thread runs the host's log callback.
bool in_log_callback();

// A line of libcurl's verbose output (ZEL_DEBUG only), already free of secrets: to the
// host's log as a notice, or to standard error as libcurl would print it.
void log_foreign_line(const std::string& line);

// Test seam: sees every formatted line, whatever the logger's level.
void set_log_observer(std::function<void(int level, const std::string& line)> observer);

}  // namespace zel
