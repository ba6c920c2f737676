#!/usr/bin/env bash
# Checks a finished build from the outside, as a consumer sees it: the installed tree, the example
# host built against it, and the Debian packages. Works in a temporary directory only.
# Usage: check_package.sh installed-tree|example-host|debian-package|lintian BUILD_DIR SOURCE_DIR \
#          EXPECTED_LIST LIBDIR "RUNTIME_PACKAGE DEV_PACKAGE TOOLS_PACKAGE"
# EXPECTED_LIST: one installed file a line, "COMPONENT PATH" (a link as "PATH -> TARGET").
set -euo pipefail
what=$1 build=$2 source=$3 expected_list=$4 libdir=$5
read -r runtime_package dev_package tools_package <<<"$6"
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

# No installed file may name this machine's checkout, its build tree or the folder they lie in
# (where a developer keeps data beside them): the files are meant for other machines.
check_no_build_paths() { # root
  local paths=("$source" "$build") parent found
  parent=$(dirname "$source")
  [ "$parent" != / ] && paths+=("$parent/")
  for path in "${paths[@]}"; do
    found=$(grep -rlF -- "$path" "$1" || true)
    [ -z "$found" ] || fail "installed files name $path: $found"
  done
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
check_predictions() { # output-file least-points
  awk -v least="$2" '
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
      if (bad || points < least || total != points || refused != 0) {
        printf "%d points printed, %d reported, %d out of step, %s refused\n", points, total, bad, refused
        exit 1
      }
    }' "$1" >&2 || fail "unexpected predictions in $1"
}

# examples/host built with find_package and with pkg-config against a prefix. Each links the library
# and no library behind it, finds the configuration installed beside the library with no argument
# (a generated stroke) and with a recording, and reports a bad configuration instead of aborting.
check_example_host() { # prefix
  local prefix=$1 out=$work/host pc_flags host needed status
  mkdir -p "$out"
  cmake -S "$source/examples/host" -B "$out/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="-Wall -Wextra -Werror" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
  cmake --build "$out/cmake" >/dev/null
  export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
  [ -f "$(pkg-config --variable=configfile stylus-predictor)" ] ||
    fail "pkg-config's configfile $(pkg-config --variable=configfile stylus-predictor) does not exist"
  pc_flags=$(pkg-config --cflags --libs stylus-predictor)
  # shellcheck disable=SC2086 # the flags are words
  cc -Wall -Wextra -Werror -c -o "$out/host.o" "$source/examples/host/host.c" $pc_flags
  # shellcheck disable=SC2086
  c++ -Wall -Wextra -Werror -o "$out/stylus-host-pc" "$out/host.o" "$source/examples/host/safe_init.cpp" $pc_flags

  echo '{"PredictionModel": {"num_predictions": "-1"}}' >"$out/bad.json"
  for host in "$out/cmake/stylus-host" "$out/stylus-host-pc"; do
    needed=$(needed_libraries "$host")
    [[ "$needed" == *"libStylusPredictor.so.1 "* && ! "$needed" =~ boost|armnn|XNNPACK ]] ||
      fail "$host needs $needed"
    (cd "$work" && LD_LIBRARY_PATH=$prefix/$libdir "$host" >"$out/generated.txt" 2>"$out/log.txt") ||
      { cat "$out/log.txt" >&2; fail "$host failed with no argument"; }
    check_predictions "$out/generated.txt" 200
    (cd "$work" && LD_LIBRARY_PATH=$prefix/$libdir "$host" "$sample" >"$out/predictions.txt" 2>"$out/log.txt") ||
      { cat "$out/log.txt" >&2; fail "$host failed on the sample"; }
    check_predictions "$out/predictions.txt" 1000
    status=0
    (cd "$work" && LD_LIBRARY_PATH=$prefix/$libdir "$host" "$sample" "$out/bad.json" >/dev/null 2>"$out/log.txt") ||
      status=$?
    [ "$status" -eq 1 ] && grep -q "bad.json: .*num_predictions" "$out/log.txt" ||
      { cat "$out/log.txt" >&2; fail "$host exited with $status on a bad configuration"; }
    echo "$host: $(tail -n 1 "$out/generated.txt"); on the sample: $(tail -n 1 "$out/predictions.txt")"
  done
}

# The installed stylus-replay runs outside the source tree on the installed shipped configuration,
# with the tuned peers installed beside it.
check_installed_replay() { # prefix
  local prefix=$1 config
  (cd "$work" && "$prefix/bin/stylus-replay" --quiet --peers --json "$work/replay.json" "$sample" >/dev/null 2>"$work/replay.log") ||
    { cat "$work/replay.log" >&2; fail "the installed stylus-replay failed"; }
  config=$(sed -n 's/.*"config": *"\([^"]*\)".*/\1/p' "$work/replay.json")
  [ "$config" = "$prefix/share/stylus-predictor/stylus_predictor.json" ] ||
    fail "the installed stylus-replay read $config"
  grep -q "\"peers_file\": \"$prefix/share/stylus-predictor/stylus_predictor.peers.json\"" "$work/replay.json" ||
    fail "the installed stylus-replay did not read the installed peers file"
}

