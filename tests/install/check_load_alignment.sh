#!/bin/bash
# Every LOAD segment of each shared object is aligned to at least 16 KiB, so that it loads on
# systems with pages that large (Android).
#   check_load_alignment.sh LIBRARY...
set -euo pipefail
for library in "$@"; do
    aligns=$(readelf -lW "$library" | awk '$1 == "LOAD" { print $NF }')
    [ -n "$aligns" ] || { echo "FAIL: no LOAD segment in $library" >&2; exit 1; }
    for align in $aligns; do
        ((align >= 0x4000)) || { echo "FAIL: $library has a LOAD segment aligned to $align" >&2; exit 1; }
    done
    echo "ok: $(basename "$library"): LOAD aligned to $(echo $aligns | tr ' ' ',')"
done
