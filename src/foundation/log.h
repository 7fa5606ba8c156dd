// The library's one way to log. Every thread comes through here; lines reach the
// libwebsockets logger under one mutex, since its formatter is not thread-safe, or the
// host's own log when it registered one.
#pragma once

#include <functional>
#include <string>

namespace zel {

enum LogLevel { LOG_ERR = 1, LOG_WARN = 2, LOG_NOTICE = 4 };

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
