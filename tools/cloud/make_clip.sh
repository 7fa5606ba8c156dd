#!/usr/bin/env bash
# Makes the example recorder's clip: a few seconds of a test pattern with a running clock,
# H.264 in MP4 with the index up front, which the browser console can play as soon as it is
# decrypted. Usage: make_clip.sh FILE [SECONDS]. An existing FILE is kept.
set -euo pipefail
out=${1:?usage: make_clip.sh FILE [SECONDS]}
seconds=${2:-4}
[ -s "$out" ] && exit 0
command -v ffmpeg >/dev/null || { echo "make_clip: ffmpeg is not installed (tools/setup.sh)" >&2; exit 1; }
mkdir -p "$(dirname "$out")"
font=/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf
clock="drawtext=fontfile=$font:text='%{pts\\:hms}':x=12:y=h-th-12:fontsize=28:fontcolor=white:box=1:boxcolor=black@0.6"
[ -f "$font" ] || clock=null  # the pattern's own frame counter still runs
tmp="$out.tmp.mp4"
ffmpeg -nostdin -loglevel error -y -f lavfi -i "testsrc=size=640x360:rate=25:duration=$seconds" \
  -vf "$clock" -c:v libx264 -preset veryfast -profile:v main -pix_fmt yuv420p \
  -movflags +faststart "$tmp"
mv "$tmp" "$out"
