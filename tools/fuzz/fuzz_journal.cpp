// The outbox journal's reader over arbitrary bytes, as a segment left by a crash, a
// flipped bit, a full disk or another program may hold them:
//  - scan_records never reads outside the input, reports records in increasing,
//    non-overlapping order, and each record it reports encodes back to the same bytes;
//  - a payload decodes or is refused, and one that decodes encodes back to itself;
//  - cutting the input just after a record keeps every record before the cut.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "outbox/payloads.h"
#include "outbox/record_format.h"

namespace {

using namespace zel;

template <typename Payload>
void round_trip(const RecordView& r) {
  Payload p;
  if (!decode(r.payload, r.length, p)) return;
  const std::string again = encode(p);
  FUZZ_CHECK(again == std::string(r.payload, r.length), "payload of type %d does not round-trip",
             static_cast<int>(r.type));
}

void check_payload(const RecordView& r) {
  switch (r.type) {
    case RecordType::EVENT:
      round_trip<EventPayload>(r);
      break;
    case RecordType::EVENT_SENT:
      round_trip<SentPayload>(r);
      break;
    case RecordType::CLIP:
      round_trip<ClipPayload>(r);
      break;
    case RecordType::CLIP_STATE:
      round_trip<ClipStatePayload>(r);
      break;
    case RecordType::RETIRE: {
      std::vector<uint64_t> seqs;
      if (decode_retire(r.payload, r.length, seqs))
        FUZZ_CHECK(encode_retire(seqs) == std::string(r.payload, r.length), "retire round-trip");
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  std::vector<std::pair<size_t, size_t>> seen;  // offset, end
  scan_records(bytes, size, [&](const RecordView& r) {
    const size_t end = r.offset + kRecordHeaderSize + r.length;
    FUZZ_CHECK(end <= size, "record past the input: %zu > %zu", end, size);
    FUZZ_CHECK(seen.empty() || r.offset >= seen.back().second, "records overlap at %zu", r.offset);
    FUZZ_CHECK(r.payload == bytes + r.offset + kRecordHeaderSize, "payload misplaced");
    FUZZ_CHECK(encode_record(r.type, r.seq, std::string(r.payload, r.length)) ==
                   std::string(bytes + r.offset, end - r.offset),
               "record at %zu does not encode back to its bytes", r.offset);
    check_payload(r);
    seen.emplace_back(r.offset, end);
  });
  if (!seen.empty()) {
    // A cut right after the first record: that record, and only what lies before, stays.
    size_t count = 0;
    scan_records(bytes, seen.front().second, [&](const RecordView&) { ++count; });
    FUZZ_CHECK(count == 1, "a cut after the first record keeps %zu records", count);
  }
  return 0;
}
