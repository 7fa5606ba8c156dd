// The outbox journal's record: a fixed header and a payload, checked by CRC-32.
//
//   0  magic "ZOB1"            4 bytes
//   4  type                    1 byte
//   5  zero                    1 byte
//   6  header check            2 bytes: low 16 bits of the CRC-32 of bytes 0..5 and 8..19
//   8  sequence number         8 bytes
//  16  payload length          4 bytes
//  20  CRC-32 of bytes 0..19 and the payload
//  24  payload
// Integers are little-endian. The header check lets the reader turn down a false magic
// inside a damaged span without running the CRC over a length the garbage made up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace zel {

enum class RecordType : uint8_t {
  EVENT = 1,       // an event as accepted: kind and fields
  EVENT_SENT = 2,  // the envelope an event was first sent in (refers to its EVENT)
  CLIP = 3,        // a clip as accepted, with its file's size and mtime
  CLIP_STATE = 4,  // state 5 of a clip: bytes and hand-over time (refers to its CLIP)
  RETIRE = 5,      // the delivery watermark: records that need not be kept any more
};

constexpr size_t kRecordHeaderSize = 24;
// A segment never grows past this, so no record may either.
constexpr size_t kSegmentMaxBytes = 4u << 20;
constexpr size_t kMaxRecordPayload = kSegmentMaxBytes - kRecordHeaderSize;

struct RecordView {
  RecordType type;
  uint64_t seq;
  const char* payload;
  size_t length;
  size_t offset;  // of the header in the scanned bytes
};

// The bytes of one record.
std::string encode_record(RecordType type, uint64_t seq, const std::string& payload);

// Calls on_record for every sound record, in order. After a damaged one it resumes at the
// next magic, so one bad record costs only itself. Returns how many damaged spans were
// skipped (a torn tail counts as one).
size_t scan_records(const char* data, size_t size,
                    const std::function<void(const RecordView&)>& on_record);

}  // namespace zel
