#!/bin/sh
# demo.sh [--kernel|--shell]: three nodes with applications that find each other, talk under flow control,
# lose a peer and get it back, and an operator's console that looks at them. On this host's local transport;
# with --kernel over the kernel's TIPC in user-mode-linux; --shell leaves you in the console of node 1.
# `./dev demo` builds first. By hand: QEL_BUILD_DIR names the build directory.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
build=${QEL_BUILD_DIR:-$here/../build/release}
for program in qel-fabric qeld examples/sensor; do
    [ -x "$build/$program" ] || {
        echo "demo.sh: $build has no $program: build first (./dev demo), or set QEL_BUILD_DIR" >&2
        exit 2
    }
done
command -v python3 >/dev/null || {
    echo "demo.sh: python3 is missing" >&2
    exit 2
}
QEL_BUILD_DIR=$(cd "$build" && pwd)
QEL_FABRIC_BIN=$QEL_BUILD_DIR/qel-fabric
export QEL_BUILD_DIR QEL_FABRIC_BIN
exec python3 -B "$here/demo.py" "$@"
