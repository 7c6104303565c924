#!/usr/bin/env python3
"""Real TIPC on two processors: a full virtual machine (QEMU without KVM, Debian's kernel), without root.

    vm.py [--nodes N] [--timeout S] [--memory MB] -- COMMAND...

runs COMMAND as root in a copy-on-write view of the host's file system, where N nodes (network namespaces
n1..nN with the TIPC addresses 1.1.1 to 1.1.N) are linked, shows its output and ends with its status. Inside,
qel_nodes.Cluster with the back end "netns" runs processes on these nodes. What user-mode-linux cannot do
works here: several processors, AddressSanitizer, ThreadSanitizer. 124 is the status of a time-out, 125 of a
machine that broke.

The kernel is Debian's package, fetched once into QEL_VM_CACHE (build/vm), not installed.
"""
import argparse
import fcntl
import glob
import json
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from uml import Guard, die_with_parent

HERE = os.path.dirname(os.path.abspath(__file__))
CACHE = os.environ.get("QEL_VM_CACHE", os.path.join(HERE, "../../build/vm"))
MODULES = """drivers/virtio/virtio_ring drivers/virtio/virtio drivers/virtio/virtio_pci_modern_dev
    drivers/virtio/virtio_pci_legacy_dev drivers/virtio/virtio_pci net/9p/9pnet net/9p/9pnet_virtio
    fs/netfs/netfs fs/fscache/fscache fs/9p/9p fs/overlayfs/overlay
    net/ipv4/udp_tunnel net/ipv6/ip6_udp_tunnel net/tipc/tipc
    drivers/net/veth net/llc/llc net/802/stp net/bridge/bridge net/sched/sch_netem""".split()
SILENCE_S = 1  # between looks at the clock


class VmError(Exception):
    pass


def run(*words, **kw):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, **kw)
    if done.returncode:
        raise VmError(" ".join(words) + ": " + done.stdout.decode(errors="replace").strip())
    return done.stdout


def missing():
    path = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    lacking = [package for program, package in (
        ("qemu-system-x86_64", "qemu-system-x86"), ("busybox", "busybox-static"), ("cpio", "cpio"),
        ("tipc", "iproute2"), ("dpkg-deb", "dpkg"),
    ) if not shutil.which(program, path=path)]
    return "needed are the Debian packages " + " ".join(lacking) if lacking else None


