#!/usr/bin/env bash
# Fuzzer smoke stage: builds the libFuzzer targets with clang (AddressSanitizer
# and UndefinedBehaviorSanitizer), generates a seed corpus of real encoded
# streams, and runs each target for about 30 seconds. Any crash fails.
set -euo pipefail
root="$1"
dir="$root/build-fuzz"
seconds="${LUMIFLUX_FUZZ_SECONDS:-30}"

for tool in clang clang++ x264 ffmpeg; do
  command -v "$tool" > /dev/null || { echo "fuzz stage: $tool is missing (scripts/install-deps)"; exit 1; }
done

CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLUMIFLUX_BUILD_FUZZERS=ON -DLUMIFLUX_BUILD_TESTS=OFF -DLUMIFLUX_BUILD_TOOLS=OFF \
  -DLUMIFLUX_BUILD_PLUGINS=OFF > "$dir.log" 2>&1 || { tail -n 50 "$dir.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" --target fuzzers >> "$dir.log" 2>&1 || { tail -n 80 "$dir.log"; exit 1; }

# Seeds: small streams of several kinds (profiles, B-frames, interlacing,
# chroma formats, slices, recovery points, delimiters), made fresh each run.
seeds="$dir/seeds"
rm -rf "$seeds"
mkdir -p "$seeds"
encode() {
  local name="$1" size="$2" pix="$3"; shift 3
  ffmpeg -nostdin -v error -f lavfi -i "testsrc=size=$size:rate=25" -frames:v 4 -pix_fmt "$pix" \
    -f yuv4mpegpipe - | x264 --quiet --preset ultrafast --keyint 2 --demuxer y4m "$@" -o "$seeds/$name.264" - 2> /dev/null
}
encode baseline 64x48 yuv420p --profile baseline
encode main_b 64x48 yuv420p --profile main --bframes 2
encode high_cropped 66x46 yuv420p --profile high --8x8dct --cqm jvt
encode interlaced 64x64 yuv420p --tff
encode yuv422 48x32 yuv422p --profile high422 --output-csp i422
encode yuv444 33x17 yuv444p --profile high444 --output-csp i444
encode slices 64x64 yuv420p --slices 3 --sar 16:11
encode open_gop 32x32 yuv420p --open-gop --bframes 1 --keyint 3
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=48x48:rate=30 -frames:v 3 -c:v libx264 -preset ultrafast \
  -x264-params aud=1 -f h264 -y "$seeds/aud.264"
# A few hand-made shapes of start codes and zero runs.
printf '\x00\x00\x00\x01\x67\x42\x00\x1e\x00\x00\x01\x68' > "$seeds/start_codes.bin"
printf '\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x01\x09\xf0' > "$seeds/zero_runs.bin"

status=0
for fuzzer in fuzz_start_code fuzz_nalu_reader fuzz_video_stream_parser; do
  corpus="$dir/corpus-$fuzzer"
  rm -rf "$corpus"
  mkdir -p "$corpus"
  cp "$seeds"/* "$corpus"/
  echo "fuzz stage: $fuzzer for ${seconds}s"
  if ! (cd "$dir" && "./fuzz/$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -max_len=16384 -print_final_stats=1 "$corpus" > "$dir/$fuzzer.log" 2>&1); then
    echo "fuzz stage: $fuzzer failed"
    tail -n 60 "$dir/$fuzzer.log"
    status=1
  else
    grep -E "^(stat::number_of_executed_units|Done)" "$dir/$fuzzer.log" || true
  fi
done
exit $status
