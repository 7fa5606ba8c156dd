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
# (tsan/). Later runs of the same NAME rebuild incrementally. Each fault
# gets at most ZEL_MUTANT_SECONDS (default 300) for its tests; a hang counts as killed.
# A fault whose code no longer compiles is reported as "invalid" and counts as neither.
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
faults=$(cat <<'EOF'
plain|foundation|src/foundation/envelope.cpp|"signature", "n/a"|"signature", "n/b"
plain|foundation|src/foundation/envelope.cpp|(reparsed.get(), "original_id"|(reparsed.get(), "originalId"
plain|foundation|src/foundation/time_utils.cpp|"%FT%TZ"|"%FT%T"
plain|foundation,link|src/foundation/time_utils.cpp|< static_cast<int64_t>(period))|<= static_cast<int64_t>(period))
plain|foundation|src/foundation/json_helpers.cpp|if (!cJSON_IsObject(doc.get())) return false;|if (!doc) return false;
plain|foundation,handlers|src/foundation/msg_response.cpp|\"Not implemented\"}|\"Not implemented.\"}
plain|link|src/link/websocket_client.cpp|kReconnectPeriod = 5;|kReconnectPeriod = 4;
plain|link|src/link/websocket_client.cpp|if (length > kMaxPayload) {|if (length >= kMaxPayload) {
plain|link|src/link/websocket_client.cpp|kCloseDisconnecting = 4003;|kCloseDisconnecting = 4004;
plain|link|src/link/websocket_client.cpp|kCloseRequested = 4429;|kCloseRequested = 4428;
plain|link|src/link/websocket_client.cpp|if (!lws_is_final_fragment(w)) return;|
plain|link|src/link/websocket_client.cpp|"Payload(%zu) bigger than buffer(%d), skipping\n"|"Payload(%zu) bigger than buffer (%d), skipping\n"
plain|link|src/link/websocket_client.cpp| \| LWS_SERVER_OPTION_JUST_USE_RAW_ORIGIN;|;
plain|link|src/link/websocket_client.cpp|if (was_connected) call_guarded(on_disconnect|call_guarded(on_disconnect
plain|link|src/link/message_queues.cpp|if (!connected && !force) return;|if (!connected && force) return;
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
plain|handlers|src/handlers/certificates.cpp|write_member(inner, "key", key_path, 0600);|write_member(inner, "key", key_path, 0644);
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
plain|upload|src/upload/uploader.cpp|raw = curl_slist_append(raw, "x-ms-blob-type: BlockBlob");|
plain|upload|src/upload/uploader.cpp|"x-ms-version: 2020-04-08"|"x-ms-version: 2020-04-09"
plain|upload|src/upload/uploader.cpp|+ ".mp4" +|+ ".mp5" +
plain|upload|src/upload/uploader.cpp|"%Y-%m-%d", &parts)|"%Y/%m/%d", &parts)
plain|upload|src/upload/uploader.cpp|if (d.expect_timeout_s <= 0) {|if (d.expect_timeout_s < 0) {
plain|upload|src/upload/uploader.cpp|if (d.timeout_s > 0 && elapsed >= d.timeout_s) {|if (d.timeout_s > 0 && elapsed > d.timeout_s) {
plain|upload|src/upload/uploader_cluster.cpp|  work_ready.notify_one();|
plain|upload|src/upload/uploader_cluster.cpp|  queue.clear();¶  return keys;|  return keys;
tsan|upload|src/upload/uploader_cluster.cpp|  std::lock_guard<std::mutex> lock(queue_mutex);¶  statuses.push_back(status);|  statuses.push_back(status);
EOF
)

mapfile -t rows <<<"$faults"
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

sync_tree
# A run that was cut short may have left a fault's object behind: rebuild that file.
[ -f "$work/dirty" ] && touch "$tree/$(cat "$work/dirty")"
configure plain "" || exit 2
echo "== building the unmutated tree"
cmake --build "$work/plain" -j2 >"$work/build.log" 2>&1 || { tail -30 "$work/build.log"; exit 2; }
need_tsan=0
for r in "${rows[@]}"; do [[ "$r" == tsan* ]] && need_tsan=1; done
if [ "$need_tsan" = 1 ]; then
  configure tsan thread || exit 2
  cmake --build "$work/tsan" -j2 --target zel_upload_tests zel_clips_tests >>"$work/build.log" 2>&1 ||
    { tail -30 "$work/build.log"; exit 2; }
fi

export TSAN_OPTIONS=halt_on_error=1 UBSAN_OPTIONS=halt_on_error=1
unset ZEL_DEBUG
killed=0 survived=0 invalid=0
for i in "${!rows[@]}"; do
  n=$((i + 1))
  if [ "${#picked[@]}" -gt 0 ] && [[ " ${picked[*]} " != *" $n "* ]]; then continue; fi
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
      --stop-on-failure >"$work/test-$n.log" 2>&1)
    rc=$?
    secs=$(($(date +%s) - start))
    if [ "$rc" = 0 ]; then
      echo "survived $label (${secs}s)"; survived=$((survived + 1))
    else
      what=$(grep -m1 -E '\*\*\*(Failed|Timeout|Exception)' "$work/test-$n.log" | sed 's/^ *//')
      [ "$rc" = 124 ] && what="time limit"
      echo "killed   $label (${secs}s) ${what:0:80}"; killed=$((killed + 1))
    fi
  fi
  cp "$work/saved" "$tree/$file"  # restored, with a new time so that it is rebuilt
  rm -f "$work/dirty"
done
# Leave the scratch builds matching the tree.
for kind in plain tsan; do
  [ -d "$work/$kind" ] && cmake --build "$work/$kind" -j2 >/dev/null 2>&1
done
[ "$invalid" = 0 ] || echo "$invalid invalid (not counted)"
echo "$killed killed, $survived survived"
