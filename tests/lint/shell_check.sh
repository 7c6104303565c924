#!/bin/sh
# Runs shellcheck over every shell script: by name, or by its first line.
set -eu
cd "$(dirname "$0")/../.."
{
    find . -path ./build -prune -o -path ./.git -prune -o -type f -name '*.sh' -print
    find . -path ./build -prune -o -path ./.git -prune -o -type f ! -name '*.*' -print |
        while read -r file; do
            if head -c 64 "$file" | head -n 1 | grep -aqE '^#!.*/(env )?(ba|da)?sh'; then
                echo "$file"
            fi
        done
    echo ./.ci/run
} | sort -u | xargs shellcheck -x -S warning
