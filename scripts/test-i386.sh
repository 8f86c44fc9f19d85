#!/usr/bin/env bash
# Builds and tests as 32-bit x86 code, optimised, in a Debian 12 i386 tree below build/. Arguments go to ctest;
# --prepare only makes the tree. Where the tree cannot be made it says so in one line and counts as passed.
set -euo pipefail
exec "$(dirname "${BASH_SOURCE[0]}")/debian-tree.sh" i386 bookworm i386 "$@"
