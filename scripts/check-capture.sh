#!/usr/bin/env bash
# Runs `lumora demo --pcap` and checks with tshark that Wireshark reads the
# capture as the demo told it: the built-in scenario's iBeacons and the
# emulator's (company 0x004C and the beacon frames), every local name, the
# advertising and connection PDUs, the finder's ATT write of 01 02 03 and its
# read answered "Lumora", and no CRC that Wireshark finds wrong.
#
#   scripts/check-capture.sh BUILD_DIR
#
# Needs tshark (scripts/install-deps.sh). Exit status 0 when every check
# passed; the last line counts them.
set -euo pipefail

build=${1:?usage: scripts/check-capture.sh BUILD_DIR}
tool="$build/tools/lumora/lumora"
[ -x "$tool" ] || { echo "check-capture: no lumora tool at $tool" >&2; exit 1; }
command -v tshark >/dev/null || { echo "check-capture: tshark is missing" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pcap="$work/demo.pcap"

if ! "$tool" demo --pcap "$pcap" >"$work/demo.txt" 2>"$work/demo.err"; then
  cat "$work/demo.txt" "$work/demo.err" >&2
  echo "check-capture: the demo failed" >&2
  exit 1
fi

# tshark as root warns on stderr; keep its complaints for a failure report.
fields() {
  tshark -r "$pcap" -n "$@" 2>>"$work/tshark.err"
}

passed=0
failed=0
check() {
  local what=$1 ok=$2
  if [ "$ok" = yes ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "check-capture: FAILED: $what" >&2
  fi
}
has() {
  # has TEXT WORD: TEXT has a line equal to WORD
  if grep -qxF -- "$2" <<<"$1"; then echo yes; else echo no; fi
}

total=$(fields -T fields -e frame.number | wc -l)
check "the capture holds packets ($total)" "$([ "$total" -gt 100 ] && echo yes || echo no)"

bad=$(fields -Y 'btle.crc.incorrect || _ws.malformed' -T fields -e frame.number | wc -l)
check "no frame with a wrong CRC or malformed ($bad found)" "$([ "$bad" -eq 0 ] && echo yes || echo no)"

# PDU types on the advertising channel (ADV_IND, SCAN_REQ, SCAN_RSP,
# CONNECT_IND, ADV_SCAN_IND).
types=$(fields -Y 'btle.access_address == 0x8e89bed6' -T fields \
  -e btle.advertising_header.pdu_type | sort -u)
for t in 0x00 0x03 0x04 0x05 0x06; do
  check "advertising PDU type $t" "$(has "$types" "$t")"
done

# Company 0x004C and the iBeacon frame of each beacon of the built-in
# scenario (backends/sim/DefaultScenario.cpp) and of the demo's emulator
# (default UUID, major 10, minor 11, -59 dBm).
beacons=$(fields -Y 'btcommon.eir_ad.entry.company_id == 0x004c' -T fields \
  -e btle.advertising_address -e btcommon.eir_ad.entry.company_id \
  -e btcommon.eir_ad.entry.data | sort -u)
while read -r address frame; do
  check "iBeacon of $address" "$(has "$beacons" "$address	0x004c	$frame")"
done <<'EOF'
c0:ff:ee:00:00:01 0215e2c56db5dffb48d2b060d0f5a71096e000010001c5
c0:ff:ee:00:00:02 02155a4bcfce174e4baca814092e77f6b7e500020007c5
c0:ff:ee:00:00:03 021574278bdab64445208f0c720eaf05993500030003c3
c0:ff:ee:00:00:04 0215e2c56db5dffb48d2b060d0f5a71096e000010002c5
c0:ff:ee:00:00:05 02155a4bcfce174e4baca814092e77f6b7e50009002ac5
5a:00:00:00:00:01 0215e2c56db5dffb48d2b060d0f5a71096e0000a000bc5
EOF

names=$(fields -Y btcommon.eir_ad.entry.device_name -T fields \
  -e btcommon.eir_ad.entry.device_name | sort -u)
for name in Lumora-Near Lumora-Desk Lumora-Hall Lumora-Walker Lumora-Far LumoraDemo ab; do
  check "local name $name" "$(has "$names" "$name")"
done
# A name that did not fit beside an iBeacon frame arrives in a scan response.
split=$(fields -Y 'btle.advertising_header.pdu_type == 0x04 && btle.advertising_address == c0:ff:ee:00:00:01' \
  -T fields -e btcommon.eir_ad.entry.device_name | sort -u)
check "Lumora-Near's name in its SCAN_RSP" "$(has "$split" Lumora-Near)"

# The finder's exchange with the emulator: write, its answer, read, its answer.
att=$(fields -Y btatt -T fields -e btatt.opcode -e btatt.value)
check "ATT Write Request of 010203" "$(has "$att" $'0x12\t010203')"
check "ATT Write Response" "$(has "$att" $'0x13\t')"
check "ATT Read Request" "$(has "$att" $'0x0a\t')"
check "ATT Read Response \"Lumora\"" "$(has "$att" $'0x0b\t4c756d6f7261')"

control=$(fields -Y btle.control_opcode -T fields -e btle.control_opcode | sort -u)
check "LL_TERMINATE_IND" "$(has "$control" 0x02)"

if [ "$failed" -gt 0 ]; then
  grep -v 'Running as user' "$work/tshark.err" | head -5 >&2 || true
  if [ -n "${KEEP:-}" ]; then
    cp "$pcap" "$KEEP/" && echo "check-capture: the capture is kept in $KEEP/demo.pcap" >&2
  else
    echo "check-capture: run with KEEP=DIR to keep the capture" >&2
  fi
fi
echo "check-capture: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
