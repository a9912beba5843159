#!/usr/bin/env bash
# fuzz-smoke.sh BUILD_DIR -- runs each libFuzzer target for a few seconds,
# starting from its corpus in the tree; any crash fails the run. The targets
# share FUZZ_TOTAL_SECONDS (default 180), at least 5 s each; FUZZ_SECONDS
# gives each target that many seconds instead.
set -euo pipefail
build=$1
shopt -s nullglob
targets=("$build"/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz-smoke: no fuzz targets yet"
  exit 0
fi
secs=${FUZZ_SECONDS:-$(( ${FUZZ_TOTAL_SECONDS:-180} / ${#targets[@]} ))}
if [ "$secs" -lt 5 ]; then secs=5; fi
for t in "${targets[@]}"; do
  surface=${t##*/fuzz_}
  corpus=fuzz/corpus/$surface
  work=$(mktemp -d)
  echo "fuzz-smoke: $surface for ${secs}s"
  "$t" -max_total_time="$secs" -timeout=5 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$work/" "$work" "$corpus" 2>&1 | tail -n 12
  rm -rf "$work"
done
