#!/usr/bin/env bash
# Builds and tests with FFmpeg 7.1, in a Debian 13 tree below build/. Arguments go to ctest; --prepare only makes the
# tree. Where the tree cannot be made it says so in one line and counts as passed.
set -euo pipefail
exec "$(dirname "${BASH_SOURCE[0]}")/debian-tree.sh" debian13 trixie "$(dpkg --print-architecture)" "$@"
