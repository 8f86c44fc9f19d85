#!/usr/bin/env bash
# Builds and tests in a Debian tree of its own below build/, which is kept between runs. For test-i386.sh and
# test-debian13.sh: debian-tree.sh NAME SUITE ARCHITECTURE [--prepare | CTEST-ARGUMENT...]. --prepare only makes the
# tree. Where it cannot be made, one line says why and the exit code is 0.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

name=$1 suite=$2 arch=$3
shift 3
build=build/$name
tree=$PWD/build/tree-$name
log=$PWD/build/tree-$name.log
personality=()
if [ "$arch" = i386 ]; then personality=(setarch i386); fi

skip() {
  echo "== $name skipped: $1"
  exit 0
}

if [ "$(id -u)" != 0 ]; then
  command -v sudo >/dev/null || skip "it needs root or sudo"
  [ -t 0 ] || sudo -n true 2>/dev/null || skip "sudo asks for a password"
  exec sudo scripts/debian-tree.sh "$name" "$suite" "$arch" "$@"
fi

# in_tree COMMAND...: as root of the tree, with this source folder as /src. The mounts end with the command. The tree is
# the root of a mount namespace: tests leave theirs for it again, which would end a chroot.
in_tree() {
  # shellcheck disable=SC2016 # for the shell behind unshare
  unshare --mount --propagation private "${personality[@]}" bash -euc '
    tree=$1
    mount --bind "$tree" "$tree"
    mount --bind "$PWD" "$tree/src"
    mount -t proc proc "$tree/proc" 2>/dev/null || mount --rbind /proc "$tree/proc"
    mount --rbind /dev "$tree/dev"
    shift
    cd "$tree"
    pivot_root . .
    umount -l .
    exec env -i HOME=/root LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"' in_tree "$tree" "$@"
}

mkdir -p build
exec {lock}>"$tree.lock"
flock "$lock"
if [ ! -e "$tree/made" ]; then
  echo "== $name: making a tree of Debian $suite $arch"
  command -v debootstrap >/dev/null || scripts/setup.sh tree-host || skip "debootstrap cannot be installed"
  rm -rf --one-file-system "$tree"
  debootstrap --variant=minbase --arch="$arch" "$suite" "$tree" >"$log" 2>&1 ||
    skip "the package mirror does not answer, or debootstrap may not work here; see build/tree-$name.log"
  mkdir -p "$tree/src"
  touch "$tree/made"
fi
[ ! -e /etc/resolv.conf ] || cp /etc/resolv.conf "$tree/etc/resolv.conf"
in_tree /src/scripts/setup.sh tree >"$log" 2>&1 || skip "its packages cannot be installed; see build/tree-$name.log"

if [ "${1:-}" = --prepare ]; then exit 0; fi

echo "== building $name"
if ! in_tree sh -ec "cd /src && cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=Release -DMEDIAUTIL_WERROR=ON &&
  cmake --build $build" >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
echo "== testing $name"
in_tree ctest --test-dir "/src/$build" --output-on-failure -j2 "$@"
