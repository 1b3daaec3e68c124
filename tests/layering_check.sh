#!/usr/bin/env bash
# Checks the layers of the library: a module includes only its own headers and
# those of the modules below it. Prints every offending include as
# file:line and exits 1; exits 0 when the layers hold.
#
#   tests/layering_check.sh [SOURCE_DIR]
set -euo pipefail
root=${1:-$(dirname "$0")/..}
cd "$root"

# The modules from the lowest to the highest. platform is the operating-system
# seam, common the base layer every module builds on, init the exported
# lifecycle that starts everything else.
layers=(platform common semaphore ssl rd_lib web_service postauth rd_core mgmt_core http init)
# The one pair that includes each other: the capture signs with the
# keystore's key and, finding the UIDAI certificate out of date, asks the
# Management client for a software update; the Management client keeps
# rd_core's UIDAI certificate store current.
allowed_upward=" rd_core>mgmt_core "

declare -A rank
for i in "${!layers[@]}"; do rank[${layers[$i]}]=$i; done

failed=0

# Every folder of src/ must have its place in the order.
for dir in src/*/; do
  m=$(basename "$dir")
  if [ -z "${rank[$m]+x}" ]; then
    echo "src/$m: module missing from the layer order in $(basename "$0")"
    failed=1
  fi
done

# The module that an include names: "module/file.h", or a bare name of a
# header in rd_lib/src (rd_lib's headers are included without a folder).
target_of() {
  local inc=$1
  if [[ $inc == */* ]]; then
    local m=${inc%%/*}
    [ -n "${rank[$m]+x}" ] && [ "$m" != rd_lib ] && echo "$m"
  elif [ -f "rd_lib/src/$inc" ]; then
    echo rd_lib
  fi
  return 0
}

count=0
while IFS= read -r file; do
  case $file in
    rd_lib/*) from=rd_lib ;;
    *) from=$(echo "$file" | cut -d/ -f2) ;;
  esac
  [ -n "${rank[$from]+x}" ] || continue
  while IFS=: read -r line inc; do
    to=$(target_of "$inc")
    [ -n "$to" ] || continue
    count=$((count + 1))
    [ "$to" = "$from" ] && continue
    if [ "${rank[$to]}" -gt "${rank[$from]}" ] && [[ $allowed_upward != *" $from>$to "* ]]; then
      echo "$file:$line: $from includes \"$inc\" of the higher module $to"
      failed=1
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[^"]+"' "$file" |
           sed -E 's/^([0-9]+):[^"]*"([^"]+)".*/\1:\2/')
done < <(find src rd_lib -type f \( -name '*.h' -o -name '*.cc' -o -name '*.c' \) | sort)

if [ "$count" -eq 0 ]; then
  echo "no module includes found under $root: wrong folder?"
  exit 1
fi
if [ "$failed" -ne 0 ]; then
  echo "layering_check: lower modules include higher ones (order: ${layers[*]})"
  exit 1
fi
echo "layering_check: $count module includes respect the order ${layers[*]}"
