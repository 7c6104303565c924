#!/bin/sh
# clang-tidy over every compiled file, with the checks of .clang-tidy; an argument is a pattern of paths.
set -eu
cd "$(dirname "$0")/../.."
sed -n 's/^  "file": "\(.*\)",*$/\1/p' build/clang-tsa/compile_commands.json | sort -u |
    grep -E "^$PWD/(lib|daemon|fabric|examples|bench|tests)/" | grep -E "${1-.}" |
    nice xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/clang-tsa 2>/dev/null
