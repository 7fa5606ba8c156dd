// The durable outbox: what the library must not lose if the host process dies, kept in
// a Journal and followed through its life. Events live from upload_event until the
// peer's WebSocket stack has proven it read them (a pong to a ping sent after them);
// clips from upload_clip until their final state.
//
// All operations but the stats run with Messaging's work_mutex held; the journal has its
// own lock for its files.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "outbox/journal.h"
#include "outbox/payloads.h"

namespace zel {

class Outbox {
 public:
  // What the journal held when it was opened, for connect to put back in the queues.
  struct Replay {
    std::vector<std::pair<uint64_t, EventInfo>> motion;         // never sent: built afresh
    std::vector<std::pair<uint64_t, AccessEventInfo>> access;
    std::vector<std::pair<uint64_t, ClipPayload>> clips;        // by sequence number
    std::map<uint64_t, ClipStatePayload> uploaded;              // by clip sequence number
  };

  // nullptr when the directory is refused or unusable (logged).
  static std::unique_ptr<Outbox> open(const std::string& dir, uint64_t max_bytes);

  // Events. accept_* returns the event's sequence number, which rides along with it in
  // the queue (take_queued gives it back in the same order).
  void accept(const EventInfo& e);
  void accept(const AccessEventInfo& e);
  uint64_t take_queued(EventKind kind);
  // Puts replayed events in front of what was accepted since the outbox was opened.
  void push_front_queued(EventKind kind, uint64_t seq) { queued[index(kind)].push_front(seq); }
  // The event left the queue without being sent (a type nobody reports).
  void skipped(uint64_t seq);
  // The envelope the event goes out in; tag is what the link reports it by (0: untracked).
  uint64_t sent(uint64_t seq, const std::string& envelope, uint64_t connection);
  // An envelope to send again before anything new of that kind: sent, never proven.
  bool next_resend(EventKind kind, uint64_t& seq, std::string& envelope);
  // Proven events are retired; those sent on an earlier connection go back for resending.
  void settle(const std::vector<uint64_t>& proven, uint64_t connection);

  // Clips, by pending key.
  void accept_clip(const std::string& key, const ClipInfo& clip, const UploadOpts& opts);
  void clip_uploaded(const std::string& key, int64_t bytes, int64_t handed_over_at);
  void clip_final(const std::string& key);
  // Takes the clips the journal held (once); their keys stay known for clip_final.
  // The state is CLIP_UPLOADED for a clip whose upload was done, CLIP_QUEUED otherwise.
  std::vector<std::pair<ClipPayload, ClipStatePayload>> take_recovered_clips();
  static std::string clip_key(const ClipInfo& clip);
  bool has_recovered_clips() const { return !replay.clips.empty(); }
  Replay take_replayed_events();

  uint64_t bytes() const { return journal->live_bytes(); }
  uint64_t records() const { return journal->live_records(); }
  uint64_t dropped() const { return dropped_; }
  bool degraded() const { return journal->degraded(); }
  Journal& get_journal() { return *journal; }

 private:
  struct Event {
    EventKind kind;
    bool durable = false;
    uint64_t sent_seq = 0;  // the EVENT_SENT record
    uint64_t connection = 0;
    std::string envelope;   // kept while it may have to go again
  };
  static size_t index(EventKind k) { return k == EventKind::MOTION ? 0 : 1; }

  Outbox(std::unique_ptr<Journal> j, uint64_t max) : journal(std::move(j)), max_bytes(max) {}
  void load(std::vector<Journal::Record>& records);
  void accept_event(const EventPayload& p);
  // Makes room for a record of this size by dropping the oldest durable events; false
  // when even that is not enough.
  bool make_room(size_t size);
  void retire_event(uint64_t seq);

  std::unique_ptr<Journal> journal;
  const uint64_t max_bytes;
  std::map<uint64_t, Event> events;   // accepted, not yet proven
  std::set<uint64_t> durable_events;  // those with a live EVENT record, oldest first
  std::deque<uint64_t> queued[2];     // beside Messaging's two event queues
  std::deque<uint64_t> resend[2];
  std::map<std::string, std::pair<uint64_t, uint64_t>> clips;  // key: CLIP, CLIP_STATE seqs
  Replay replay;
  std::map<uint64_t, std::string> replay_envelopes;  // event seq: first envelope
  uint64_t dropped_ = 0;
};

}  // namespace zel
