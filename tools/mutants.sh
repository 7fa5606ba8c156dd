#!/usr/bin/env bash
# Mutation check: plants one small deliberate fault at a time in a scratch copy of the
# tree, rebuilds incrementally, runs the suites that cover that code and reports whether
# they noticed. A fault the suites do not notice ("survived") is a hole in the tests.
#
#   bash tools/mutants.sh              every fault below, against the working tree
#   bash tools/mutants.sh --rev REV    against a commit instead (for example an older suite)
#   bash tools/mutants.sh 3 17         only faults 3 and 17 (numbers as printed)
#   bash tools/mutants.sh --list       the table, nothing built
#
# Copies the tree (without .git and build/) to build/mutants-NAME/tree, NAME being the
# revision or "work", and builds it there once at -O1 without sanitizers (plain/); faults
# marked "tsan" (a dropped lock shows only as a data race) use a ThreadSanitizer build
# (tsan/). Later runs of the same NAME rebuild incrementally.
#
# Before any fault, the suites the chosen faults use run on the unmutated tree: if one
# fails (a missing emulator, a flaky test), the run stops with status 2 naming it, since
# every fault would look "killed". A fault counts as killed only when a test failed (a
# gtest failure, a sanitizer's report, or a hang: ctest's time-out, the suite's own
# watchdog, or ZEL_MUTANT_SECONDS, default 300, for all its tests). A test program that
# ended otherwise (a crash, abort or exit, a peer that did not start) is "aborted", and a
# fault whose text is no longer found or that no longer compiles is "invalid": neither
# counts, and either makes the run fail (status 1) until the table or the tests are fixed.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
limit=${ZEL_MUTANT_SECONDS:-300}
rev=""
if [ "${1:-}" = "--rev" ]; then rev=$(git -C "$root" rev-parse --short "$2") || exit 2; shift 2; fi
work="$root/build/mutants-${rev:-work}"
tree="$work/tree"

