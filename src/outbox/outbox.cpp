#include "outbox/outbox.h"

#include <sys/stat.h>

#include <algorithm>

#include "foundation/log.h"

namespace zel {

std::unique_ptr<Outbox> Outbox::open(const std::string& dir, uint64_t max_bytes) {
  std::vector<Journal::Record> records;
  std::unique_ptr<Journal> journal = Journal::open(dir, records);
  if (!journal) return nullptr;
  std::unique_ptr<Outbox> outbox(new Outbox(std::move(journal), max_bytes));
  outbox->load(records);
  return outbox;
}

void Outbox::load(std::vector<Journal::Record>& records) {
  std::map<uint64_t, EventPayload> accepted;
  std::map<uint64_t, uint64_t> state_seqs;  // clip seq: its CLIP_STATE record
  for (Journal::Record& r : records) {
    const char* data = r.payload.data();
    const size_t size = r.payload.size();
    bool ok = true;
    if (r.type == RecordType::EVENT) {
      EventPayload p;
      ok = decode(data, size, p);
      if (ok) accepted[r.seq] = std::move(p);
    } else if (r.type == RecordType::EVENT_SENT) {
      SentPayload p;
      ok = decode(data, size, p) && accepted.count(p.event_seq) > 0;
      if (ok) {
        events[p.event_seq].sent_seq = r.seq;
        replay_envelopes[p.event_seq] = std::move(p.envelope);
      }
    } else if (r.type == RecordType::CLIP) {
      ClipPayload p;
      ok = decode(data, size, p);
      if (ok) replay.clips.emplace_back(r.seq, std::move(p));
    } else if (r.type == RecordType::CLIP_STATE) {
      ClipStatePayload p;
      ok = decode(data, size, p);
      if (ok) {
        replay.uploaded[p.clip_seq] = p;
        state_seqs[p.clip_seq] = r.seq;
      }
    }
    if (!ok) {
      // A record that decodes to nothing sensible is of no use to anyone: gone for good.
      zel_log(LEVEL_WARN, "Outbox record %llu cannot be read: dropped\n",
              static_cast<unsigned long long>(r.seq));
      journal->retire({r.seq});
    }
  }
  for (auto& a : accepted) {
    Event& e = events[a.first];
    e.kind = a.second.kind;
    e.durable = true;
    durable_events.insert(a.first);
    auto env = replay_envelopes.find(a.first);
    if (env != replay_envelopes.end()) {
      // Sent once: it goes again byte for byte, so the server can tell the duplicate.
      e.envelope = std::move(env->second);
      resend[index(e.kind)].push_back(a.first);
    } else if (a.second.kind == EventKind::MOTION) {
      replay.motion.emplace_back(a.first, std::move(a.second.motion));
    } else {
      replay.access.emplace_back(a.first, std::move(a.second.access));
    }
  }
  replay_envelopes.clear();
  for (const auto& c : replay.clips) {
    auto st = state_seqs.find(c.first);
    clips[clip_key(c.second.clip)] = {c.first, st == state_seqs.end() ? 0 : st->second};
  }
  // An envelope whose event record is gone cannot be told apart from garbage.
  for (auto it = events.begin(); it != events.end();) {
    if (accepted.count(it->first) == 0) {
      journal->retire({it->second.sent_seq});
      it = events.erase(it);
    } else {
      ++it;
    }
  }
}

std::string Outbox::clip_key(const ClipInfo& clip) {
  std::string mac = clip.camera_mac;
  for (char& ch : mac) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return mac + std::to_string(clip.start_time);
}

bool Outbox::make_room(size_t size) {
  while (journal->live_bytes() + size > max_bytes && !durable_events.empty()) {
    const uint64_t oldest = *durable_events.begin();
    auto it = events.find(oldest);
    journal->retire({oldest, it->second.sent_seq});
    durable_events.erase(durable_events.begin());
    ++dropped_;
    // Out of the journal, out of delivery tracking too: a server that never answers a
    // ping must not make the library hold every envelope it ever sent.
    if (!it->second.envelope.empty()) {
      events.erase(it);
      continue;
    }
    it->second.durable = false;
    it->second.sent_seq = 0;
  }
  return journal->live_bytes() + size <= max_bytes;
}

void Outbox::accept_event(const EventPayload& p) {
  const uint64_t seq = journal->next_seq();
  Event& e = events[seq];
  e.kind = p.kind;
  queued[index(p.kind)].push_back(seq);
  const std::string payload = encode(p);
  if (!make_room(Journal::record_size(payload))) {
    ++dropped_;  // clips alone fill the outbox: this event lives in memory only
    return;
  }
  e.durable = journal->append(RecordType::EVENT, seq, payload);
  if (e.durable) durable_events.insert(seq);
}

void Outbox::accept(const EventInfo& event) {
  EventPayload p;
  p.kind = EventKind::MOTION;
  p.motion = event;
  accept_event(p);
}

void Outbox::accept(const AccessEventInfo& event) {
  EventPayload p;
  p.kind = EventKind::ACCESS;
  p.access = event;
  accept_event(p);
}

uint64_t Outbox::take_queued(EventKind kind) {
  std::deque<uint64_t>& q = queued[index(kind)];
  if (q.empty()) return 0;
  const uint64_t seq = q.front();
  q.pop_front();
  return seq;
}

void Outbox::retire_event(uint64_t seq) {
  auto it = events.find(seq);
  if (it == events.end()) return;
  if (it->second.durable) journal->retire({seq, it->second.sent_seq});
  durable_events.erase(seq);
  events.erase(it);
}

void Outbox::skipped(uint64_t seq) { retire_event(seq); }

uint64_t Outbox::sent(uint64_t seq, const std::string& envelope, uint64_t connection) {
  auto it = events.find(seq);
  if (it == events.end()) return 0;
  if (it->second.durable && it->second.sent_seq == 0) {
    const std::string payload = encode(SentPayload{seq, envelope});
    // Room first: that may drop this very event, the oldest, which then goes untracked.
    // Without room the event keeps its fields: after a restart it is built afresh.
    const bool room = make_room(Journal::record_size(payload));
    it = events.find(seq);
    if (it == events.end()) return 0;
    const uint64_t sent_seq = journal->next_seq();
    if (room && it->second.durable && journal->append(RecordType::EVENT_SENT, sent_seq, payload))
      it->second.sent_seq = sent_seq;
  }
  if (!it->second.durable) {
    events.erase(it);  // not in the journal: sent as without an outbox
    return 0;
  }
  it->second.connection = connection;
  it->second.envelope = envelope;
  return seq;
}

bool Outbox::next_resend(EventKind kind, uint64_t& seq, std::string& envelope) {
  std::deque<uint64_t>& q = resend[index(kind)];
  while (!q.empty()) {
    seq = q.front();
    q.pop_front();
    auto it = events.find(seq);
    if (it == events.end()) continue;  // proven after all
    envelope = it->second.envelope;
    return true;
  }
  return false;
}

void Outbox::settle(const std::vector<uint64_t>& proven, uint64_t connection) {
  for (uint64_t seq : proven) retire_event(seq);
  // Sent on a link that has ended, never proven: again, in their order, before anything
  // newer of their kind.
  std::vector<uint64_t> again[2];
  for (auto& entry : events) {
    Event& e = entry.second;
    if (e.connection == 0 || e.connection == connection) continue;
    e.connection = 0;
    again[index(e.kind)].push_back(entry.first);
  }
  for (size_t k = 0; k < 2; ++k) {
    if (again[k].empty()) continue;
    std::deque<uint64_t>& q = resend[k];
    q.insert(q.end(), again[k].begin(), again[k].end());
    std::sort(q.begin(), q.end());
  }
}

void Outbox::accept_clip(const std::string& key, const ClipInfo& clip, const UploadOpts& opts) {
  ClipPayload p;
  p.clip = clip;
  p.clip.callback = nullptr;
  p.opts = opts;
  p.opts.upload_callback = nullptr;
  struct stat st {};
  if (::stat(clip.path.c_str(), &st) != 0) return;
  p.file_size = st.st_size;
  p.file_mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  const std::string payload = encode(p);
  const uint64_t seq = journal->next_seq();
  if (!make_room(Journal::record_size(payload))) {
    ++dropped_;
    zel_log(LEVEL_WARN, "Outbox full: clip not persisted\n");
    return;
  }
  if (journal->append(RecordType::CLIP, seq, payload)) clips[key] = {seq, 0};
}

void Outbox::clip_uploaded(const std::string& key, int64_t bytes, int64_t handed_over_at) {
  auto it = clips.find(key);
  if (it == clips.end()) return;
  ClipStatePayload p{it->second.first, CLIP_UPLOADED, bytes, handed_over_at};
  const std::string payload = encode(p);
  const uint64_t seq = journal->next_seq();
  if (!make_room(Journal::record_size(payload))) return;
  if (journal->append(RecordType::CLIP_STATE, seq, payload)) {
    if (it->second.second != 0) journal->retire({it->second.second});
    it->second.second = seq;
  }
}

void Outbox::clip_final(const std::string& key) {
  auto it = clips.find(key);
  if (it == clips.end()) return;
  journal->retire({it->second.first, it->second.second});
  clips.erase(it);
}

std::vector<std::pair<ClipPayload, ClipStatePayload>> Outbox::take_recovered_clips() {
  std::vector<std::pair<ClipPayload, ClipStatePayload>> out;
  for (auto& c : replay.clips) {
    auto st = replay.uploaded.find(c.first);
    ClipStatePayload state;
    state.state = CLIP_QUEUED;
    if (st != replay.uploaded.end()) state = st->second;
    out.emplace_back(std::move(c.second), state);
  }
  replay.clips.clear();
  replay.uploaded.clear();
  return out;
}

Outbox::Replay Outbox::take_replayed_events() {
  Replay r;
  r.motion.swap(replay.motion);
  r.access.swap(replay.access);
  return r;
}

}  // namespace zel
