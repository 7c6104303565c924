#!/usr/bin/python3 -BES
"""The first process of a user-mode-linux guest: TIPC, the nodes, a copy-on-write view of the host's files,
then the agent that runs commands. Its parameters come from the kernel's command line as environment
variables:

W      work directory on the host: node<n>/ with each node's files, agent.py, mounts
FAILED host file that gets the reason of a failure
NODES  how many nodes this kernel holds, each a network namespace; 0: the kernel is the one node
SELF   with NODES=0: the number of that node
LINKS  with NODES=0: how many network devices vec0.. lead to other kernels
PEERS  how many linked nodes to wait for
"""
import ctypes
import os
import subprocess
import sys
import time

LINK_TIMEOUT_S = 30
SYS_FINIT_MODULE = 313
MS_BIND, MS_REC = 4096, 16384
LINUX_REBOOT_CMD_POWER_OFF = 0x4321FEDC
MODULES = """lib/crc-ccitt net/ipv6/ipv6 net/ipv4/udp_tunnel net/ipv6/ip6_udp_tunnel net/tipc/tipc
drivers/net/veth net/llc/llc net/802/stp net/bridge/bridge net/sched/sch_netem fs/overlayfs/overlay"""
ROOT = "/run/r"  # the copy-on-write view

libc = ctypes.CDLL(None, use_errno=True)


def need(ret, what):
    if ret != 0:
        raise OSError(f"{what}: {os.strerror(ctypes.get_errno())}")


def mount(source, target, kind, options=None, flags=0):
    os.makedirs(target, exist_ok=True)
    need(libc.mount(source.encode(), target.encode(), kind and kind.encode(), flags,
                    options and options.encode()), f"mount of {source} on {target}")


def command(line, **kw):
    done = subprocess.run(line.split(), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)
    if done.returncode:
        raise OSError(f"{line}: {done.stdout.strip() or done.returncode}")
    return done.stdout


def load_modules():
    base = f"/usr/lib/uml/modules/{os.uname().release}/kernel"
    for name in MODULES.split():
        fd = os.open(f"{base}/{name}.ko", os.O_RDONLY)
        need(libc.syscall(SYS_FINIT_MODULE, fd, b"", 0), f"loading {name}.ko")
        os.close(fd)


def copy_on_write(work):
    """The host's files stay untouched; what a test may write to the host is mounted again, directly."""
    for d in ("/run/u", "/run/w"):
        os.mkdir(d)
    mount("overlay", ROOT, "overlay", "lowerdir=/,upperdir=/run/u,workdir=/run/w")
    lead_to_node_files(ROOT)
    with open(f"{work}/mounts") as f:
        for d in f.read().splitlines():
            mount("none", ROOT + d, "hostfs", d)


def lead_to_node_files(root):
    """The product's fixed paths lead to the files of the node on which a process runs."""
    for path in ("etc/qel.conf", "tmp/addr", "velt"):
        link = f"{root}/{path}"
        if os.path.lexists(link):
            command(f"rm -rf {link}")
        os.makedirs(os.path.dirname(link), exist_ok=True)
        os.symlink(f"/run/node/{path}", link)


def make_nodes(count):
    batch = ["link add br0 type bridge", "link set br0 up"]
    for i in range(1, count + 1):
        batch += [f"netns add n{i}", f"link add e{i} type veth peer name eth0 netns n{i}",
                  f"link set e{i} master br0 up"]
    command("ip -batch -", input="\n".join(batch) + "\n")
    for i in range(1, count + 1):
        command(f"ip -n n{i} -batch -", input="link set lo up\nlink set eth0 up\n")
        command(f"ip netns exec n{i} tipc node set address 1.1.{i}")
        command(f"ip netns exec n{i} tipc bearer enable media eth device eth0")


def make_node(number, links):
    command(f"tipc node set address 1.1.{number}")
    for i in range(links):
        command(f"ip link set vec{i} up")
        command(f"tipc bearer enable media eth device vec{i}")


def wait_for_links(nodes, peers):
    deadline = time.monotonic() + LINK_TIMEOUT_S
    for node in nodes:
        prefix = f"ip netns exec n{node} " if node else ""
        while peers:
            links = command(f"{prefix}tipc link list")
            if sum(": up" in line and line[:1].isdigit() for line in links.splitlines()) >= peers:
                break
            if time.monotonic() > deadline:
                raise OSError(f"the links do not come up in {LINK_TIMEOUT_S} s:\n{links}")
            time.sleep(0.05)


def start():
    os.environ.update(PATH="/usr/sbin:/usr/bin:/sbin:/bin", HOME="/root", LC_ALL="C")
    work, nodes, peers = os.environ["W"], int(os.environ["NODES"]), int(os.environ["PEERS"])
    mount("proc", "/proc", "proc")
    mount("sys", "/sys", "sysfs")
    mount("run", "/run", "tmpfs")
    mount("shm", "/dev/shm", "tmpfs")
    mount("pts", "/dev/pts", "devpts", "ptmxmode=666")
    mount("none", "/run/q", "hostfs", work)
    for d in ("/run/netns", "/run/node"):
        os.mkdir(d)
    load_modules()
    copy_on_write(work)
    command("ip link set lo up")
    if nodes:
        make_nodes(nodes)
    else:
        make_node(int(os.environ["SELF"]), int(os.environ["LINKS"]))
    wait_for_links(range(1, nodes + 1) if nodes else [0], peers)
    for d in ("proc", "sys", "dev", "run"):  # after the namespaces exist
        mount(f"/{d}", f"{ROOT}/{d}", None, None, MS_BIND | MS_REC)
    agent = os.fork()
    if agent == 0:
        os.chroot(ROOT)
        os.chdir("/")
        os.execv(sys.executable, ["python3", "-B", "-E", "-S", "/run/q/agent.py", "/dev/tty1"])
    while True:
        pid, status = os.wait()
        if pid == agent:
            break
    if status:
        raise OSError(f"the agent ended with status {os.waitstatus_to_exitcode(status)}")


def power_off():
    libc.sync()
    libc.reboot(LINUX_REBOOT_CMD_POWER_OFF)
    time.sleep(60)


def main():
    try:
        start()
    except BaseException as e:  # the first process must not end: that is a panic
        with open(os.environ["FAILED"], "w") as f:
            f.write(f"{type(e).__name__}: {e}\n")
    finally:
        power_off()


if __name__ == "__main__":
    main()
