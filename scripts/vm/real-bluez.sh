#!/usr/bin/env bash
# Runs the guest scenarios (tests/guest, the program test_guest) against real
# bluetoothd 5.66 with two btvirt controllers, in a Debian 12 guest under
# qemu, all scenarios in one boot.
#
#   scripts/vm/real-bluez.sh BUILD_DIR [GTEST_FILTER]
#
# BUILD_DIR is a configured CMake build folder of this tree (build/default
# after `make check`); the script builds its targets lumora_tool and
# test_guest there (test_guest is not part of `all`). The guest sees the
# source tree and BUILD_DIR read-only at the same paths as the host, so the
# host-built programs run there as they are. Results (one GoogleTest XML file per
# scenario, bluetoothd and btvirt logs, the console) end up in
# BUILD_DIR/real-bluez. Exit status: 0 when every scenario passed.
#
# Environment:
#   LUMORA_VM_CACHE    where images are cached (default ~/.cache/lumora-vm)
#   LUMORA_VM_MIRROR   Debian mirror for a new image
#   LUMORA_VM_ACCEL    tcg, kvm or auto (default: kvm only when the CPU
#                      offers hardware virtualization, else tcg)
#   LUMORA_VM_TIMEOUT  seconds the whole boot may take (default 600)
#   LUMORA_VM_BTMON=1  record each scenario's HCI traffic (btsnoop files)
#   LUMORA_VM_DEBUG=1  run bluetoothd with -d and log the system bus
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=common.sh
source "$here/common.sh"

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $0 BUILD_DIR [GTEST_FILTER]" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
filter=${2:-*}
source_dir=$(cd "$here/../.." && pwd)
test_program="$build/tests/test_guest"
tool_program="$build/tools/lumora/lumora"
if [ ! -f "$build/CMakeCache.txt" ]; then
  vm_log "$build is not a CMake build folder (configure it first, e.g. cmake --preset default)"
  exit 2
fi
cmake --build "$build" --target lumora_tool test_guest -j "$(nproc)"

started=$(date +%s)
image=$(bash "$here/build-image.sh" | tail -n 1)
image_done=$(date +%s)

job=$(mktemp -d "${TMPDIR:-/tmp}/lumora-vm.XXXXXX")
trap 'rm -rf "$job"' EXIT
install -m 755 "$here/guest-init.sh" "$job/init"
install -m 644 "$here/guest-scenarios.sh" "$job/run"
cat >"$job/env" <<EOF
TEST_PROGRAM='$test_program'
TOOL_PROGRAM='$tool_program'
FILTER='$filter'
EMULATOR_ADAPTER=hci0
FINDER_ADAPTER=hci1
BTMON='${LUMORA_VM_BTMON:-0}'
DEBUG='${LUMORA_VM_DEBUG:-0}'
EOF

# The source tree, and the build folder when it lies elsewhere.
shares=(-virtfs "local,path=$job,mount_tag=job,security_model=none")
echo "src $source_dir ro" >"$job/shares"
shares+=(-virtfs "local,path=$source_dir,mount_tag=src,security_model=none,readonly=on")
case "$build/" in
  "$source_dir"/*) ;;
  *)
    echo "build $build ro" >>"$job/shares"
    shares+=(-virtfs "local,path=$build,mount_tag=build,security_model=none,readonly=on")
    ;;
esac

accel=${LUMORA_VM_ACCEL:-auto}
if [ "$accel" = auto ]; then
  # /dev/kvm alone is not enough: on a paravirtual host it exists, yet the
  # guest then hangs or dies of a KVM internal error.
  if [ -w /dev/kvm ] && grep -qE '\b(vmx|svm)\b' /proc/cpuinfo; then accel=kvm; else accel=tcg; fi
fi
# shellcheck disable=SC2054  # commas belong to qemu's option syntax
case "$accel" in
  kvm) accel_args=(-accel kvm -cpu host) ;;
  tcg) accel_args=(-accel tcg,thread=multi -cpu max) ;;
  *)
    vm_log "LUMORA_VM_ACCEL must be tcg, kvm or auto"
    exit 2
    ;;
esac

vm_log "booting $(basename "$image") with $accel; scenarios matching '$filter'"
set +e
timeout -k 10 "${LUMORA_VM_TIMEOUT:-600}" qemu-system-x86_64 \
  "${accel_args[@]}" -smp 2 -m 1024 \
  -bios /usr/share/qemu/qboot.rom \
  -kernel "$image/vmlinuz" -initrd "$image/rootfs.cpio" \
  -append "console=ttyS0 quiet loglevel=3 panic=-1 rdinit=/init" \
  -display none -serial stdio -monitor none -no-reboot -nic none \
  -device virtio-rng-pci \
  "${shares[@]}" </dev/null 2>&1 | tee "$job/console.log"
qemu_status=${PIPESTATUS[0]}
set -e
finished=$(date +%s)

out="$build/real-bluez"
rm -rf "$out"
mkdir -p "$out"
cp -r "$job"/results/. "$out"/ 2>/dev/null || true
cp "$job/console.log" "$out/"

status=$(cat "$job/status" 2>/dev/null || echo "")
vm_log "image $((image_done - started)) s, boot and scenarios $((finished - image_done)) s, total $((finished - started)) s; results in $out"
if [ "$qemu_status" -eq 124 ] || [ "$qemu_status" -eq 137 ]; then
  vm_log "the guest did not finish within ${LUMORA_VM_TIMEOUT:-600} s"
  exit 1
fi
if [ -z "$status" ]; then
  vm_log "the guest left no exit status (qemu exited with $qemu_status)"
  exit 1
fi
exit "$status"
