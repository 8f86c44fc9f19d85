#!/usr/bin/env bash
# What `cmake --install` leaves still serves when it is moved: to consumers, and as program, manual and completion.
set -euo pipefail
: "${BUILD:?}" "${SOURCE:?}" "${VERSION:?}" "${CMAKE:?}" "${CXX:?}"
consumer=$(cd "$(dirname "$0")/consumer" && pwd)
DIR=$(mktemp -d)
trap 'rm -rf "$DIR"' EXIT
prefix="$DIR/else where"

die() {
  echo "FAILED: $*" >&2
  exit 1
}
equal() { [ "$1" = "$2" ] || die "${3:-values}: '$1' is not '$2'"; }
# Nothing of the build's environment may help.
clean() { env -i PATH="$PATH" HOME="$DIR" ${PKG_CONFIG_LIBDIR+PKG_CONFIG_LIBDIR="$PKG_CONFIG_LIBDIR"} "$@"; }
# makes_jpeg PROGRAM
makes_jpeg() { equal "$(clean "$1" | od -An -tx1 -N3)" ' ff d8 ff' "the picture of $1"; }

"$CMAKE" --install "$BUILD" --prefix "$DIR/stage" >"$DIR/log" || die "the install: $(cat "$DIR/log")"
mv "$DIR/stage" "$prefix"
cd "$DIR"
pcdir=$(dirname "$(find "$prefix" -name mediautil.pc)")
libdir=$(dirname "$pcdir")
read -ra flags <<<"${CXXFLAGS:-}"

# --- no path of this machine, and no header that is nobody's business ---
equal "$(grep -rlaF -e "$BUILD" -e "$SOURCE" "$prefix" || true)" '' 'files with a path of the build'
equal "$(find "$prefix/include" -mindepth 2 | grep -E '/internal|/local|\.cpp' || true)" '' 'private files'

# --- a consumer through CMake ---
clean "$CMAKE" -G Ninja -S "$consumer" -B through_cmake -DCMAKE_PREFIX_PATH="$prefix" -DWANTED="$VERSION" \
  -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="${CXXFLAGS:-}" -DCMAKE_LIBRARY_ARCHITECTURE="${ARCH:-}" >log 2>&1 ||
  die "a consumer through CMake, configured: $(cat log)"
clean "$CMAKE" --build through_cmake >log 2>&1 || die "a consumer through CMake: $(cat log)"
makes_jpeg through_cmake/consumer

# --- a consumer through pkg-config, with every header there is ---
(cd "$prefix/include/mediautil" && find . -name '*.h' -printf '#include "%P"\n') >all.cpp
config() { clean PKG_CONFIG_PATH="$pcdir" pkg-config "$@" mediautil; }
eval "cflags=($(config --cflags)) libs=($(config --libs))"
# shellcheck disable=SC2154  # eval sets cflags and libs
clean "$CXX" "${flags[@]}" -std=c++17 -Wall -Wextra -Werror "${cflags[@]}" all.cpp "$consumer/main.cpp" -o through_pc \
  "${libs[@]}" -Wl,-rpath,"$libdir" 2>log || die "a consumer through pkg-config: $(cat log)"
makes_jpeg ./through_pc

# --- one version everywhere; CMake asked for exactly this one ---
equal "$(clean "$prefix/bin/mediautil" --version)" "mediautil $VERSION" 'the program'
equal "$(config --modversion)" "$VERSION" pkg-config
for library in mediautil mediautil_platform; do
  equal "$(readelf -d "$libdir/lib$library.so.$VERSION" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')" \
    "lib$library.so.${VERSION%%.*}" soname
done
for page in "$prefix"/share/man/man[13]/mediautil.[13]; do
  grep -q "^\.TH .* \"mediautil $VERSION\"" "$page" || die "$page: another version"
  ! command -v groff >/dev/null || equal "$(groff -ww -man -Kutf8 -Tutf8 -z "$page" 2>&1)" '' "$page"
done

# --- manual and completion know every command ---
# shellcheck source=/dev/null
. "$prefix/share/bash-completion/completions/mediautil"
compopt() { COMPREPLY+=("<$2>"); } # outside of a completion it would only fail
completes() { # LINE EXPECTED...: the last word of LINE is the one at the cursor; "_" when that is still empty
  read -ra COMP_WORDS <<<"$1"
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  [ "${COMP_WORDS[COMP_CWORD]}" != _ ] || COMP_WORDS[COMP_CWORD]=''
  COMPREPLY=()
  _mediautil
  equal "${COMPREPLY[*]}" "$2" "completion of $1"
}
mapfile -t commands < <("$prefix/bin/mediautil" --help | sed -n '/^Subcommands:/I,/^$/s/^  \([^ ]*\) .*/\1/p')
[ "${#commands[@]}" -ge 10 ] || die "commands: ${commands[*]}"
completes 'mediautil _' "${commands[*]}"
for command in "${commands[@]}"; do
  grep -q "^\.SS ${command//-/.*-}$" "$prefix/share/man/man1/mediautil.1" || die "no manual of $command"
done
while IFS='|' read -r line expected; do
  completes "$line" "$expected"
done <<'END'
mediautil -q snaps|snapshot
mediautil push --ov|--overwrite
mediautil speak in.wav --codec g71|g711u g711a
mediautil speak --codec = g72|g726 g722
mediautil export --progress = _|json
mediautil export --progress _|<default>
mediautil snapshot rec|<default>
mediautil snapshot --max-side = _|<default>
mediautil -- -x|<default>
END
