#!/bin/sh
# PID 1 of the guest after the image's stub (stub-init) has mounted the job
# share at /job. Prepares the system, mounts the host folders listed in
# /job/shares at the paths they have on the host, starts the system bus,
# runs /job/run and leaves its exit status in /job/status for the host. The
# guest then powers off: qemu runs with -no-reboot, so that ends it.
#
# /job/shares: one "TAG PATH ro|rw" line per virtio-9p share.
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export HOME=/root LANG=C.UTF-8 TERM=dumb

halt_guest() {
  sync
  echo o >/proc/sysrq-trigger
  sleep 30
}

mkdir -p /dev/pts /dev/shm /run /tmp
mount -t devpts devpts /dev/pts
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs -o mode=755 tmpfs /run
mount -t tmpfs tmpfs /tmp
mount -t debugfs debugfs /sys/kernel/debug
hostname lumora-vm

# virtio_rng feeds the kernel's entropy pool, so nothing waits on getrandom().
# The Bluetooth core and btvirt (through AF_ALG) ask for their crypto by name
# while the first controllers are set up; loaded on demand then, the first
# controller of a boot often never finished its set-up. Loaded here, it is
# there in time.
for m in virtio_rng af_alg algif_hash algif_skcipher drbg ecdh_generic ecb cmac \
  bluetooth hci_vhci; do
  modprobe -q "$m" || echo "lumora-vm: modprobe $m failed"
done

while read -r tag path mode; do
  [ -n "$tag" ] || continue
  mkdir -p "$path"
  # Read-only shares may be cached; written ones go straight to the host.
  opts=trans=virtio,version=9p2000.L,msize=262144
  [ "$mode" = ro ] && opts="$opts,ro,cache=loose"
  if ! mount -t 9p -o "$opts" "$tag" "$path"; then
    echo "lumora-vm: cannot mount share $tag at $path"
    echo 125 >/job/status
    halt_guest
  fi
done </job/shares

mkdir -p /run/dbus /var/lib/bluetooth
dbus-uuidgen >/etc/machine-id
dbus-daemon --system --fork

echo "lumora-vm: up after $(cut -d' ' -f1 /proc/uptime) s"
/bin/sh /job/run
echo $? >/job/status
halt_guest
