#!/usr/bin/env bash
# Checks a finished build from the outside, as a consumer sees it: the installed tree, the example
# host built against it, and the Debian package. Works in a temporary directory only.
# Usage: check_package.sh installed-tree|example-host|debian-package BUILD_DIR SOURCE_DIR EXPECTED_LIST LIBDIR
set -euo pipefail
what=$1 build=$2 source=$3 expected_list=$4 libdir=$5
sample=$source/tools/sample/sample_240hz.csv
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Regular files and symbolic links under a directory, one a line, a link with its target.
list_tree() {
  (cd "$1" && find . \( -type f -printf '%P\n' \) -o \( -type l -printf '%P -> %l\n' \)) | LC_ALL=C sort
}

same_list() { # expected actual what
  if ! diff -u <(LC_ALL=C sort "$1") "$2" >&2; then
    fail "$3 differ from the expected list (-expected +found)"
  fi
}

needed_libraries() {
  readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | LC_ALL=C sort | tr '\n' ' '
}

# The library carries its SONAME and no run path; stylus-replay finds it relative to itself only.
check_dynamic_sections() { # prefix
  local lib=$1/$libdir/libStylusPredictor.so runpath
  readelf -d "$lib" | grep -q 'Library soname: \[libStylusPredictor.so.1\]' ||
    fail "$lib lacks the SONAME libStylusPredictor.so.1"
  if readelf -d "$lib" "$1/bin/stylus-sample-gen" | grep -E 'R(UN)?PATH' >&2; then
    fail "the library or stylus-sample-gen has a run path"
  fi
  runpath=$(readelf -d "$1/bin/stylus-replay" | sed -n 's/.*R\(UN\)\{0,1\}PATH.*\[\(.*\)\]/\2/p')
  [ "$runpath" = "\$ORIGIN/../$libdir" ] || fail "stylus-replay's run path is '$runpath'"
}

# Host output: one line per callback, "BASE: T (x, y) ...", then "N predicted points, R batches
# refused". Every predicted time lies a whole 4 ms step after its base, increasing, at most 5 steps.
check_predictions() { # output-file
  awk '
    /^[0-9]+:/ {
      base = $1 + 0; last = base
      for (i = 2; i <= NF; i += 3) {
        t = $i + 0; points++
        if (t <= last || (t - base) % 4 != 0 || t - base > 20) bad++
        last = t
      }
      next
    }
    /predicted points/ { total = $1; refused = $4 }
    END {
      if (bad || points < 1000 || total != points || refused != 0) {
        printf "%d points printed, %d reported, %d out of step, %s refused\n", points, total, bad, refused
        exit 1
      }
    }' "$1" >&2 || fail "unexpected predictions in $1"
}

# examples/host built with find_package and with pkg-config against a prefix, each run on the sample:
# each links the library alone and prints the recording's predictions.
check_example_host() { # prefix
  local prefix=$1 out=$work/host pc_flags config host
  mkdir -p "$out"
  cmake -S "$source/examples/host" -B "$out/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" >/dev/null
  cmake --build "$out/cmake" >/dev/null
  export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
  pc_flags=$(pkg-config --cflags --libs stylus-predictor)
  config=$(pkg-config --variable=configfile stylus-predictor)
  [ -f "$config" ] || fail "pkg-config's configfile $config does not exist"
  # shellcheck disable=SC2086 # the flags are words
  cc -Wall -Wextra -Werror -o "$out/stylus-host-pc" "$source/examples/host/host.c" $pc_flags

  for host in "$out/cmake/stylus-host" "$out/stylus-host-pc"; do
    [ "$(needed_libraries "$host")" = "libStylusPredictor.so.1 libc.so.6 " ] ||
      fail "$host needs $(needed_libraries "$host")"
    local args=("$sample")
    [ "$host" = "$out/stylus-host-pc" ] && args+=("$config")
    (cd "$work" && LD_LIBRARY_PATH=$prefix/$libdir "$host" "${args[@]}" >"$out/predictions.txt" 2>"$out/log.txt") ||
      { cat "$out/log.txt" >&2; fail "$host failed"; }
    check_predictions "$out/predictions.txt"
    echo "$host: $(tail -n 1 "$out/predictions.txt")"
  done
}

# The installed stylus-replay runs outside the source tree on the installed shipped configuration.
check_installed_replay() { # prefix
  local prefix=$1 config
  (cd "$work" && "$prefix/bin/stylus-replay" --quiet --json "$work/replay.json" "$sample" >/dev/null 2>"$work/replay.log") ||
    { cat "$work/replay.log" >&2; fail "the installed stylus-replay failed"; }
  config=$(sed -n 's/.*"config": *"\([^"]*\)".*/\1/p' "$work/replay.json")
  [ "$config" = "$prefix/share/stylus-predictor/stylus_predictor.json" ] ||
    fail "the installed stylus-replay read $config"
}

case "$what" in
installed-tree)
  cmake --install "$build" --prefix "$work/prefix" >/dev/null
  list_tree "$work/prefix" >"$work/installed.txt"
  same_list "$expected_list" "$work/installed.txt" "the installed files"
  check_dynamic_sections "$work/prefix"
  check_installed_replay "$work/prefix"
  echo "installed exactly the $(wc -l <"$work/installed.txt") listed files"
  ;;
example-host)
  cmake --install "$build" --prefix "$work/prefix" >/dev/null
  check_example_host "$work/prefix"
  ;;
debian-package)
  cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log" >&2; fail "cpack failed"; }
  deb=$(echo "$work"/deb/*.deb)
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { sub(/^\.\//, "", $6); line = $6
                                        for (i = 7; i <= NF; i++) line = line " " $i; print line }' |
    LC_ALL=C sort >"$work/deb-files.txt"
  sed 's|^|usr/|' "$expected_list" >"$work/expected-deb-files.txt"
  same_list "$work/expected-deb-files.txt" "$work/deb-files.txt" "the package's files"

  # Depends names the package of every library the packaged binaries need, as dpkg-shlibdeps found
  # them, and the package of the Arm NN backend that is loaded at run time.
  depends=$(dpkg-deb -f "$deb" Depends)
  echo "Depends: $depends"
  dpkg-deb -x "$deb" "$work/root"
  multiarch=$(cc -print-multiarch)
  for binary in "$work/root/usr/$libdir/libStylusPredictor.so" "$work"/root/usr/bin/*; do
    for needed in $(needed_libraries "$binary"); do
      [ "$needed" = libStylusPredictor.so.1 ] && continue
      owner=$(dpkg-query -S "*/$multiarch/$needed" | head -n 1 | cut -d: -f1)
      [[ ", $depends," == *", $owner "* || ", $depends," == *", $owner,"* ]] ||
        fail "Depends lacks $owner, which holds $needed"
    done
  done
  backend=$(dpkg-query -S "*/Arm_CpuRef_backend.so" | head -n 1 | cut -d: -f1)
  [[ ", $depends," == *", $backend,"* ]] || fail "Depends lacks the backend package $backend"
  [[ "$depends" != *-dev* ]] || fail "Depends names a development package"
  check_example_host "$work/root/usr"
  ;;
*)
  fail "unknown check $what"
  ;;
esac
