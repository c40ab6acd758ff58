#!/usr/bin/env bash
# Builds the `fuzz` preset (clang, AddressSanitizer + UndefinedBehaviorSanitizer,
# libFuzzer) and runs every target from its committed corpus for SECONDS each
# (default 60), two at a time. Any crash, sanitizer report, leak, time-out or
# broken property fails the run. New inputs go to build/fuzz/smoke, never into
# fuzz/corpus: the committed corpus stays small and reviewed.
#
#   scripts/fuzz-smoke.sh          # 60 s per target
#   scripts/fuzz-smoke.sh 600      # a longer hunt
#   FUZZ_JOBS=1 scripts/fuzz-smoke.sh 30
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
jobs=${FUZZ_JOBS:-2}
case $seconds in '' | *[!0-9]*) echo "usage: $0 [SECONDS]" >&2 && exit 2 ;; esac

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

bin=build/fuzz/fuzz
out=build/fuzz/smoke
rm -rf "$out"
mkdir -p "$out"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

targets=()
for exe in "$bin"/fuzz_*; do
  [ -x "$exe" ] && targets+=("$(basename "$exe" | sed 's/^fuzz_//')")
done
[ ${#targets[@]} -gt 0 ] || { echo "fuzz-smoke: no targets built" >&2; exit 1; }

run() {
  local name=$1
  local dict=()
  [ -f "fuzz/$name.dict" ] && dict=("-dict=fuzz/$name.dict")
  mkdir -p "$out/$name/new"
  # The first folder receives what the run finds; the committed one only seeds it.
  set +e
  "$bin/fuzz_$name" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$out/$name/" "${dict[@]}" \
    "$out/$name/new" "fuzz/corpus/$name" >"$out/$name.log" 2>&1
  echo $? >"$out/$name.rc"
  set -e
}

for name in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  echo "fuzz-smoke: $name (${seconds}s)"
  run "$name" &
done
wait

failed=0
printf '%-20s %10s %8s %6s %6s  %s\n' target executions exec/s seeds found result
for name in "${targets[@]}"; do
  log=$out/$name.log
  rc=$(cat "$out/$name.rc")
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  seeds=$(find "fuzz/corpus/$name" -type f | wc -l)
  found=$(find "$out/$name/new" -type f | wc -l)
  result=ok
  if [ "$rc" != 0 ] || grep -qE 'ERROR: (libFuzzer|AddressSanitizer|LeakSanitizer)|runtime error:|property broken' "$log"; then
    result="FAILED (exit $rc; see $log)"
    failed=1
  fi
  printf '%-20s %10s %8s %6s %6s  %s\n' "$name" "${runs:-?}" "${rate:-?}" "$seeds" "$found" "$result"
done
if [ $failed -ne 0 ]; then
  for name in "${targets[@]}"; do
    if [ "$(cat "$out/$name.rc")" != 0 ]; then
      echo "== $name"
      grep -E -A30 'ERROR:|runtime error:|property broken' "$out/$name.log" | head -60
      ls "$out/$name"/crash-* "$out/$name"/leak-* "$out/$name"/timeout-* "$out/$name"/oom-* 2>/dev/null || true
    fi
  done
  exit 1
fi
