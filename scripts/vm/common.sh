# shellcheck shell=bash disable=SC2034
# Settings shared by the guest scripts (sourced, not run).
#
# The guest is Debian 12 (the same release as the build host, so host-built
# binaries run in it unchanged) with real bluetoothd, btvirt and the runtime
# libraries of the project's programs. Its image is cached outside the clone
# under a key made of everything that goes into it, so a change of the
# package list, the kernel modules, the boot stub or the recipe builds a new
# one.

VM_SUITE=bookworm
VM_MIRROR=${LUMORA_VM_MIRROR:-http://deb.debian.org/debian}
VM_CACHE=${LUMORA_VM_CACHE:-${HOME:-/root}/.cache/lumora-vm}

# dbus, bluez (bluetoothd, bluetoothctl, btmgmt) and btvirt (bluez-test-tools)
# for the radio; kmod for modprobe; procps for pkill/pgrep in the scenario
# runner; the rest are what the host-built test program and tool link
# against beyond the minimal system (check with ldd after a build).
VM_PACKAGES=(
  dbus bluez bluez-test-tools kmod procps
  libsdbus-c++1 libfmt9
)

# Kernel module trees copied out of Debian's kernel package: Bluetooth and the
# virtual HCI driver with the crypto and library code they need, rfkill, and
# virtio-9p (with netfs/fscache) for the shared folders.
VM_MODULE_TREES=(
  kernel/net/bluetooth kernel/drivers/bluetooth kernel/net/rfkill
  kernel/crypto kernel/lib kernel/arch/x86/crypto
  kernel/net/9p kernel/fs/9p kernel/fs/netfs kernel/fs/fscache
  kernel/drivers/virtio kernel/drivers/char/hw_random
)

# The cache key: the lists above, the boot stub and the recipe itself.
vm_image_key() {
  local dir
  dir=$(dirname "${BASH_SOURCE[0]}")
  {
    echo "suite ${VM_SUITE}"
    printf 'package %s\n' "${VM_PACKAGES[@]}"
    printf 'modules %s\n' "${VM_MODULE_TREES[@]}"
    cat "$dir/stub-init" "$dir/build-image.sh"
  } | sha256sum | cut -c1-16
}

vm_log() { echo "vm: $*" >&2; }
