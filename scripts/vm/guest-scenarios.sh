#!/bin/sh
# Runs in the guest (as /job/run): every scenario of the guest test program,
# one test per run, each against a fresh radio. Before each scenario btvirt
# and bluetoothd are (re)started with an empty /var/lib/bluetooth: on the
# same virtual controllers a second discovery often misses the advertiser,
# while the first one after a fresh start has been reliable, and nothing
# bluetoothd caches (names, GATT databases) may leak from one scenario into
# the next.
#
# /job/env sets TEST_PROGRAM, TOOL_PROGRAM, FILTER (a --gtest_filter),
# EMULATOR_ADAPTER, FINDER_ADAPTER, BTMON (1: record HCI traffic per
# scenario) and DEBUG (1: bluetoothd -d and a dbus-monitor log). Results go
# to /job/results.
# shellcheck source=/dev/null
. /job/env
results=/job/results
mkdir -p "$results"
bluetoothd=/usr/libexec/bluetooth/bluetoothd

say() { echo "lumora-vm: $*"; }
uptime_s() { cut -d' ' -f1 /proc/uptime; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", b - a }'; }

# Waits up to $1 tenths of a second for the command in the remaining
# arguments to succeed.
wait_for() {
  tries=$1
  shift
  while ! "$@" >/dev/null 2>&1; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.1
  done
}

not_running() { ! pgrep -x "$1"; }

# An emulator left behind by a failed scenario would come back to the next
# bluetoothd and advertise there: it goes first.
stop_radio() {
  for p in lumora bluetoothd btmon dbus-monitor btvirt; do pkill -x "$p"; done
  for p in lumora bluetoothd btmon dbus-monitor btvirt; do
    wait_for 50 not_running "$p" || { pkill -9 -x "$p"; wait_for 20 not_running "$p"; }
  done
}

# A controller's HCI set-up has run once the kernel has its debugfs files
# (the mgmt interface is left alone until then: bluetoothd and btmgmt see a
# controller only after its set-up anyway).
controller_ready() {
  [ -e "/sys/kernel/debug/bluetooth/$1/hci_version" ]
}

controllers_ready() {
  controller_ready "$EMULATOR_ADAPTER" && controller_ready "$FINDER_ADAPTER"
}

adapter_powered() {
  dbus-send --system --print-reply --dest=org.bluez "/org/bluez/$1" \
    org.freedesktop.DBus.Properties.Get string:org.bluez.Adapter1 string:Powered |
    grep -q "boolean true"
}

both_adapters_powered() {
  adapter_powered "$EMULATOR_ADAPTER" && adapter_powered "$FINDER_ADAPTER"
}

start_radio() {
  name=$1
  rm -rf /var/lib/bluetooth/*
  btvirt -l2 >"$results/$name.btvirt.log" 2>&1 &
  if ! wait_for 100 controllers_ready; then
    say "btvirt did not bring up two controllers"
    return 1
  fi
  if [ "$BTMON" = 1 ]; then
    btmon -w "$results/$name.btsnoop" >/dev/null 2>&1 &
  fi
  debug=
  # shellcheck disable=SC2153  # DEBUG comes from /job/env
  if [ "$DEBUG" = 1 ]; then
    debug=-d
    dbus-monitor --system >"$results/$name.dbus.log" 2>&1 &
  fi
  $bluetoothd -n $debug >"$results/$name.bluetoothd.log" 2>&1 &
  if ! wait_for 200 both_adapters_powered; then
    say "bluetoothd did not power $EMULATOR_ADAPTER and $FINDER_ADAPTER on"
    return 1
  fi
}

missing=$(ldd "$TEST_PROGRAM" "$TOOL_PROGRAM" 2>&1 | grep "not found")
if [ -n "$missing" ]; then
  say "libraries missing in the guest image (add their packages to scripts/vm/common.sh):"
  echo "$missing"
  exit 2
fi

scenarios=$("$TEST_PROGRAM" --gtest_list_tests --gtest_filter="$FILTER" | awk '
  /^[^ ].*\.$/ { suite = $1; next }
  /^  [^ ]/ && suite != "" { print suite $1 }')
if [ -z "$scenarios" ]; then
  say "no scenario matches $FILTER"
  exit 2
fi

# Runs one scenario against a fresh radio; its files start with $2.
run_scenario() {
  scenario=$1
  files=$2
  begin=$(uptime_s)
  if start_radio "$files"; then
    say "scenario $files (radio ready in $(elapsed "$begin" "$(uptime_s)") s)"
    LUMORA_GUEST_FINDER_ADAPTER="$FINDER_ADAPTER" LUMORA_GUEST_EMULATOR_ADAPTER="$EMULATOR_ADAPTER" \
      timeout -k 5 180 "$TEST_PROGRAM" \
      --gtest_filter="$scenario" --gtest_output="xml:$results/$files.xml" \
      >"$results/$files.log" 2>&1
    status=$?
    # Not straight to the console: the tool would take it for a terminal
    # and draw progress lines.
    cat "$results/$files.log"
  else
    status=1
  fi
  stop_radio
  took=$(elapsed "$begin" "$(uptime_s)")
  return "$status"
}

# A scenario that fails gets one more run with a fresh radio: once in about
# 35 connections in this guest, bluetoothd's service discovery on a new link
# did not finish within 30 s (both ends discover each other at once over
# btvirt; the cause has not been caught with logs on). A pass on the second
# run is reported as such; two failures fail the check.
failed=0
passed=0
flaky=
for scenario in $scenarios; do
  if run_scenario "$scenario" "$scenario"; then
    passed=$((passed + 1))
    say "PASSED $scenario ($took s)"
    continue
  fi
  say "FAILED $scenario (status $status, $took s); running it once more"
  if run_scenario "$scenario" "$scenario.retry"; then
    passed=$((passed + 1))
    flaky="$flaky $scenario"
    say "PASSED $scenario on its second run ($took s)"
  else
    failed=$((failed + 1))
    say "FAILED $scenario twice (status $status, $took s)"
  fi
done
[ -n "$flaky" ] && say "passed only on a second run:$flaky"
say "$passed scenario(s) passed, $failed failed"
[ "$failed" -eq 0 ]
