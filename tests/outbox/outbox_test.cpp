// The outbox: its journal over damaged files, and a host that dies, a link that dies and
// a restart against the local cloud.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "foundation/time_utils.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "outbox/journal.h"
#include "outbox/payloads.h"
#include "support/peer.h"

namespace zt {
namespace {

constexpr int64_t kStart = 1614600000;

std::vector<uint64_t> seqs(const std::vector<zel::Journal::Record>& records) {
  std::vector<uint64_t> out;
  for (const auto& r : records) out.push_back(r.seq);
  return out;
}

std::string only_segment(const std::string& dir) {
  std::string found;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    if (std::filesystem::file_size(e.path()) > 0) found = e.path();
  return found;
}

// Twenty records, then the segment cut or damaged: what survives is exactly every sound
// record before the damage, and the reload neither crashes nor hangs.
TEST(Journal, ReloadKeepsEverySoundRecordBeforeTheCut) {
  std::mt19937 rng(26);
  for (int round = 0; round < 12; ++round) {
    TempDir dir;
    std::vector<zel::Journal::Record> live;
    std::vector<size_t> ends;  // of each record in the segment
    {
      auto j = zel::Journal::open(dir.path, live);
      ASSERT_TRUE(j);
      for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(j->append(zel::RecordType::EVENT, j->next_seq(), std::string(10 + i * 7, 'a' + i)));
        ends.push_back(j->disk_bytes());
      }
      j->retire({3});
    }
    const std::string seg = only_segment(dir.path);
    const size_t cut = rng() % (ends.back() + 1);
    std::vector<uint64_t> expect;
    for (size_t i = 0; i < 20; ++i)
      if (ends[i] <= cut && i + 1 != 3) expect.push_back(i + 1);
    if (round % 3 == 1) {
      // A flipped bit in record 5 costs record 5 alone; its retirement of 3 is past the cut.
      std::string bytes = read_file(seg);
      bytes[ends[3] + 30] ^= 0x08;
      std::ofstream(seg, std::ios::binary | std::ios::trunc) << bytes;
      expect.clear();
      for (uint64_t s = 1; s <= 20; ++s)
        if (s != 5 && s != 3) expect.push_back(s);
    } else if (round % 3 == 2) {
      ASSERT_EQ(truncate(seg.c_str(), static_cast<off_t>(cut)), 0);
      expect.clear();  // the retirement of 3 was cut off too: 3 is back
      for (size_t i = 0; i < 20; ++i)
        if (ends[i] <= cut) expect.push_back(i + 1);
    } else {
      ASSERT_EQ(truncate(seg.c_str(), static_cast<off_t>(ends.back())), 0);  // the retirement torn
      expect.clear();
      for (uint64_t s = 1; s <= 20; ++s) expect.push_back(s);
    }
    SCOPED_TRACE("round " + std::to_string(round) + " cut " + std::to_string(cut));
    std::ofstream(dir.path + "/seg-00000000000000ff.zob") << "a foreign file, not a journal";
    live.clear();
    auto j = zel::Journal::open(dir.path, live);
    ASSERT_TRUE(j);
    EXPECT_EQ(seqs(live), expect);
    EXPECT_GT(j->next_seq(), expect.empty() ? 0 : expect.back());
  }
}

// Records come and go: the files stay about the size of what is live, and a record that
// lives through it all is still there after a reload.
TEST(Journal, SizeStaysFlatAndLongLivedRecordsAreCopiedForward) {
  TempDir dir;
  std::vector<zel::Journal::Record> live;
  {
    auto j = zel::Journal::open(dir.path, live);
    ASSERT_TRUE(j->append(zel::RecordType::CLIP, j->next_seq(), "kept"));
    for (int i = 0; i < 4000; ++i) {  // 16 MB through
      const uint64_t seq = j->next_seq();
      ASSERT_TRUE(j->append(zel::RecordType::EVENT, seq, std::string(4000, 'e')));
      j->retire({seq});
    }
    EXPECT_TRUE(eventually([&] { return j->disk_bytes() <= (4u << 20); }));
    j->wait_synced();
  }
  EXPECT_LE(std::distance(std::filesystem::directory_iterator(dir.path), {}), 2);
  auto j = zel::Journal::open(dir.path, live);
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].payload, "kept");
}

