// What the outbox's records carry, and their byte layouts. Decoding never trusts the
// bytes: a payload that runs short or long decodes to false.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zel/records.h"

namespace zel {

enum class EventKind : uint8_t { MOTION = 1, ACCESS = 2 };

struct EventPayload {
  EventKind kind = EventKind::MOTION;
  EventInfo motion;
  AccessEventInfo access;
};

struct SentPayload {
  uint64_t event_seq = 0;
  std::string envelope;
};

// A clip without its callbacks, and the file as it was when the clip was accepted.
struct ClipPayload {
  ClipInfo clip;
  UploadOpts opts;
  int64_t file_size = 0;
  int64_t file_mtime_ns = 0;
};

struct ClipStatePayload {
  uint64_t clip_seq = 0;
  int32_t state = CLIP_UPLOADED;
  int64_t bytes = 0;
  int64_t handed_over_at = 0;  // seconds; the time the record-end message carries
};

std::string encode(const EventPayload& p);
std::string encode(const SentPayload& p);
std::string encode(const ClipPayload& p);
std::string encode(const ClipStatePayload& p);
std::string encode_retire(const std::vector<uint64_t>& seqs);

bool decode(const char* data, size_t size, EventPayload& out);
bool decode(const char* data, size_t size, SentPayload& out);
bool decode(const char* data, size_t size, ClipPayload& out);
bool decode(const char* data, size_t size, ClipStatePayload& out);
bool decode_retire(const char* data, size_t size, std::vector<uint64_t>& out);

}  // namespace zel
