#!/usr/bin/env bash
# Builds the guest image for the real-bluetoothd checks, unless the cache
# already holds one for the current recipe, and prints its folder. The folder
# holds `vmlinuz` (Debian's kernel), `rootfs.cpio` (the whole guest as one
# uncompressed initramfs) and `manifest.txt` (kernel and package versions).
#
#   scripts/vm/build-image.sh            # -> ~/.cache/lumora-vm/<key>
#   LUMORA_VM_CACHE=/var/cache/lumora-vm scripts/vm/build-image.sh
#
# Needs root (or sudo) for debootstrap, plus debootstrap, cpio and network
# access to the Debian mirror (LUMORA_VM_MIRROR, default deb.debian.org).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=common.sh
source "$here/common.sh"

key=$(vm_image_key)
target="$VM_CACHE/$key"
if [ -s "$target/rootfs.cpio" ] && [ -s "$target/vmlinuz" ]; then
  vm_log "image $key cached"
  echo "$target"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  # The cache stays the caller's: HOME and the cache folder are passed on.
  exec sudo LUMORA_VM_CACHE="$VM_CACHE" LUMORA_VM_MIRROR="$VM_MIRROR" bash "$0" "$@"
fi

started=$(date +%s)
mkdir -p "$VM_CACHE"
work=$(mktemp -d "$VM_CACHE/build.XXXXXX")
trap 'rm -rf "$work"' EXIT
root="$work/root"

vm_log "building image $key (debootstrap $VM_SUITE from $VM_MIRROR)"
packages=$(IFS=,; echo "${VM_PACKAGES[*]}")
if ! debootstrap --variant=minbase --include="$packages" "$VM_SUITE" "$root" "$VM_MIRROR" \
  >"$work/debootstrap.log" 2>&1; then
  tail -n 30 "$work/debootstrap.log" >&2
  [ -f "$root/debootstrap/debootstrap.log" ] && tail -n 30 "$root/debootstrap/debootstrap.log" >&2
  vm_log "debootstrap failed"
  exit 1
fi

# Debian's current kernel, unpacked without installing it: the guest boots it
# directly, with the whole system as its initramfs, so it needs neither
# initramfs-tools nor a boot loader.
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true
kernel_pkg=$(chroot "$root" apt-cache depends linux-image-amd64 |
  awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
[ -n "$kernel_pkg" ] || { vm_log "no kernel package found for linux-image-amd64"; exit 1; }
mkdir -p "$root/tmp/kernel"
(cd "$root/tmp/kernel" && chroot "$root" sh -c "cd /tmp/kernel && apt-get download -q $kernel_pkg" \
  >"$work/kernel-download.log" 2>&1) || {
  cat "$work/kernel-download.log" >&2
  vm_log "downloading $kernel_pkg failed"
  exit 1
}
dpkg-deb -x "$root"/tmp/kernel/*.deb "$work/kernel"
rm -rf "$root/tmp/kernel"
version=$(basename "$(ls -d "$work"/kernel/lib/modules/*)")

mkdir -p "$work/out"
cp "$work/kernel/boot/vmlinuz-$version" "$work/out/vmlinuz"
moddir="$root/lib/modules/$version"
mkdir -p "$moddir"
for tree in "${VM_MODULE_TREES[@]}"; do
  if [ -d "$work/kernel/lib/modules/$version/$tree" ]; then
    mkdir -p "$moddir/$(dirname "$tree")"
    cp -a "$work/kernel/lib/modules/$version/$tree" "$moddir/$tree"
  fi
done
cp "$work"/kernel/lib/modules/"$version"/modules.{order,builtin,builtin.modinfo} "$moddir/"

install -m 755 "$here/stub-init" "$root/init"

{
  echo "image $key, built $(date -u +%Y-%m-%dT%H:%M:%SZ) from $VM_MIRROR"
  echo "kernel $kernel_pkg ($version)"
  # shellcheck disable=SC2016  # dpkg-query's own fields
  chroot "$root" dpkg-query -W -f '${Package} ${Version}\n'
} >"$work/out/manifest.txt"

# What a guest that boots once, has no hardware to look up and never
# installs anything can do without: about a third of the image, and every
# megabyte is unpacked again at each boot.
rm -rf "$root"/usr/share/{doc,man,info,locale,zoneinfo,i18n} "$root"/var/cache/apt/* \
  "$root"/var/lib/apt/lists/* "$root"/var/cache/debconf/*-old "$root"/debootstrap \
  "$root"/usr/lib/udev/hwdb.* "$root"/usr/lib/x86_64-linux-gnu/gconv \
  "$root"/usr/lib/x86_64-linux-gnu/perl-base "$root"/usr/bin/perl*
find "$moddir" -name 'test_*.ko*' -delete
chroot "$root" depmod "$version"
rm -f "$root/etc/machine-id"

(cd "$root" && find . -print0 | cpio --null --create --format=newc --quiet) >"$work/out/rootfs.cpio"

rm -rf "$target"
mv "$work/out" "$target"
# Images of older recipes are never used again.
find "$VM_CACHE" -mindepth 1 -maxdepth 1 -type d ! -name "$key" ! -name 'build.*' -exec rm -rf {} +
vm_log "image $key built in $(($(date +%s) - started)) s ($(du -sm "$target/rootfs.cpio" | cut -f1) MB)"
echo "$target"
