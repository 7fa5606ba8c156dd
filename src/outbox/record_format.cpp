#include "outbox/record_format.h"

#include <zlib.h>

#include <cstring>

namespace zel {

namespace {

constexpr char kMagic[4] = {'Z', 'O', 'B', '1'};

void put_le(char* at, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) at[i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

uint64_t get_le(const char* at, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(at[i]);
  return v;
}

uint32_t crc_of(uint32_t crc, const char* data, size_t size) {
  // zlib takes a uInt length; a payload is far below its limit.
  return static_cast<uint32_t>(
      crc32(crc, reinterpret_cast<const Bytef*>(data), static_cast<uInt>(size)));
}

uint16_t header_check(const char* header) {
  uint32_t crc = crc_of(0, header, 6);
  crc = crc_of(crc, header + 8, 12);
  return static_cast<uint16_t>(crc & 0xffff);
}

bool known_type(uint8_t t) {
  return t >= static_cast<uint8_t>(RecordType::EVENT) && t <= static_cast<uint8_t>(RecordType::RETIRE);
}

// The length of the record at data when it is sound, else 0.
size_t sound_record(const char* data, size_t size) {
  if (size < kRecordHeaderSize || std::memcmp(data, kMagic, 4) != 0) return 0;
  if (!known_type(static_cast<uint8_t>(data[4])) || data[5] != 0) return 0;
  if (get_le(data + 6, 2) != header_check(data)) return 0;
  const uint64_t length = get_le(data + 16, 4);
  if (length > kMaxRecordPayload || length > size - kRecordHeaderSize) return 0;
  uint32_t crc = crc_of(0, data, 20);
  crc = crc_of(crc, data + kRecordHeaderSize, static_cast<size_t>(length));
  if (crc != get_le(data + 20, 4)) return 0;
  return kRecordHeaderSize + static_cast<size_t>(length);
}

}  // namespace

std::string encode_record(RecordType type, uint64_t seq, const std::string& payload) {
  std::string out(kRecordHeaderSize, '\0');
  char* h = &out[0];
  std::memcpy(h, kMagic, 4);
  h[4] = static_cast<char>(type);
  put_le(h + 8, seq, 8);
  put_le(h + 16, payload.size(), 4);
  put_le(h + 6, header_check(h), 2);
  uint32_t crc = crc_of(0, h, 20);
  crc = crc_of(crc, payload.data(), payload.size());
  put_le(h + 20, crc, 4);
  out += payload;
  return out;
}

size_t scan_records(const char* data, size_t size,
                    const std::function<void(const RecordView&)>& on_record) {
  size_t bad = 0;
  size_t pos = 0;
  while (pos < size) {
    const size_t length = sound_record(data + pos, size - pos);
    if (length > 0) {
      on_record(RecordView{static_cast<RecordType>(data[pos + 4]), get_le(data + pos + 8, 8),
                           data + pos + kRecordHeaderSize, length - kRecordHeaderSize, pos});
      pos += length;
      continue;
    }
    ++bad;
    // Resynchronise on the next magic; none left means the rest is a torn tail.
    const void* next = memmem(data + pos + 1, size - pos - 1, kMagic, sizeof kMagic);
    if (next == nullptr) break;
    pos = static_cast<size_t>(static_cast<const char*>(next) - data);
  }
  return bad;
}

}  // namespace zel
