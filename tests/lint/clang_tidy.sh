#!/bin/sh
# clang-tidy over every compiled file, with the checks of .clang-tidy; arguments are patterns of paths.
set -eu
cd "$(dirname "$0")/../.."
if [ $# -eq 0 ]; then set -- "$PWD/(lib|daemon|fabric|examples|bench|tests)/"; fi
run-clang-tidy -quiet -p build/clang-tsa -j "$(nproc)" "$@" >build/clang-tidy.log 2>&1 || {
    grep -vE '^(clang-tidy-14|[0-9]+ warnings? generated|Suppressed|Use -header-filter)' build/clang-tidy.log
    exit 1
}
