#!/usr/bin/env bash
# Lumora's iBeacon decode (with the UUID text) and distance estimate against
# the most used npm beacon parser, advlib-ble with its manufacturer-data
# library, on the same payloads (bench/peers/payloads.json).
#
#   bench/peers/run.sh BUILD_DIR
#
# Builds bench_peers in BUILD_DIR (a build with benchmarks on; an optimised
# build type for figures worth quoting), installs the peer with npm into
# BUILD_DIR/peers (outside the sources; PEERS_CACHE=DIR puts it elsewhere)
# unless it is there already, and prints ns per payload for both sides and
# the ratio. Needs node and npm.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: bench/peers/run.sh BUILD_DIR}
cache=${PEERS_CACHE:-$build/peers}
# The versions the figures in docs/performance.md were taken with.
peers=(advlib-ble@1.4.2 advlib-ble-manufacturers@1.14.0)

[ -f "$build/CMakeCache.txt" ] || { echo "run.sh: $build is not a CMake build folder" >&2; exit 2; }
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "run.sh: node and npm are needed" >&2
  exit 2
fi
type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt")
case "$type" in
  Release | RelWithDebInfo | MinSizeRel) ;;
  *) echo "run.sh: warning: $build is a '${type:-no type}' build; quote figures of an optimised one" >&2 ;;
esac

if ! cmake --build "$build" --target bench_peers >"$build/bench_peers.build.log" 2>&1; then
  tail -20 "$build/bench_peers.build.log" >&2
  echo "run.sh: bench_peers did not build (is LUMORA_BUILD_BENCH on in $build?)" >&2
  exit 1
fi

installed() {
  local pinned name wanted
  for pinned in "${peers[@]}"; do
    name=${pinned%@*}
    wanted=${pinned##*@}
    [ -f "$cache/node_modules/$name/package.json" ] || return 1
    node -e 'process.exit(require(process.argv[1]).version === process.argv[2] ? 0 : 1)' \
      "$cache/node_modules/$name/package.json" "$wanted" || return 1
  done
}
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
if ! installed; then
  npm install --prefix "$cache" --no-audit --no-fund --no-save --ignore-scripts "${peers[@]}" \
    >"$cache/npm.log" 2>&1 || { cat "$cache/npm.log" >&2; exit 1; }
fi

results=$(mktemp)
trap 'rm -f "$results"' EXIT
"$build/bench/bench_peers" --payloads="$here/payloads.json" --benchmark_min_warmup_time=0.2 \
  --benchmark_repetitions=5 \
  --benchmark_report_aggregates_only=true --benchmark_format=json >"$results"
node --single-threaded "$here/compare.js" "$here/payloads.json" "$cache/node_modules" "$results"
