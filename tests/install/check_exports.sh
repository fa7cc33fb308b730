#!/usr/bin/env bash
# The shared library exports its public interface and nothing internal,
# and carries the SONAME that applications record.
set -euo pipefail
lib=$1

soname=$(objdump -p "$lib" | awk '$1 == "SONAME" { print $2 }')
if [ "$soname" != "liborvaccess.so.1" ]; then
  echo "SONAME is '$soname', expected liborvaccess.so.1"
  exit 1
fi

# Every defined dynamic symbol must belong to the public interface: the C
# functions, the class and the two image helpers offered to applications.
# Weak symbols are template and inline instances the compiler may emit.
public='^(OrvAccess_[A-Za-z]+|OrvosiUtil_(snoozeMs|getTimeMs)|OrvAccess::.*|OrvosiUtil::GetImageResolution\(.*|OrvosiMath::DownsampleImage\(.*|typeinfo (name )?for OrvAccess|vtable for OrvAccess)$'
bad=$(nm -D --defined-only -C "$lib" | awk '$2 ~ /^[TDBR]$/ { $1 = ""; $2 = ""; sub(/^  /, ""); print }' \
  | grep -vE "$public" || true)
if [ -n "$bad" ]; then
  echo "internal symbols exported:"
  echo "$bad"
  exit 1
fi

for sym in OrvAccess_create OrvAccess_destroy OrvAccess_getVersion OrvosiUtil_snoozeMs OrvosiUtil_getTimeMs; do
  nm -D --defined-only "$lib" | grep -qw "$sym" || { echo "missing export: $sym"; exit 1; }
done
nm -D --defined-only -C "$lib" | grep -q 'OrvAccess::getVersion' || { echo "class not exported"; exit 1; }
echo "exports ok: $(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBR]$/' | wc -l) public symbols, SONAME $soname"
