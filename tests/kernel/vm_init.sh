#!/bin/busybox sh
# shellcheck shell=dash
# The first process of a virtual machine, from its initramfs: modules, the host's files copy-on-write as the
# root file system, the directory @OUT@ as the host's own, then vm_guest.py.
b=/bin/busybox
fail() {
    $b echo "vm_init: $*"
    $b poweroff -f
}
share() { # TAG DIRECTORY OPTIONS
    $b mount -t 9p -o "trans=virtio,version=9p2000.L,msize=262144,$3" "$1" "$2" || fail "no $2"
}
$b mkdir -p /proc /dev /sys /host /run /new
$b mount -t proc proc /proc
$b mount -t devtmpfs dev /dev
$b mount -t sysfs sys /sys
while read -r m; do $b insmod "/modules/$m.ko" || fail "cannot load $m"; done </modules/order
share root /host cache=loose,ro
$b mount -t tmpfs run /run
$b mkdir -p /run/u /run/w
$b mount -t overlay -o lowerdir=/host,upperdir=/run/u,workdir=/run/w ov /new || fail "no overlay"
$b mkdir -p "/new@OUT@" /new/run /new/proc /new/sys /new/dev
share out "/new@OUT@" cache=none
for d in run proc sys dev; do $b mount -o move /$d /new/$d; done
exec $b switch_root /new @PYTHON@ -B -E -S "@OUT@/vm_guest.py" "@OUT@"
