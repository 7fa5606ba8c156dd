#include "outbox/payloads.h"

#include <cstring>

namespace zel {

namespace {

class Writer {
 public:
  void u8(uint8_t v) { out.push_back(static_cast<char>(v)); }
  void u64(uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
  }
  void i64(int64_t v) { u64(static_cast<uint64_t>(v)); }
  void i32(int32_t v) { u64(static_cast<uint64_t>(static_cast<int64_t>(v))); }
  void f64(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    u64(bits);
  }
  void str(const std::string& s) {
    u64(s.size());
    out += s;
  }
  std::string out;
};

class Reader {
 public:
  Reader(const char* d, size_t n) : data(d), size(n) {}
  bool u8(uint8_t& v) {
    if (size - pos < 1) return false;
    v = static_cast<uint8_t>(data[pos++]);
    return true;
  }
  bool u64(uint64_t& v) {
    if (size - pos < 8) return false;
    v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(data[pos + i]);
    pos += 8;
    return true;
  }
  bool i64(int64_t& v) {
    uint64_t u;
    if (!u64(u)) return false;
    v = static_cast<int64_t>(u);
    return true;
  }
  bool i32(int32_t& v) {
    int64_t w;
    if (!i64(w) || w < INT32_MIN || w > INT32_MAX) return false;
    v = static_cast<int32_t>(w);
    return true;
  }
  bool f64(double& v) {
    uint64_t bits;
    if (!u64(bits)) return false;
    std::memcpy(&v, &bits, sizeof v);
    return true;
  }
  bool str(std::string& s) {
    uint64_t n;
    if (!u64(n) || n > size - pos) return false;
    s.assign(data + pos, static_cast<size_t>(n));
    pos += static_cast<size_t>(n);
    return true;
  }
  bool done() const { return pos == size; }
  size_t left() const { return size - pos; }

 private:
  const char* data;
  size_t size;
  size_t pos = 0;
};

}  // namespace

std::string encode(const EventPayload& p) {
  Writer w;
  w.u8(static_cast<uint8_t>(p.kind));
  if (p.kind == EventKind::MOTION) {
    w.i32(p.motion.type);
    w.str(p.motion.camera_mac);
    w.i64(p.motion.start_time);
    w.i64(p.motion.end_time);
    w.str(p.motion.thumbnail);
  } else {
    w.str(p.access.event_type);
    w.i64(p.access.start_time);
    w.i64(p.access.end_time);
    w.str(p.access.device_uuid);
    w.str(p.access.credential_uuid);
    w.str(p.access.meta);
    w.str(p.access.tag);
  }
  return w.out;
}

bool decode(const char* data, size_t size, EventPayload& out) {
  Reader r(data, size);
  uint8_t kind;
  if (!r.u8(kind)) return false;
  out.kind = static_cast<EventKind>(kind);
  bool ok;
  if (out.kind == EventKind::MOTION) {
    EventInfo& e = out.motion;
    ok = r.i32(e.type) && r.str(e.camera_mac) && r.i64(e.start_time) && r.i64(e.end_time) &&
         r.str(e.thumbnail);
  } else if (out.kind == EventKind::ACCESS) {
    AccessEventInfo& e = out.access;
    ok = r.str(e.event_type) && r.i64(e.start_time) && r.i64(e.end_time) && r.str(e.device_uuid) &&
         r.str(e.credential_uuid) && r.str(e.meta) && r.str(e.tag);
  } else {
    return false;
  }
  return ok && r.done();
}

std::string encode(const SentPayload& p) {
  Writer w;
  w.u64(p.event_seq);
  w.str(p.envelope);
  return w.out;
}

bool decode(const char* data, size_t size, SentPayload& out) {
  Reader r(data, size);
  return r.u64(out.event_seq) && r.str(out.envelope) && r.done();
}

std::string encode(const ClipPayload& p) {
  Writer w;
  w.str(p.clip.path);
  w.str(p.clip.camera_mac);
  w.i64(p.clip.start_time);
  w.i64(p.clip.end_time);
  w.i64(p.clip.size);
  w.u64(p.clip.keyframe_times.size());
  for (double k : p.clip.keyframe_times) w.f64(k);
  w.str(p.clip.metadata);
  w.i32(p.opts.upload_option);
  w.i32(p.opts.timeout_seconds);
  w.i32(p.opts.confirm_timeout);
  w.i64(p.file_size);
  w.i64(p.file_mtime_ns);
  return w.out;
}

bool decode(const char* data, size_t size, ClipPayload& out) {
  Reader r(data, size);
  ClipInfo& c = out.clip;
  uint64_t keyframes;
  if (!(r.str(c.path) && r.str(c.camera_mac) && r.i64(c.start_time) && r.i64(c.end_time) &&
        r.i64(c.size) && r.u64(keyframes)))
    return false;
  // A count the bytes cannot hold is damage, not a reason to allocate.
  if (keyframes > r.left() / 8) return false;
  c.keyframe_times.resize(static_cast<size_t>(keyframes));
  for (double& k : c.keyframe_times)
    if (!r.f64(k)) return false;
  return r.str(c.metadata) && r.i32(out.opts.upload_option) && r.i32(out.opts.timeout_seconds) &&
         r.i32(out.opts.confirm_timeout) && r.i64(out.file_size) && r.i64(out.file_mtime_ns) &&
         r.done();
}

std::string encode(const ClipStatePayload& p) {
  Writer w;
  w.u64(p.clip_seq);
  w.i32(p.state);
  w.i64(p.bytes);
  w.i64(p.handed_over_at);
  return w.out;
}

bool decode(const char* data, size_t size, ClipStatePayload& out) {
  Reader r(data, size);
  return r.u64(out.clip_seq) && r.i32(out.state) && r.i64(out.bytes) && r.i64(out.handed_over_at) &&
         r.done();
}

std::string encode_retire(const std::vector<uint64_t>& seqs) {
  Writer w;
  w.u64(seqs.size());
  for (uint64_t s : seqs) w.u64(s);
  return w.out;
}

bool decode_retire(const char* data, size_t size, std::vector<uint64_t>& out) {
  Reader r(data, size);
  uint64_t n;
  if (!r.u64(n) || n > r.left() / 8) return false;
  out.resize(static_cast<size_t>(n));
  for (uint64_t& s : out)
    if (!r.u64(s)) return false;
  return r.done();
}

}  // namespace zel
