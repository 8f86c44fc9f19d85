#!/usr/bin/env bash
# Installs what is missing of the Debian packages: setup.sh [demo|test|browser|tree|tree-host]. demo builds and runs the
# program; test, the default, adds what the tests, the benchmarks and the checks need; browser adds Chromium to that;
# tree is what the tests need in a Debian tree of another kind, tree-host what makes such a tree. Touches nothing when
# nothing is missing.
set -euo pipefail

demo_packages=(
  g++ cmake ninja-build pkg-config ffmpeg
  libavcodec-dev libavfilter-dev libavformat-dev libavutil-dev libswresample-dev libswscale-dev
  libcli11-dev libcurl4-openssl-dev libjpeg-dev libjsoncpp-dev libsqlite3-dev libssl-dev
)
test_packages=(
  libgtest-dev libbenchmark-dev clang clang-format clang-tidy cppcheck libclang-rt-14-dev valgrind shellcheck python3
  libcpp-httplib-dev doxygen dpkg-dev file groff-base lintian
)
browser_packages=(chromium)
tree_packages=(libgtest-dev valgrind python3 libcpp-httplib-dev)

case ${1:-test} in
  demo) packages=("${demo_packages[@]}") ;;
  test) packages=("${demo_packages[@]}" "${test_packages[@]}") ;;
  browser) packages=("${demo_packages[@]}" "${test_packages[@]}" "${browser_packages[@]}") ;;
  tree) packages=("${demo_packages[@]}" "${tree_packages[@]}") ;;
  tree-host) packages=(debootstrap) ;;
  *)
    echo "usage: setup.sh [demo|test|browser|tree|tree-host]" >&2
    exit 2
    ;;
esac

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || true
  [ "$status" = installed ] || missing+=("$package")
done
[ "${#missing[@]}" -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" != 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup.sh: not root and no sudo; as root, run: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "setup.sh: installing ${missing[*]}" >&2
# Outdated lists are no failure as long as the packages can be had.
"${as_root[@]}" apt-get update -qq || echo "setup.sh: apt-get update failed, trying with the lists as they are" >&2
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
