"""In a virtual machine: makes the nodes, runs the command of the host, powers off. Argument: the directory
shared with the host, which holds this file, guest_init.py, command.json, and gets "status"."""
import json
import os
import subprocess
import sys
import termios
import tty

OUT = sys.argv[1]
sys.path.insert(0, OUT)
import guest_init  # noqa: E402


def main():
    with open(f"{OUT}/command.json") as f:
        order = json.load(f)
    os.environ.update(PATH="/usr/sbin:/usr/bin:/sbin:/bin", HOME="/root", LC_ALL="C")
    guest_init.mount("shm", "/dev/shm", "tmpfs")
    guest_init.mount("pts", "/dev/pts", "devpts", "ptmxmode=666")
    for d in ("/run/netns", "/run/node", "/run/q"):
        os.mkdir(d)
    guest_init.lead_to_node_files("")
    guest_init.command("ip link set lo up")
    guest_init.make_nodes(order["nodes"])
    guest_init.wait_for_links(range(1, order["nodes"] + 1), order["nodes"] - 1)
    line = os.open("/dev/ttyS1", os.O_WRONLY | os.O_NOCTTY)
    tty.setraw(line)
    ended = subprocess.run(order["argv"], env=order["env"], cwd=order["cwd"], stdin=subprocess.DEVNULL,
                           stdout=line, stderr=line, check=False)
    termios.tcdrain(line)
    return ended.returncode


if __name__ == "__main__":
    status = 125
    try:
        status = main()
    except Exception as e:  # whatever it is, the host must hear of it
        print(f"vm_guest: {type(e).__name__}: {e}", flush=True)  # on the console
    with open(f"{OUT}/status", "w") as f:
        f.write(str(status))
    guest_init.power_off()