# build|suites|file|original text (unique in the file)|replacement
# In the texts "\|" stands for "|" and "¶" for a line break; the rest is as in the source.
# suites: the ctest prefixes (subsystems) that must notice the fault.
# Lines starting with "#" head a group; rows are numbered in order across groups, so add
# new rows at the end of the table to keep the numbers of the others.
faults=$(cat <<'EOF'
# --- The design's code
plain|foundation,link|src/foundation/envelope.cpp|"signature", "n/a"|"signature", "n/b"
plain|foundation|src/foundation/envelope.cpp|(reparsed.get(), "original_id"|(reparsed.get(), "originalId"
plain|foundation|src/foundation/time_utils.cpp|"%FT%TZ"|"%FT%T"
plain|foundation,link|src/foundation/time_utils.cpp|< static_cast<int64_t>(period))|<= static_cast<int64_t>(period))
plain|foundation|src/foundation/json_helpers.cpp|if (!cJSON_IsObject(doc.get())) return false;|if (!doc) return false;
plain|foundation,handlers|src/foundation/msg_response.cpp|\"Not implemented\"}|\"Not implemented.\"}
plain|link|src/link/reconnect_schedule.h|kMinGapMs = 5000;|kMinGapMs = 4000;
plain|link|src/link/websocket_client.cpp|if (length > kMaxPayload) {|if (length >= kMaxPayload) {
plain|link|src/link/websocket_client.cpp|kCloseDisconnecting = 4003;|kCloseDisconnecting = 4004;
plain|link|src/link/websocket_client.cpp|kCloseRequested = 4429;|kCloseRequested = 4428;
plain|link|src/link/websocket_client.cpp|if (!lws_is_final_fragment(w) \|\| lws_remaining_packet_payload(w) > 0) return;|
plain|link|src/link/websocket_client.cpp|"Payload(%zu) bigger than buffer(%d), skipping\n"|"Payload(%zu) bigger than buffer (%d), skipping\n"
plain|link|src/link/websocket_client.cpp| \| LWS_SERVER_OPTION_JUST_USE_RAW_ORIGIN;|;
plain|link|src/link/websocket_client.cpp|if (was_connected) call_guarded(on_disconnect|call_guarded(on_disconnect
plain|link|src/link/message_queues.cpp|if (!linked_locked() && !force) return;|if (!linked_locked() && force) return;
plain|link,messaging|src/messaging/inbound.cpp|kMaxMissedPongs = 5;|kMaxMissedPongs = 6;
plain|link,messaging|src/messaging/inbound.cpp|"Pong message not received in %d seconds, disconnecting.\n"|"Pong message not received in %d seconds, disconnecting\n"
plain|link,messaging|src/messaging/messaging.cpp|kPingPeriod = 30;|kPingPeriod = 29;
plain|link,messaging|src/messaging/messaging.cpp|v += "\",\"ui\":\"none\"}";|v += "\",\"ui\":\"None\"}";
plain|messaging,handlers,link|src/messaging/inbound.cpp|resp.ok ? "OK" : "ERROR"|resp.ok ? "OK" : "FAIL"
plain|link,inventory|src/messaging/messaging.cpp|for (const std::string& id : cameras) send_camera_to_cloud(id);|
plain|events,messaging|src/messaging/messaging.cpp|device_info.device_type = "controller";|device_info.device_type = "controler";
plain|handlers,messaging|src/handlers/dispatch.cpp|"Not supported subject: "|"Unsupported subject: "
plain|handlers|src/handlers/dispatch.cpp|if (subject == "updateFirmware")|if (subject == "updatefirmware")
plain|handlers,messaging|src/handlers/dispatch.cpp|if (cJSON_IsNumber(account)) status.account_id = account->valueint;|if (cJSON_IsNumber(account)) status.partner_id = account->valueint;
plain|handlers|src/handlers/dispatch.cpp|info.device = string_member(root.get(), "device");¶    const|info.device = string_member(root.get(), "action");¶    const
plain|handlers|src/handlers/device_reports.cpp|"000\",\"recorder\":|"\",\"recorder\":
plain|handlers|src/handlers/certificates.cpp|is_key ? 0600 : 0644|is_key ? 0644 : 0644
plain|handlers,clips|src/handlers/storage_access.cpp|string_member(root.get(), "start_at");|string_member(root.get(), "startAt");
plain|inventory|src/inventory/items.cpp|.boolean("is_exit", is_exit)|.boolean("is_exit", !is_exit)
plain|inventory|src/inventory/items.cpp|display_name(name, "Relay ", relay_number)|display_name(name, "Relay", relay_number)
plain|inventory,link|src/inventory/templates.cpp|"password": "24680",|"password": "2468",
plain|inventory|src/inventory/registration.cpp|"cloudsync", "{}"|"cloudSync", "{}"
plain|inventory|src/inventory/registration.cpp|"\",\"recurrence_count\": \""|"\",\"recurrence_count\":\""
plain|events|src/events/motion_events.cpp|if (event.type == 2)|if (event.type == 3)
plain|events|src/events/access_events.cpp|if (account_id >= 1)|if (account_id >= 0)
plain|events|src/events/access_events.cpp|if (event.device_uuid.empty()) return;|
plain|events,clips|src/events/transactions.cpp|unacked_clips.find(ack.from + ack.start_at)|unacked_clips.find(ack.type + ack.start_at)
plain|events|src/events/transactions.cpp|== "user") messaging->send_version_to_cloud();|== "users") messaging->send_version_to_cloud();
plain|clips|src/clips/clip_intake.cpp|else if (real_size > kMaxClipSize)|else if (real_size >= kMaxClipSize)
plain|clips|src/clips/credentials.cpp|kCredentialLifetime = 240;|kCredentialLifetime = 241;
plain|clips|src/clips/clip_expiry.cpp|kMaxUnacked = 1000;|kMaxUnacked = 999;
plain|clips|src/clips/clip_expiry.cpp|entry.last_change + timeout >= now|entry.last_change + timeout > now
plain|clips|src/clips/record_messages.cpp|\"provider\":\"azure\",\"cameraMac\":\"|\"provider\":\"azure\",\"camera_mac\":\"
plain|clips|src/clips/record_messages.cpp|"\",\"upload_end_at\":\""|"\",\"upload_ended_at\":\""
plain|clips|src/clips/clip_intake.cpp|pending_clips.size() >= upload_threads|pending_clips.size() > upload_threads
plain|clips|src/clips/clip_intake.cpp|report_clip(pending.clip, CLIP_WAITING_CREDENTIALS, "");|
plain|clips|src/clips/upload_pool.cpp|reports.push_back({entry.clip, status.state, status.message});|reports.push_back({entry.clip, status.state, status.message}); reports.push_back({entry.clip, status.state, status.message});
plain|clips|src/clips/clip_intake.cpp|report_clip(clip, CLIP_FAILED, "User cancelled");|report_clip(clip, CLIP_FAILED, "User canceled");
plain|clips|src/upload/upload_status.h|"Upload interrupted by disconnect"|"Upload interrupted by a disconnect"
plain|clips|src/clips/clip_intake.cpp|return camera_mac + toISOTime(static_cast<long>(start_time));|return camera_mac + std::to_string(start_time);
plain|clips,upload|src/upload/uploader_thread.cpp|{key, "", 0, CLIP_UPLOADING}|{key, "", 0, CLIP_UPLOAD_STARTED}
plain|upload|src/upload/streaming_crypto.cpp|encrypted_size = file_size / kBlock * kBlock + kBlock;|encrypted_size = (file_size + kBlock - 1) / kBlock * kBlock;
plain|upload|src/upload/streaming_crypto.cpp|if (p == 0 \|\| p > static_cast<int>(kBlock) \|\| p > len) {|if (p == 0 \|\| p > static_cast<int>(kBlock) + 1 \|\| p > len) {
plain|upload|src/upload/streaming_crypto.cpp|carry_len = fill(carry, sizeof carry);|carry_len = fill(carry, 16);
plain|upload|src/upload/storage_request.cpp|if (put.whole_blob) raw = curl_slist_append(raw, "x-ms-blob-type: BlockBlob");|
plain|upload|src/upload/storage_request.cpp|"x-ms-version: 2020-04-08"|"x-ms-version: 2020-04-09"
plain|upload|src/upload/storage_request.cpp|+ ".mp4";|+ ".mp5";
plain|upload|src/upload/storage_request.cpp|"%Y-%m-%d", &parts)|"%Y/%m/%d", &parts)
plain|upload|src/upload/storage_request.cpp|if (put.expect_timeout_s <= 0) raw|if (put.expect_timeout_s < 0) raw
plain|upload|src/upload/uploader.cpp|if (d.timeout_s > 0 && elapsed >= d.timeout_s) {|if (d.timeout_s > 0 && elapsed > d.timeout_s) {
plain|upload|src/upload/uploader_cluster.cpp|  work_ready.notify_one();|
plain|upload|src/upload/uploader_cluster.cpp|  queue.clear();¶  return keys;|  return keys;
tsan|upload|src/upload/uploader_cluster.cpp|  std::lock_guard<std::mutex> lock(queue_mutex);¶  statuses.push_back(status);|  statuses.push_back(status);
# --- Added since the design: proxy, log, stats, limiter, refusals, stall, bounded disconnect
plain|foundation|src/foundation/proxy_settings.cpp|std::string rest = trim(raw);|std::string rest = raw;
plain|foundation|src/foundation/proxy_settings.cpp|if (lower(rest.substr(0, sep)) != "http")|if (rest.substr(0, sep) != "http")
plain|foundation|src/foundation/proxy_settings.cpp|size_t at = rest.rfind('@');|size_t at = rest.find('@');
plain|foundation|src/foundation/proxy_settings.cpp|hi * 16 + lo|hi * 10 + lo
plain|foundation|src/foundation/proxy_settings.cpp|*host = in.substr(1, close - 1);|*host = in.substr(0, close);
plain|foundation|src/foundation/proxy_settings.cpp|    if (rest.find_first_not_of('/', slash) != std::string::npos) return std::nullopt;¶|
plain|foundation|src/foundation/proxy_settings.cpp|kDefaultProxyPort = 1080;|kDefaultProxyPort = 8080;
plain|foundation|src/foundation/proxy_settings.cpp|if (r.port < 1 \|\| r.port > 65535)|if (r.port < 0 \|\| r.port > 65535)
plain|foundation|src/foundation/proxy_settings.cpp|std::string host = lower(target);|std::string host = target;
plain|foundation|src/foundation/proxy_settings.cpp|no_proxy.find_first_of(", \t", pos);|no_proxy.find_first_of(",", pos);
plain|foundation|src/foundation/proxy_settings.cpp|if (entry == "*") return true;|if (entry == "*") continue;
plain|foundation|src/foundation/proxy_settings.cpp|if (!entry.empty() && entry[0] == '.') entry.erase(0, 1);|
plain|foundation|src/foundation/proxy_settings.cpp| &&¶        host[host.size() - entry.size() - 1] == '.')|)
plain|foundation|src/foundation/proxy_settings.cpp|      if (address_entry_matches(entry, ip)) return true;¶      continue;|      if (address_entry_matches(entry, ip)) return true;
plain|foundation|src/foundation/proxy_settings.cpp|net.size == 0 \|\| net.size != target.size|net.size == 0
plain|foundation|src/foundation/proxy_settings.cpp|if (bits > net.size * 8) return false;|if (bits > 128) return false;
plain|foundation|src/foundation/proxy_settings.cpp|if (bits == 0) bits = net.size * 8;|
plain|foundation|src/foundation/proxy_settings.cpp|0xffu << (8 - bits % 8)|0xffu << (7 - bits % 8)
plain|link|src/foundation/proxy_settings.cpp|(s == "wss" \|\| s == "https") ?|(s == "wss") ?
plain|link|src/foundation/proxy_settings.cpp|user + ":***@"|user + ":" + password + "@"
plain|link|src/link/proxy_tunnel.cpp|code = code * 10 + (answer[i] - '0');|code = code * 16 + (answer[i] - '0');
plain|link|src/link/proxy_tunnel.cpp|answer[8] != ' '|answer[7] != ' '
plain|link|src/upload/curl_proxy.cpp|if (connect_code != 0) return route.failure(connect_code);|
plain|link|src/upload/curl_trace.cpp|"> Proxy-Authorization:"|"> Proxy-Authorisation:"
plain|clips|src/upload/curl_trace.cpp|for (size_t q = line.find('?');|for (size_t q = line.find('#');
plain|foundation|src/foundation/log.cpp|if (!g_callback \|\| (level & g_levels) == 0) return;|if (!g_callback) return;
plain|foundation|src/foundation/log.cpp|(s.back() == '\n' \|\| s.back() == '\r')|(s.back() == '\r')
plain|clips|src/foundation/log.cpp|deliver_locked(LEVEL_NOTICE, line);|deliver_locked(LEVEL_WARN, line);
plain|foundation|src/messaging/upload.cpp|bool Upload::disconnect() {¶  if (in_log_callback()) return false;|bool Upload::disconnect() {
plain|foundation|src/messaging/upload.cpp|bool Upload::stop() {¶  if (in_log_callback()) return false;|bool Upload::stop() {
plain|foundation|src/messaging/upload.cpp|const std::string&)> cb) {¶  if (in_log_callback()) return;|const std::string&)> cb) {
plain|clips|src/messaging/messaging.cpp|ThreadRole::HOST && !in_host_callback()) return false;|ThreadRole::HOST) return false;
plain|clips|src/messaging/messaging.cpp|if (thread_role() == ThreadRole::HOST && !in_host_callback()) return false;|if (!in_host_callback()) return false;
plain|clips|src/clips/upload_pool.cpp|if (thread_role() == ThreadRole::UPLOADER) {|if (false) {
plain|clips|src/messaging/messaging.cpp|published_stats = CloudStats();  // the totals count from this connect|
plain|clips|src/messaging/stats.cpp|if (state != CLIP_CONFIRMED && state != CLIP_FAILED) return;|if (state != CLIP_CONFIRMED) return;
plain|clips|src/messaging/stats.cpp|++published_stats.clips_uploaded;|
plain|clips|src/messaging/stats.cpp|published_stats.last_upload_error = status.message;|
plain|clips|src/messaging/stats.cpp|s.credentials_held = static_cast<int64_t>(credentials.size());|s.credentials_held = static_cast<int64_t>(credentials.size()) + 1;
plain|clips|src/upload/rate_limiter.cpp|if (rate == 0 \|\| want == 0) return want;|if (rate != 0 \|\| want == 0) return want;
plain|clips|src/upload/rate_limiter.cpp|count() * rate);|count() * rate * 2);
plain|clips|src/upload/rate_limiter.cpp|tokens_ -= static_cast<double>(granted);|
plain|clips|src/upload/uploader.cpp|kStallSeconds = 60;|kStallSeconds = 600;
plain|clips,link|src/messaging/messaging.cpp|kDisconnectWait = std::chrono::seconds(30);|kDisconnectWait = std::chrono::seconds(3000);
plain|clips,link|src/messaging/messaging.cpp|kWorkerStopBound = std::chrono::seconds(31);|kWorkerStopBound = std::chrono::seconds(3100);
# --- The exit path and the other hold-the-line additions
plain|clips|src/messaging/messaging.cpp|static Messaging* instance = new Messaging();¶  return *instance;|static Messaging instance;¶  return instance;
plain|clips|src/clips/upload_pool.cpp|    if (!lock_work_by(lock, deadline)) return false;  // the next|    if (!(lock.lock(), true)) return false;  // the next
plain|clips|src/clips/upload_pool.cpp|  if (n == 0) {|  if (false) {
plain|clips|src/clips/upload_pool.cpp|    n = kMaxUploadThreads;|
plain|clips|src/clips/clip_intake.cpp|  report_clip(replaced, CLIP_FAILED, "Replaced by a newer submission of the same clip");|
plain|clips|src/clips/clip_intake.cpp|if (pending != pending_clips.end() && pending->second.in_flight) {|if (false) {
plain|clips|src/events/motion_events.cpp|  if (outbox) outbox->accept(event);¶  update_counts();|  if (outbox) outbox->accept(event);
plain|link|src/messaging/inbound.cpp|"Error parsing received message: '%s'\n", describe_inbound(text).c_str()|"Error parsing received message: '%s'\n", text.c_str()
plain|clips|src/foundation/redact.cpp|"cert", "password"}|"cert"}
plain|link|src/link/websocket_client.cpp|if (partial.size() + len > kMaxPayload) {|if (false) {
plain|link|src/link/websocket_client.cpp|  inbound.clear();¶  count_queues_locked();|  count_queues_locked();
plain|link|src/link/websocket_client.cpp|  outbound.erase(OutboundType{std::string(), 0});|
plain|handlers|src/handlers/certificates.cpp|if (has_cert && has_key && !key_matches_certificate(cert_text, key_text)) {|if (false) {
plain|clips|src/foundation/envelope.cpp|zel_log(LEVEL_ERR, "Could not parse details: \n%s\n", mask_secrets(details).c_str());|printf("Could not parse details: \n%s\n", details.c_str());
plain|link|src/link/reconnect_schedule.cpp|std::min(kMaxDelayMs, kMinGapMs << failures)|std::min(kMaxDelayMs, kMinGapMs << (failures + 1))
plain|link|src/link/reconnect_schedule.cpp|  failures = 0;¶  // Every recorder|  // Every recorder
plain|link|src/link/reconnect_schedule.cpp|schedule(now_ms + draw(0, kMinGapMs));¶}|schedule(now_ms + draw(kMinGapMs, kMinGapMs));¶}
plain|link|src/link/reconnect_schedule.cpp|std::clamp<int64_t>(retry_after_s, 0, kMaxRetryAfterS) * 1000|retry_after_s * 1000
plain|link|src/link/websocket_client.cpp|if (status != 503 && status != 429) return -1;|if (status != 429) return -1;
plain|link|src/link/websocket_client.cpp|    if (state != LinkState::CONNECTED) return 0;¶    if (!keep_connected)|    if (!keep_connected)
plain|upload|src/upload/storage_request.cpp|{"x-ms-request-id:", &a->request_id},|
EOF
)

mapfile -t rows < <(grep -v -e '^#' -e '^$' <<<"$faults")
if [ "${1:-}" = "--list" ]; then
  for i in "${!rows[@]}"; do printf '%2d %s\n' $((i + 1)) "${rows[$i]}"; done
  exit 0
fi
picked=("$@")

# Splits a row on "|" not preceded by a backslash.
field() {
  python3 - "$1" "$2" <<'PY'
import re, sys
parts = re.split(r'(?<!\\)\|', sys.argv[1])
print(parts[int(sys.argv[2])].replace('\\|', '|'), end='')
PY
}

apply_fault() {  # file original replacement -> 0 when applied
  python3 - "$tree/$1" "$2" "$3" <<'PY'
import sys
path, old, new = sys.argv[1], sys.argv[2].replace('¶', '\n'), sys.argv[3].replace('¶', '\n')
text = open(path).read()
if text.count(old) != 1:
    sys.exit("original text found %d times in %s" % (text.count(old), path))
open(path, 'w').write(text.replace(old, new))
PY
}

sync_tree() {
  rm -rf "$tree"  # files deleted from the working tree must go too
  mkdir -p "$tree"
  if [ -n "$rev" ]; then
    git -C "$root" archive "$rev" | tar -xf - -C "$tree"
  else
    (cd "$root" && tar --exclude=./build --exclude=./.git --exclude=node_modules -cf - .) |
      (cd "$tree" && tar -xf -)
  fi
  ln -sfn "$root/tools/cloud/node_modules" "$tree/tools/cloud/node_modules"
}

configure() {  # dir sanitizer
  cmake -S "$tree" -B "$work/$1" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O1 \
    -DZEL_SANITIZE="$2" -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_EXAMPLES=OFF >/dev/null
}

# Only the suites this tree has: a subsystem may have its tests in a neighbour's suite.
targets_of() {
  local t=""
  for s in ${1//,/ }; do [ -d "$tree/tests/$s" ] && t="$t zel_${s}_tests"; done
  echo "$t"
}

# Whether the chosen row n is in this run.
chosen() { [ "${#picked[@]}" = 0 ] || [[ " ${picked[*]} " == *" $1 "* ]]; }

# The suites of the chosen rows built with kind, as "a|b|c".
suites_of_kind() {
  local all=""
  for i in "${!rows[@]}"; do
    chosen $((i + 1)) || continue
    IFS='|' read -r kind suites _ <<<"${rows[$i]}"  # neither holds a "|"
    [ "$kind" = "$1" ] && all="$all,$suites"
  done
  tr ',' '\n' <<<"$all" | sed '/^$/d' | sort -u | paste -sd'|'
}

# Verdict on a failed test run (its log and ctest's status): "killed WHAT" or "aborted WHAT".
# Only a test that failed kills; a program that ended any other way proves nothing.
judge() {
  local log=$1 rc=$2
  if grep -q "Peer did not start: " "$log"; then echo "aborted a peer did not start"
  elif [ "$rc" = 124 ]; then echo "killed time limit"
  elif grep -q -e '\*\*\*Timeout' -e 'Watchdog: ' "$log"; then echo "killed hang"
  elif grep -q -e '^\[  FAILED  \] ' -e 'WARNING: ThreadSanitizer: ' "$log"; then
    echo "killed $(grep -m1 -E '\*\*\*(Failed|Exception)' "$log" | sed 's/^ *//')"
  else echo "aborted $(grep -m1 -E '\*\*\*(Failed|Exception)' "$log" | sed 's/^ *//')"
  fi
}

sync_tree
# A run that was cut short may have left a fault's object behind: rebuild that file.
[ -f "$work/dirty" ] && touch "$tree/$(cat "$work/dirty")"
run_start=$(date +%s)
configure plain "" || exit 2
echo "== building the unmutated tree"
cmake --build "$work/plain" -j2 >"$work/build.log" 2>&1 || { tail -30 "$work/build.log"; exit 2; }
if [ -n "$(suites_of_kind tsan)" ]; then
  configure tsan thread || exit 2
  # shellcheck disable=SC2046
  cmake --build "$work/tsan" -j2 --target $(targets_of "$(suites_of_kind tsan | tr '|' ',')") \
    >>"$work/build.log" 2>&1 || { tail -30 "$work/build.log"; exit 2; }
fi

export TSAN_OPTIONS=halt_on_error=1 UBSAN_OPTIONS=halt_on_error=1
unset ZEL_DEBUG
# The baseline: every suite the chosen faults use, unmutated, must pass as it is.
for kind in plain tsan; do
  suites=$(suites_of_kind "$kind")
  [ -n "$suites" ] || continue
  echo "== the unmutated suites ($kind): ${suites//|/, }"
  (cd "$work/$kind" && ctest -j2 -R "^($suites)\\." --timeout 300 --output-on-failure \
    --no-tests=error >"$work/baseline-$kind.log" 2>&1)
  rc=$?
  if [ "$rc" != 0 ]; then
    failing=$(sed -n '/The following tests FAILED:/,$p' "$work/baseline-$kind.log" | grep -E '^\s+[0-9]+ - ')
    echo "The unmutated tree fails its own tests, so no fault was planted ($work/baseline-$kind.log):"
    echo "${failing:-$(tail -5 "$work/baseline-$kind.log")}"
    echo "failing suites: $(grep -oE ' - [a-z]+\.' <<<"$failing" | sed 's/ - //; s/\.$//' | sort -u | paste -sd' ')"
    exit 2
  fi
done

killed=0 survived=0 invalid=0 aborted=0
for i in "${!rows[@]}"; do
  n=$((i + 1))
  chosen "$n" || continue
  row=${rows[$i]}
  kind=$(field "$row" 0) suites=$(field "$row" 1) file=$(field "$row" 2)
  old=$(field "$row" 3) new=$(field "$row" 4)
  label=$(printf '%2d %-34s %s' "$n" "$file" "${old:0:60}")
  cp -p "$tree/$file" "$work/saved"
  echo "$file" >"$work/dirty"
  if ! apply_fault "$file" "$old" "$new" 2>"$work/apply.log"; then
    echo "invalid  $label ($(cat "$work/apply.log"))"; invalid=$((invalid + 1))
    cp "$work/saved" "$tree/$file"; continue
  fi
  # shellcheck disable=SC2046
  if ! cmake --build "$work/$kind" -j2 --target $(targets_of "$suites") >"$work/build.log" 2>&1; then
    echo "invalid  $label (does not compile)"; invalid=$((invalid + 1))
  else
    start=$(date +%s)
    regex="^(${suites//,/|})\\."
    (cd "$work/$kind" && timeout -k 10 "$limit" ctest -j2 -R "$regex" --timeout 120 \
      --stop-on-failure --output-on-failure >"$work/test-$n.log" 2>&1)
    rc=$?
    secs=$(($(date +%s) - start))
    if [ "$rc" = 0 ]; then
      echo "survived $label (${secs}s)"; survived=$((survived + 1))
    else
      verdict=$(judge "$work/test-$n.log" "$rc")
      what=${verdict#* }
      if [[ "$verdict" == killed* ]]; then
        echo "killed   $label (${secs}s) ${what:0:80}"; killed=$((killed + 1))
      else
        echo "aborted  $label (${secs}s) ${what:0:80}"; aborted=$((aborted + 1))
      fi
    fi
  fi
  cp "$work/saved" "$tree/$file"  # restored, with a new time so that it is rebuilt
  rm -f "$work/dirty"
done
# Leave the scratch builds matching the tree.
for kind in plain tsan; do
  [ -d "$work/$kind" ] && cmake --build "$work/$kind" -j2 >/dev/null 2>&1
done
echo "$killed killed, $survived survived in $(( ($(date +%s) - run_start) / 60 )) min"
if [ "$invalid" != 0 ] || [ "$aborted" != 0 ]; then
  echo "$invalid invalid, $aborted aborted (not counted): the run does not stand until they are fixed"
  exit 1
fi
