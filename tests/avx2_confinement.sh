#!/usr/bin/env bash
# Usage: tests/avx2_confinement.sh OBJDUMP LIBRARY   (fails when AVX code leaves the AVX2 functions)
# AVX2 loops are compiled by target attribute and carry Avx2 in their names. Any other function
# with AVX instructions could be a shared inline copy that the linker keeps for the plain path.
set -euo pipefail
leaks=$("$1" -d --no-show-raw-insn -C "$2" | awk -F '\t' '
    /^[0-9a-f]+ <.*>:$/ { name = $0; seen = 0; next }
    NF >= 2 && ($2 ~ /^v/ || $2 ~ /%ymm/) && name !~ /Avx2/ && !seen { print name; seen = 1 }')
[ -z "$leaks" ] || { printf 'AVX instructions outside the AVX2 functions:\n%s\n' "$leaks"; exit 1; }
