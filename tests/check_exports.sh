#!/bin/sh
# Fails unless the shared library's dynamic symbol table defines exactly the nine C entry points.
# Usage: check_exports.sh LIBRARY [NM]   (NM: the binutils nm of the library's target, default nm)
set -eu
lib=$1
nm=${2:-nm}
expected="DeInitStylusLib
InitStylusLib
areAllInputPointsProcessed
controlDataWriting
getMetricsAngleDevError
getMetricsAreValid
getMetricsDistanceError
numPredictedPoints
sendInputTouchPoints"
actual=$("$nm" -D --defined-only "$lib" | awk '{print $NF}' | sort)
if [ "$actual" != "$expected" ]; then
  echo "exported symbols differ from the nine entry points:" >&2
  echo "$actual" >&2
  exit 1
fi
echo "exactly the nine entry points are exported"
