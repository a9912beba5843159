#!/usr/bin/env bash
# fuzz-smoke.sh BUILD_DIR -- runs each libFuzzer target for a few seconds,
# starting from its corpus in the tree; any crash fails the run.
set -euo pipefail
build=$1
secs=${FUZZ_SECONDS:-20}
shopt -s nullglob
targets=("$build"/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz-smoke: no fuzz targets yet"
  exit 0
fi
for t in "${targets[@]}"; do
  surface=${t##*/fuzz_}
  corpus=fuzz/corpus/$surface
  work=$(mktemp -d)
  echo "fuzz-smoke: $surface for ${secs}s"
  "$t" -max_total_time="$secs" -timeout=5 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$work/" "$work" "$corpus" 2>&1 | tail -n 12
  rm -rf "$work"
done
