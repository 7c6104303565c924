#!/bin/sh
# The tests of real TIPC in a full virtual machine with two processors, built with AddressSanitizer and then
# with ThreadSanitizer: what user-mode-linux, with its one processor, can neither run nor show. Arguments go
# to ctest. `./dev test --vm` calls it.
set -eu
cd "$(dirname "$0")/../.."
failed=
for preset in ${QEL_VM_PRESETS-asan tsan}; do
    echo "== $preset"
    mkdir -p build
    cmake --preset "$preset" >"build/configure-$preset.log" 2>&1 || {
        cat "build/configure-$preset.log" >&2
        exit 1
    }
    cmake --build --preset "$preset" -j "$(nproc)"
    # The cases between two kernels have kernels of their own, of the other kind.
    tests/kernel/vm.py --timeout 3000 -- \
        ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -R netns "$@" ||
        failed="$failed $preset"
done
[ -z "$failed" ] || {
    echo "vm.sh: failed under$failed" >&2
    exit 1
}
