#!/bin/sh
# Are all C and C++ files in the repository's format? With --fix: put them into it.
set -eu
cd "$(dirname "$0")/../.."
case ${1-} in
--fix) set -- -i ;;
*) set -- --dry-run -Werror ;;
esac
find include lib daemon fabric examples bench tests -type f \
    \( -name "*.h" -o -name "*.c" -o -name "*.cpp" \) -print0 2>/dev/null |
    xargs -0 clang-format --style=file "$@"
