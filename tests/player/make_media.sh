#!/usr/bin/env bash
# make_media.sh <output dir>: the media the player tests play, made by
# GStreamer pipelines: a 3 s VP8 video with two Opus audio tracks tagged "en"
# and "de" and a subtitle track tagged "fr" (Matroska), a corrupt copy (its header
# overwritten) and a truncated copy (the first third).
set -euo pipefail
out="$1"
mkdir -p "$out"
tmp="$(mktemp -d "$out/.make.XXXXXX")"
trap 'rm -rf "$tmp"' EXIT

printf '1\n00:00:00,000 --> 00:00:01,500\nHello\n\n2\n00:00:02,000 --> 00:00:03,000\nWorld\n' > "$tmp/subtitles.srt"

gst-launch-1.0 -q \
  matroskamux name=mux ! filesink location="$tmp/media.mkv" \
  videotestsrc num-buffers=90 pattern=smpte \
    ! video/x-raw,width=320,height=240,framerate=30/1 ! vp8enc deadline=1 keyframe-max-dist=10 ! mux. \
  audiotestsrc num-buffers=140 freq=440 ! audio/x-raw,rate=48000,channels=2 ! audioconvert \
    ! taginject tags="language-code=en" ! opusenc ! mux. \
  audiotestsrc num-buffers=140 freq=660 ! audio/x-raw,rate=48000,channels=2 ! audioconvert \
    ! taginject tags="language-code=de" ! opusenc ! mux. \
  filesrc location="$tmp/subtitles.srt" ! subparse ! taginject tags="language-code=fr" ! mux.subtitle_%u

size=$(stat -c %s "$tmp/media.mkv")
# Corrupt: the container header and the first clusters are zeroed, so no
# type finder recognises the stream (random bytes would sometimes look like
# an elementary stream and decode as garbage instead of failing).
cp "$tmp/media.mkv" "$tmp/corrupt.mkv"
head -c 65536 /dev/zero | dd of="$tmp/corrupt.mkv" bs=1 conv=notrunc status=none
# Truncated: a valid start that ends abruptly.
head -c $((size / 3)) "$tmp/media.mkv" > "$tmp/truncated.mkv"

for f in media.mkv corrupt.mkv truncated.mkv; do
  mv "$tmp/$f" "$out/$f"
done
echo "make_media: wrote $out (media.mkv: $size bytes)"
