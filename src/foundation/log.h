// The library's one way to log. Every thread comes through here; lines go to standard
// error, in libwebsockets' format, under one mutex. lws's formatter is not thread-safe
// and is left to lws's own lines, all written on the worker thread.
#pragma once

#include <functional>
#include <string>

namespace zel {

enum LogLevel { LOG_ERR = 1, LOG_WARN = 2, LOG_NOTICE = 4 };

void zel_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Applies ZEL_DEBUG: everything to standard error when set, silence otherwise.
void apply_log_level_from_env();

// Test seam: sees every formatted line, whatever the logger's level.
void set_log_observer(std::function<void(int level, const std::string& line)> observer);

}  // namespace zel