// An I/O error (here a file-size limit) turns the journal degraded: appends fail at once
// and are counted; it writes again by itself once the disk lets it.
TEST(Journal, DegradesOnWriteErrorsAndRecovers) {
  TempDir dir;
  std::vector<zel::Journal::Record> live;
  auto j = zel::Journal::open(dir.path, live);
  ASSERT_TRUE(j->append(zel::RecordType::EVENT, j->next_seq(), "before"));
  signal(SIGXFSZ, SIG_IGN);
  rlimit old{}, small{};
  getrlimit(RLIMIT_FSIZE, &old);
  small = old;
  small.rlim_cur = 200;
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_FALSE(j->append(zel::RecordType::EVENT, j->next_seq(), std::string(300, 'x')));
  EXPECT_TRUE(j->degraded());
  EXPECT_FALSE(j->append(zel::RecordType::EVENT, j->next_seq(), "while degraded"));
  setrlimit(RLIMIT_FSIZE, &old);
  ASSERT_TRUE(eventually([&] { return !j->degraded(); }, 8s));
  ASSERT_TRUE(j->append(zel::RecordType::EVENT, j->next_seq(), "after"));
  j.reset();
  j = zel::Journal::open(dir.path, live);
  std::vector<std::string> payloads;
  for (const auto& r : live) payloads.push_back(r.payload);
  EXPECT_EQ(payloads, (std::vector<std::string>{"before", "after"}));
}

zel::EventInfo motion(int i) { return zel::EventInfo{1, "0a1b2c3d4e5f", kStart + i, kStart + i + 1, "t.jpg"}; }

std::vector<std::string> transactions(Cloud& cloud, size_t from, size_t n) {
  std::vector<std::string> out;
  for (size_t i = from; i < from + n; ++i) out.push_back(cloud.sent("transaction", i, 15s).value_or("<none>"));
  return out;
}

// A host killed between accept and send loses nothing: the next process sends it all.
TEST(Outbox, HostKilledBetweenAcceptAndSendLosesNothing) {
  TempDir dir;
  const std::string box = dir.path + "/outbox";
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();  // before any thread of this process exists
  if (child == 0) {
    if (!zel::Upload::set_outbox(box, 1 << 20)) _exit(2);
    for (int i = 0; i < 6; ++i) zel::Upload::upload_event(motion(i));
    zel::Upload::upload_event(zel::AccessEventInfo{"door_opened", kStart, kStart, "door-1", "cred-1", "", ""});
    (void)!write(ready[1], "k", 1);
    for (;;) pause();
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  struct stat st {};
  ASSERT_EQ(stat(box.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  Cloud cloud;
  ASSERT_TRUE(zel::Upload::set_outbox(box, 1 << 20));
  Device device(cloud);
  std::string all;
  for (const std::string& t : transactions(cloud, 0, 7)) all += t + "\n";
  for (int i = 0; i < 6; ++i)
    EXPECT_NE(all.find("\"start_at\":\"" + zel::toISOTime(kStart + i) + "\",\"event_type\""), std::string::npos) << all;
  EXPECT_NE(all.find("\"credential_uuid\":\"cred-1\""), std::string::npos);
  EXPECT_TRUE(eventually([] { return zel::Upload::stats().outbox_records == 0; }, 10s));
}

// Written but never proven when the link died: sent again in order, byte for byte. Proven
// by a pong: retired, never sent again.
TEST(Outbox, UnprovenEventsGoAgainByteForByteProvenOnesNever) {
  TempDir dir;
  FrozenClock clock;
  Cloud cloud;
  ASSERT_TRUE(zel::Upload::set_outbox(dir.path + "/outbox", 1 << 20));
  Device device(cloud);
  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  link.hold_proof_pings(true);
  for (int i = 0; i < 3; ++i) zel::Upload::upload_event(motion(i));
  const std::vector<std::string> first = transactions(cloud, 0, 3);
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"drop\"}"));
  ASSERT_TRUE(eventually([] { return !zel::Upload::stats().link_up; }));
  next_attempt_now();
  EXPECT_EQ(transactions(cloud, 3, 3), first);
  EXPECT_EQ(zel::Upload::stats().outbox_records, 6);  // each event and its envelope

  link.hold_proof_pings(false);
  ASSERT_TRUE(eventually([] { return zel::Upload::stats().outbox_records == 0; }));
  EXPECT_TRUE(cloud.ok("{\"cmd\":\"drop\"}"));
  ASSERT_TRUE(eventually([] { return !zel::Upload::stats().link_up; }));
  next_attempt_now();
  ASSERT_TRUE(cloud.sent("version", 2, 10s));
  zel::Upload::upload_event(motion(9));
  EXPECT_NE(transactions(cloud, 6, 1)[0].find(zel::toISOTime(kStart + 9)), std::string::npos);
  EXPECT_EQ(cloud.count([](const Event& e) { return e.subject == "transaction"; }), 7u);
}

// At the bound the oldest events go first, counted; a clip that finds only clips before
// it stays in memory.
TEST(Outbox, BoundDropsOldestEventsThenRefusesClips) {
  TempDir dir;
  LogCapture log;
  zel::Messaging& m = zel::Messaging::get();
  ASSERT_TRUE(m.set_outbox(dir.path + "/outbox", 400));
  for (int i = 0; i < 8; ++i) m.upload_event(motion(i));  // 82 bytes each
  zel::CloudStats s = m.stats();
  EXPECT_EQ((std::vector<int64_t>{s.outbox_records, s.outbox_bytes, s.outbox_dropped, s.motion_events_queued}),
            (std::vector<int64_t>{4, 4 * 82, 4, 8}));
  Reports a, b;
  const std::string clip_path = dir.file("c.mp4", "abc");
  m.upload_clip(zel::ClipInfo{clip_path, "0A1B2C3D4E5F", kStart, kStart + 60, 3, {}, "", a.callback()});
  m.upload_clip(zel::ClipInfo{clip_path, "0A1B2C3D4E5F", kStart + 100, kStart + 160, 3, {}, std::string(200, 'm'),
                              b.callback()});
  s = m.stats();
  EXPECT_EQ((std::vector<int64_t>{s.outbox_records, s.outbox_dropped, s.clips_queued}), (std::vector<int64_t>{1, 9, 2}));
  EXPECT_EQ(log.count("2|Outbox full: clip not persisted\n"), 1u);
  m.reset_for_tests();
  std::vector<zel::Journal::Record> live;
  auto j = zel::Journal::open(dir.path + "/outbox", live);
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].type, zel::RecordType::CLIP);
}

