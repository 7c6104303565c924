#!/bin/sh
# cppcheck over the sources of the product. What it gets wrong is in cppcheck.suppressions, with the reason.
set -eu
cd "$(dirname "$0")/../.."
dirs=
for dir in lib daemon fabric examples; do
    if [ -d "$dir" ]; then dirs="$dirs $dir"; fi
done
mkdir -p build/cppcheck
cppcheck --quiet -j "$(nproc)" --enable=warning,performance,portability --inline-suppr --inconclusive \
    --cppcheck-build-dir=build/cppcheck --suppressions-list=tests/lint/cppcheck.suppressions \
    --error-exitcode=1 -Iinclude -Ilib -Idaemon -Ifabric -D__GNUC__=12 -D__linux__=1 \
    --template='{file}:{line}: {id}: {message}' $dirs
