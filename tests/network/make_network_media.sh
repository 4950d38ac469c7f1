#!/usr/bin/env bash
# make_network_media.sh <output dir>: short media the network tests serve over
# HTTP, made by GStreamer pipelines: four 1 s VP8 clips in Matroska (different
# patterns, so the load test plays different media) and a 2 s H.264 HLS
# stream of two 1 s MPEG-TS segments made by the HLS sink.
set -euo pipefail
out="$1"
mkdir -p "$out"
tmp="$(mktemp -d "$out/.make.XXXXXX")"
trap 'rm -rf "$tmp"' EXIT

patterns=(smpte ball snow pinwheel)
for i in 0 1 2 3; do
  timeout 60 gst-launch-1.0 -q matroskamux name=mux ! filesink location="$tmp/clip$i.mkv" \
    videotestsrc num-buffers=30 pattern="${patterns[$i]}" \
      ! video/x-raw,width=160,height=120,framerate=30/1 ! vp8enc deadline=1 keyframe-max-dist=10 ! mux.
done

# The H.264 encoder has been seen to hang now and then at the end of its
# stream on a loaded machine: each attempt is bounded, and repeated.
made=no
for attempt in 1 2 3 4 5; do
  rm -rf "$tmp/hls"; mkdir -p "$tmp/hls"
  if timeout 20 gst-launch-1.0 -q videotestsrc num-buffers=60 \
      ! video/x-raw,width=160,height=120,framerate=30/1 ! openh264enc gop-size=15 ! h264parse \
      ! hlssink2 target-duration=1 max-files=0 playlist-length=0 \
          location="$tmp/hls/segment%05d.ts" playlist-location="$tmp/hls/playlist.m3u8"; then
    made=yes; break
  fi
  echo "make_network_media: HLS attempt $attempt failed" >&2
done
[ "$made" = yes ]
grep -q '^segment00001.ts' "$tmp/hls/playlist.m3u8"

rm -rf "$out/hls"
mv "$tmp"/clip*.mkv "$out/"
mv "$tmp/hls" "$out/hls"
echo "make_network_media: wrote $out"