// A restart finds three clips: one to upload again, one whose file changed, one uploaded
// whose confirmation never came. Only the first is uploaded.
TEST(Outbox, RecoveredClipsCompleteOrEndAtTheirFile) {
  const std::string token = storage_token();
  Cloud cloud{true, storage_flags(token, "clip-secret-1")};
  TempDir dir;
  auto record = [&](const std::string& name, int64_t start, int64_t mtime_skew) {
    zel::ClipPayload p;
    const std::string path = dir.file(name, std::string(4096, 'c'));
    struct stat st {};
    stat(path.c_str(), &st);
    p.clip = zel::ClipInfo{path, "0A1B2C3D4E5F", start, start + 60, 4096, {0}, "m", nullptr};
    p.file_size = 4096;
    p.file_mtime_ns = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec + mtime_skew;
    return zel::encode(p);
  };
  {
    std::vector<zel::Journal::Record> live;
    auto j = zel::Journal::open(dir.path + "/outbox", live);
    ASSERT_TRUE(j);
    j->append(zel::RecordType::CLIP, 1, record("a.mp4", kStart, 0));
    j->append(zel::RecordType::CLIP, 2, record("b.mp4", kStart + 100, 1));
    j->append(zel::RecordType::CLIP, 3, record("c.mp4", kStart + 200, 0));
    j->append(zel::RecordType::CLIP_STATE, 4, zel::encode(zel::ClipStatePayload{3, 5, 4112, kStart + 300}));
  }
  ASSERT_TRUE(zel::Upload::set_outbox(dir.path + "/outbox", 1 << 20));
  std::mutex mu;
  std::map<int64_t, std::vector<std::pair<int, std::string>>> seen;
  zel::Upload::register_recovered_clips([&](int state, const zel::ClipInfo& c, std::string message) {
    std::lock_guard<std::mutex> lock(mu);
    seen[c.start_time - kStart].emplace_back(state, message);
  });
  Device device(cloud, cloud.params(kUploadMac));
  auto states = [&](int64_t at) {
    std::lock_guard<std::mutex> lock(mu);
    States out;
    for (const auto& s : seen[at]) out.push_back(s.first);
    return out;
  };
  ASSERT_TRUE(eventually([&] { return states(0).size() == 6 && states(200).size() == 2; }, 30s));
  EXPECT_EQ(states(0), (States{0, 2, 3, 4, 5, 6}));
  EXPECT_EQ(states(100), (States{7}));
  EXPECT_EQ(seen[100][0].second, "Clip file changed or removed since it was queued");
  EXPECT_EQ(states(200), (States{5, 6}));
  EXPECT_EQ(seen[200][0].second, "Re-sending upload confirmation");
  EXPECT_EQ(cloud.count([](const Event& e) { return e.subject == "storage_access_request"; }), 1u);
  const std::string end = cloud.sent("transaction", 0).value_or("");
  EXPECT_NE(end.find("\"upload_start_at\":\"" + zel::toISOTime(kStart + 300) + "\""), std::string::npos) << end;
  EXPECT_NE(end.find("\"bytes\":\"4112\""), std::string::npos);
  EXPECT_TRUE(eventually([] { return zel::Upload::stats().outbox_records == 0; }));
}

}  // namespace
}  // namespace zt
