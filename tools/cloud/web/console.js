// The local cloud console. Everything shown comes from the recorder or the person at the
// page, so it is only ever put in as text (textContent), never as markup.
"use strict";

const $ = (id) => document.getElementById(id);
const envelopes = [];          // in arrival order, as the local cloud recorded them
const waiting = new Map();     // request id -> the <pre> that shows its reply
let subjectsSeen = new Set();

function el(tag, props = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(props)) {
    if (key === "text") node.textContent = value;
    else if (key === "class") node.className = value;
    else if (key.startsWith("data-")) node.dataset[key.slice(5)] = value;
    else node[key] = value;
  }
  for (const child of children) node.append(child);
  return node;
}

function pretty(text) {
  try { return JSON.stringify(JSON.parse(text), null, 2); } catch (e) { return text; }
}
const clock = (iso) => (iso ? iso.replace("T", " ").replace(/\.\d+Z$|Z$/, "") : "–");
const timeOnly = (iso) => (iso ? iso.slice(11, 23) : "");

// ------------------------------------------------------------------------------ the link
function showLink(link) {
  const state = $("link-state");
  state.textContent = link.connected ? "connected" : (link.connections ? "disconnected" : "never connected");
  state.className = "badge " + (link.connected ? "up" : (link.connections ? "down" : ""));
  $("link-since").textContent = link.since ? "since " + clock(link.since) : "";
  $("link-mac").textContent = link.mac || "–";
  $("link-cert").textContent = link.connections ? (link.cert_subject || "none presented") : "–";
  $("link-server-cert").textContent = link.server_cert || "–";
  $("link-blob-cert").textContent = link.blob_cert || "–";
  $("link-reconnections").textContent = String(link.reconnections);
  $("link-close").textContent = link.close_code === null ? "–" :
    String(link.close_code) + (link.close_reason ? " " + link.close_reason : "");
  $("link-version").textContent = link.version === null ? "not announced yet" :
    JSON.stringify(link.version, null, 2);
}

// ------------------------------------------------------------------------- envelopes
function matchesFilter(subject) {
  const wanted = $("subject-filter").value.trim().toLowerCase();
  return !wanted || subject.toLowerCase().includes(wanted);
}

function addEnvelope(env) {
  envelopes.push(env);
  const row = el("tr", {class: "envelope " + env.dir + (env.auto ? " auto" : ""),
                        "data-subject": env.subject, "data-dir": env.dir, "data-n": String(env.n)},
    el("td", {text: timeOnly(env.time)}),
    el("td", {class: "dir", text: env.dir === "in" ? "← in" : "→ out",
              title: env.dir === "in" ? "from the recorder" : "to the recorder"}),
    el("td", {class: "subject", text: env.subject || (env.binary ? "(binary)" : "(no subject)")}),
    el("td", {text: env.original_id ? env.id + " ↩ " + env.original_id : env.id}));
  row.hidden = !matchesFilter(env.subject);
  row.addEventListener("click", () => toggleDetail(row, env));
  $("envelopes").tBodies[0].prepend(row);
  if (env.subject && !subjectsSeen.has(env.subject)) {
    subjectsSeen.add(env.subject);
    $("subjects").append(el("option", {value: env.subject}));
  }
  if (env.original_id && waiting.has(env.original_id)) showReply(env);
  $("envelope-count").textContent = envelopes.length + " envelopes";
}

function toggleDetail(row, env) {
  const next = row.nextElementSibling;
  if (next && next.classList.contains("detail")) { next.remove(); return; }
  const cell = el("td", {colSpan: 4},
    el("h4", {text: "Exact text (" + env.text.length + " characters)"}),
    el("pre", {class: "raw", text: env.text}),
    el("h4", {text: "Pretty"}),
    el("pre", {class: "pretty json", text: pretty(env.text)}));
  row.after(el("tr", {class: "detail"}, cell));
}

function applyFilter() {
  for (const row of $("envelopes").tBodies[0].rows) {
    if (row.classList.contains("envelope")) row.hidden = !matchesFilter(row.dataset.subject);
    else row.hidden = row.previousElementSibling.hidden;
  }
}

// -------------------------------------------------------------------------- requests
function buildForms(subjects) {
  const holder = $("request-forms");
  holder.replaceChildren();
  for (const subject of subjects) {
    const content = el("textarea", {name: "content", spellcheck: false});
    const error = el("p", {class: "error form-error"});
    const exchanges = el("div", {class: "exchanges"});
    const sample = el("button", {type: "button", text: "Sample content"});
    const form = el("form", {}, content, el("button", {type: "submit", text: "Send " + subject}),
                    sample, error, exchanges);
    const box = el("details", {class: "request", "data-subject": subject},
                   el("summary", {text: subject}), form);
    const fill = () => fetchSample(subject, content, error);
    box.addEventListener("toggle", () => { if (box.open && !content.value) fill(); });
    sample.addEventListener("click", fill);
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      sendRequest(subject, content.value, error, exchanges);
    });
    holder.append(box);
  }
}

async function fetchSample(subject, textarea, error) {
  error.textContent = "";
  const reply = await fetch("/api/sample?subject=" + encodeURIComponent(subject));
  const body = await reply.json().catch(() => ({error: "The console sent no sample"}));
  if (body.error) error.textContent = body.error;
  else textarea.value = body.content;
}

