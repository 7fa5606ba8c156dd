// What may be logged of a message: its size and subject, or its text with the values that
// grant access masked. Nothing that crosses the wire reaches a log line unmasked.
#pragma once

#include <string>

namespace zel {

// "<412 bytes>" or "<412 bytes, subject getStorageAccess>": an inbound text described
// without a byte of its content. The subject is found even in a text that is not JSON
// (the tail of a message cut short), as long as it is a plain word.
std::string describe_inbound(const std::string& text);

// The text with the string values of "token", "secret", "key", "cert" and "password", and
// everything after each "sig=", replaced by "***".
std::string mask_secrets(std::string text);

}  // namespace zel