def prepare():
    """The kernel and its modules in the cache; gives the paths of kernel and modules."""
    os.makedirs(CACHE, exist_ok=True)
    with open(os.path.join(CACHE, "lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not glob.glob(f"{CACHE}/kernel/boot/vmlinuz-*"):
            text = run("apt-cache", "show", "--no-all-versions", "linux-image-amd64").decode()
            match = re.search(r"^Depends: (linux-image-[0-9.]+-[0-9]+-amd64)", text, re.M)
            if not match:
                raise VmError("apt knows no linux-image-amd64")
            with tempfile.TemporaryDirectory(dir=CACHE) as tmp:
                run("apt-get", "-q", "download", match.group(1), cwd=tmp)
                run("dpkg-deb", "-x", glob.glob(f"{tmp}/*.deb")[0], f"{tmp}/kernel")
                os.rename(f"{tmp}/kernel", f"{CACHE}/kernel")
    kernel, = glob.glob(f"{CACHE}/kernel/boot/vmlinuz-*")
    modules, = glob.glob(f"{CACHE}/kernel/lib/modules/*/kernel")
    return kernel, modules


def make_initramfs(work, modules):
    tree = os.path.join(work, "tree")
    os.makedirs(f"{tree}/bin")
    os.makedirs(f"{tree}/modules")
    shutil.copy(shutil.which("busybox"), f"{tree}/bin/busybox")
    for name in MODULES:
        shutil.copy(f"{modules}/{name}.ko", f"{tree}/modules/")
    with open(f"{tree}/modules/order", "w") as f:
        f.writelines(os.path.basename(m) + "\n" for m in MODULES)
    with open(os.path.join(HERE, "vm_init.sh")) as f:
        text = f.read().replace("@OUT@", work).replace("@PYTHON@", sys.executable)
    with open(f"{tree}/init", "w") as f:
        f.write(text)
    os.chmod(f"{tree}/init", 0o755)
    names = subprocess.run(["find", "."], cwd=tree, stdout=subprocess.PIPE, check=True).stdout
    image = os.path.join(work, "initramfs")
    with open(image, "wb") as f:
        subprocess.run(["cpio", "--quiet", "-o", "-H", "newc"], cwd=tree, input=names, stdout=f, check=True)
    return image


def boot(argv, nodes, timeout_s, memory_mb):
    """Runs @argv in a machine. Gives its status."""
    if text := missing():
        raise VmError(text)
    kernel, modules = prepare()
    deadline = time.monotonic() + timeout_s
    with tempfile.TemporaryDirectory(prefix="qel-vm-", ignore_cleanup_errors=True) as work:
        image = make_initramfs(work, modules)
        shutil.copy(os.path.join(HERE, "guest_init.py"), work)
        shutil.copy(os.path.join(HERE, "vm_guest.py"), work)
        env = dict(os.environ, PATH=os.environ.get("PATH", "") + ":/usr/sbin:/sbin", HOME="/root",
                   TMPDIR="/tmp", QEL_TEST_BACKEND="netns")
        with open(f"{work}/command.json", "w") as f:
            json.dump({"argv": argv, "nodes": nodes, "cwd": os.getcwd(), "env": env}, f)
        guard = Guard(work)
        # A /dev/kvm that opens and then makes no progress has been met, hence tcg by name.
        proc = subprocess.Popen(
            ["qemu-system-x86_64", "-M", "q35", "-accel", "tcg,thread=multi", "-cpu", "max", "-smp", "2",
             "-m", f"{memory_mb}M", "-nodefaults", "-no-reboot", "-display", "none",
             "-serial", f"file:{work}/console", "-serial", "stdio",
             "-kernel", kernel, "-initrd", image, "-append", "console=ttyS0 quiet panic=-1 mitigations=off",
             "-virtfs", "local,path=/,mount_tag=root,security_model=none,readonly=on,multidevs=remap",
             "-virtfs", f"local,path={work},mount_tag=out,security_model=none"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, start_new_session=True,
            preexec_fn=die_with_parent)
        try:
            poll = select.poll()
            poll.register(proc.stdout, select.POLLIN)
            while True:
                if time.monotonic() > deadline:
                    print(f"\nvm.py: not done after {timeout_s:g} s", file=sys.stderr)
                    return 124
                if not poll.poll(SILENCE_S * 1000):
                    continue
                data = os.read(proc.stdout.fileno(), 65536)
                if not data:
                    break
                sys.stdout.buffer.write(data)
                sys.stdout.flush()
            proc.wait()
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            proc.stdout.close()
            guard.dismiss()
        try:
            with open(f"{work}/status") as f:
                return int(f.read())
        except (OSError, ValueError):
            with open(f"{work}/console", errors="replace") as f:
                text = f.read()[-5000:]
            raise VmError("the machine ended without a result; its console:\n" + text) from None


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n", 1)[1])
    parser.add_argument("--nodes", type=int, default=3)
    parser.add_argument("--timeout", type=float, default=900)
    parser.add_argument("--memory", type=int, default=3072)
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    words = args.command[1:] if args.command[:1] == ["--"] else args.command
    if not words:
        parser.error("a command is needed")
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, lambda number, _: sys.exit(128 + number))
    try:
        status = boot(words, args.nodes, args.timeout, args.memory)
        return 128 - status if status < 0 else status
    except VmError as e:
        print(f"vm.py: {e}", file=sys.stderr)
        return 125


if __name__ == "__main__":
    sys.exit(main())