# The three packages into $work/deb; deb_of PACKAGE names the file.
build_packages() {
  cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log" >&2; fail "cpack failed"; }
}
deb_of() {
  local deb
  deb=$(echo "$work/deb/$1"_*.deb)
  [ -f "$deb" ] || fail "cpack made no package $1: $(ls "$work/deb")"
  echo "$deb"
}

case "$what" in
installed-tree)
  cmake --install "$build" --prefix "$work/prefix" >/dev/null
  list_tree "$work/prefix" >"$work/installed.txt"
  cut -d' ' -f2- "$expected_list" >"$work/expected.txt"
  same_list "$work/expected.txt" "$work/installed.txt" "the installed files"
  check_dynamic_sections "$work/prefix"
  check_installed_replay "$work/prefix"
  echo "installed exactly the $(wc -l <"$work/installed.txt") listed files"
  ;;
example-host)
  cmake --install "$build" --prefix "$work/prefix" >/dev/null
  check_example_host "$work/prefix"
  ;;
debian-package)
  build_packages
  multiarch=$(cc -print-multiarch)
  for component in runtime dev tools; do
    package_var=${component}_package
    package=${!package_var}
    deb=$(deb_of "$package")
    # Its share of the listed files, under /usr, plus Debian's copyright and changelog.
    { awk -v c="$component" '$1 == c { sub(/^[^ ]+ /, ""); print "usr/" $0 }' "$expected_list"
      printf 'usr/share/doc/%s/%s\n' "$package" copyright "$package" changelog.Debian.gz; } >"$work/expected.txt"
    dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { sub(/^\.\//, "", $6); line = $6
                                          for (i = 7; i <= NF; i++) line = line " " $i; print line }' |
      LC_ALL=C sort >"$work/files.txt"
    same_list "$work/expected.txt" "$work/files.txt" "the files of $package"
    dpkg-deb -x "$deb" "$work/root"
    gzip -t "$work/root/usr/share/doc/$package/changelog.Debian.gz" || fail "$package's changelog is not gzip"
  done

  # ldconfig runs through a trigger: no maintainer script; shlibs names the runtime package.
  runtime_deb=$(deb_of "$runtime_package")
  dpkg-deb -e "$runtime_deb" "$work/control"
  [ ! -e "$work/control/postinst" ] && [ ! -e "$work/control/postrm" ] || fail "$runtime_package has maintainer scripts"
  grep -qx 'activate-noawait ldconfig' "$work/control/triggers" || fail "$runtime_package lacks the ldconfig trigger"
  grep -q "^libStylusPredictor 1 $runtime_package " "$work/control/shlibs" || fail "$runtime_package's shlibs: $(cat "$work/control/shlibs")"

  # Depends of the runtime package names the package of every library the library needs, as
  # dpkg-shlibdeps found them, and the package of the Arm NN backend that is loaded at run time.
  depends=$(dpkg-deb -f "$runtime_deb" Depends)
  echo "$runtime_package Depends: $depends"
  for needed in $(needed_libraries "$work/root/usr/$libdir/libStylusPredictor.so.1.0"); do
    owner=$(dpkg-query -S "*/$multiarch/$needed" | head -n 1 | cut -d: -f1)
    [[ ", $depends," == *", $owner "* || ", $depends," == *", $owner,"* ]] ||
      fail "Depends lacks $owner, which holds $needed"
  done
  backend=$(dpkg-query -S "*/Arm_CpuRef_backend.so" | head -n 1 | cut -d: -f1)
  [[ ", $depends," == *", $backend,"* ]] || fail "Depends lacks the backend package $backend"
  for package in "$dev_package" "$tools_package"; do
    package_depends=$(dpkg-deb -f "$(deb_of "$package")" Depends)
    [[ "$package_depends" == *"$runtime_package (= "* ]] || fail "$package Depends: $package_depends"
  done
  [[ "$depends" != *-dev* ]] || fail "Depends names a development package"
  for binary in "$work/root/usr/$libdir/libStylusPredictor.so.1.0" "$work"/root/usr/bin/*; do
    file "$binary" | grep -q ', stripped' || fail "$binary is not stripped"
  done

  check_no_build_paths "$work/root"
  check_installed_replay "$work/root/usr"
  check_example_host "$work/root/usr"
  ;;
lintian)
  if ! command -v lintian >/dev/null; then
    echo "lintian is not installed (Debian package lintian): not checked"
    exit 77
  fi
  build_packages
  # No error; every warning is one the README's Packages section names and explains.
  for package in "$runtime_package" "$dev_package" "$tools_package"; do
    status=0
    lintian --fail-on error "$(deb_of "$package")" >"$work/lintian.txt" 2>&1 || status=$?
    grep -v 'running with root privileges' "$work/lintian.txt" || true
    [ "$status" -eq 0 ] || fail "lintian found errors in $package"
    for tag in $(sed -n 's/^W: [^:]*: \([^ ]*\).*/\1/p' "$work/lintian.txt" | sort -u); do
      grep -q "\`$tag\`" "$source/README.md" || fail "lintian warns $tag on $package, and the README does not explain it"
    done
  done
  ;;
*)
  fail "unknown check $what"
  ;;
esac