async function sendRequest(subject, text, error, exchanges) {
  error.textContent = "";
  try {
    JSON.parse(text);
  } catch (e) {
    error.textContent = "Not sent: the content is not valid JSON (" + e.message + ")";
    return;
  }
  let body;
  try {
    const reply = await fetch("/api/request", {method: "POST", headers: {"Content-Type": "application/json"},
                                               body: JSON.stringify({subject, content: text})});
    body = await reply.json();
  } catch (e) {
    body = {error: "Not sent: the console did not answer (" + e.message + ")"};
  }
  if (body.error) { error.textContent = body.error; return; }
  const answer = el("pre", {class: "reply waiting", text: "waiting for the reply…"});
  exchanges.prepend(el("div", {class: "exchange", "data-id": body.id},
    el("div", {class: "sent", text: "sent " + body.id}), answer));
  waiting.set(body.id, answer);
  const early = envelopes.find((env) => env.original_id === body.id);
  if (early) showReply(early);
}

function showReply(env) {
  const answer = waiting.get(env.original_id);
  waiting.delete(env.original_id);
  answer.className = "reply json";
  answer.textContent = "reply at " + timeOnly(env.time) + "\n" + pretty(env.text);
}

// ----------------------------------------------------------------------------- clips
function clipUrl(clip, what) {
  return "/api/clips/" + encodeURIComponent(clip.camera) + "/" + clip.start + "/" + what;
}

function showClip(clip) {
  const body = $("clips").tBodies[0];
  let row = [...body.rows].find((r) => r.dataset.key === clip.key);
  if (!row) {
    row = el("tr", {class: "clip", "data-key": clip.key});
    body.prepend(row, el("tr", {class: "clip-blob"}, el("td", {colSpan: 7})));
  }
  row.nextElementSibling.firstChild.textContent = "blob " + (clip.blob || "–");
  const size = clip.uploaded_bytes || clip.bytes;
  const stored = clip.stored_error ? "not found: " + clip.stored_error :
    (clip.stored_at ? clip.stored_at.slice(11, 19) + (clip.stored_bytes >= 0 ? ", " + bytes(clip.stored_bytes) : "") : "–");
  const acked = clip.ack_at ? "yes, " + clip.ack_at.slice(11, 19) + (clip.ack_reply ? " (" + clip.ack_reply + ")" : "") : "no";
  row.dataset.acknowledged = clip.ack_at ? "yes" : "no";
  const actions = el("td", {class: "actions"});
  if (clip.playable) {
    const play = el("button", {type: "button", class: "play", text: "Play"});
    play.addEventListener("click", () => playClip(clip));
    actions.append(play, el("a", {href: clipUrl(clip, "video") + "?download=1", text: "Download"}));
  }
  row.replaceChildren(
    el("td", {text: clip.camera}),
    el("td", {text: (clip.start_at || "").slice(11, 19) + " – " + (clip.end_at || "").slice(11, 19) +
                    span(clip.start_at, clip.end_at),
              title: clock(clip.start_at) + " to " + clock(clip.end_at)}),
    el("td", {text: size ? bytes(size) : "–", title: size ? size + " bytes" : ""}),
    el("td", {text: stored}),
    el("td", {text: clip.took_s !== undefined ? clip.took_s.toFixed(2) + " s" : "–",
              title: "from the credentials going out to the record-end transaction coming in"}),
    el("td", {class: "acknowledged", text: acked}),
    actions);
}

function bytes(count) {
  const n = Number(count);
  if (n >= 1048576) return (n / 1048576).toFixed(1) + " MiB";
  return n >= 1024 ? (n / 1024).toFixed(1) + " KiB" : n + " B";
}

function span(from, to) {
  const seconds = (Date.parse(to) - Date.parse(from)) / 1000;
  return Number.isFinite(seconds) ? " (" + seconds + " s)" : "";
}

async function playClip(clip) {
  const video = $("player-video");
  $("player").hidden = false;
  $("player-title").textContent = "Camera " + clip.camera + ", " + clock(clip.start_at);
  $("player-error").textContent = "decrypting…";
  $("player-download").href = clipUrl(clip, "video") + "?download=1";
  const reply = await fetch(clipUrl(clip, "prepare"));
  if (!reply.ok) { $("player-error").textContent = await reply.text(); return; }
  $("player-error").textContent = "";
  video.src = clipUrl(clip, "video");
  video.play().catch((e) => { $("player-error").textContent = "Could not play: " + e.message; });
}

// ------------------------------------------------------------------------------ feed
function handle(message) {
  if (message.type === "snapshot") {
    envelopes.length = 0;
    subjectsSeen = new Set();
    $("envelopes").tBodies[0].replaceChildren();
    $("subjects").replaceChildren();
    $("clips").tBodies[0].replaceChildren();
    buildForms(message.subjects);
    showLink(message.link);
    message.envelopes.forEach(addEnvelope);
    message.clips.forEach(showClip);
  } else if (message.type === "envelope") addEnvelope(message.envelope);
  else if (message.type === "link") showLink(message.link);
  else if (message.type === "clip") showClip(message.clip);
  else if (message.type === "notice") $("notice").textContent = message.text;
}

function connectFeed() {
  const feed = new WebSocket((location.protocol === "https:" ? "wss://" : "ws://") + location.host + "/api/feed");
  feed.onopen = () => { $("feed-state").textContent = "live"; $("feed-state").className = "badge up"; };
  feed.onmessage = (event) => handle(JSON.parse(event.data));
  feed.onclose = () => {
    $("feed-state").textContent = "console unreachable, retrying";
    $("feed-state").className = "badge down";
    setTimeout(connectFeed, 2000);
  };
}

$("subject-filter").addEventListener("input", applyFilter);
$("player-video").addEventListener("error", () => {
  const err = $("player-video").error;
  $("player-error").textContent = "The browser could not play it" + (err && err.message ? ": " + err.message : "");
});
connectFeed();
