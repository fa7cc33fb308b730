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
# functions, the classes and the two image helpers offered to applications.
# Weak symbols are template and inline instances the compiler may emit.
public='^(OrvAccess_[A-Za-z]+|OrvPoseFeed(Reader)?_[A-Za-z]+|OrvosiUtil_(snoozeMs|getTimeMs)|OrvAccess::.*|OrvPoseFeed::.*|OrvosiUtil::GetImageResolution\(.*|OrvosiMath::DownsampleImage\(.*|typeinfo (name )?for OrvAccess|vtable for OrvAccess)$'
# Read the tables once: grep -q on a live pipe would end nm early, and
# pipefail would take that for a failure.
plain=$(nm -D --defined-only "$lib")
demangled=$(nm -D --defined-only -C "$lib")
bad=$(awk '$2 ~ /^[TDBR]$/ { $1 = ""; $2 = ""; sub(/^  /, ""); print }' <<<"$demangled" | grep -vE "$public" || true)
if [ -n "$bad" ]; then
  echo "internal symbols exported:"
  echo "$bad"
  exit 1
fi

# The C interface: the 43 functions every application has, waitUdp and
# getSenderDrops (extensions), and
# the two clock helpers.
c_functions="create destroy open close setIniPath getVersion getBuildDate getTimeUs getStatus
  getLastError getErrorCode getErrorMessage getTrackingDataLatest getTrackingDataAtTime
  getTrackingDataLatestExt getTrackingDataExt getTrackingDataAtTimeExt getPoseRecoveryStats
  setPrediction setBoresightRef setTipOffset processMetaPkt processTrackingPkt getImuData
  getImuDataLatest getAuxData getAuxDataLatest getDiagData getDiagDataLatest getGpsData
  getTargetCount setPlatformPoseData setGpsData sendInputData setRegister getRegister
  setStreaming getStreaming transactImu getFile getImageBufSize getImage getImageInfo waitUdp getSenderDrops"
count=0
for f in $c_functions; do
  grep -qw "OrvAccess_$f" <<<"$plain" || { echo "missing export: OrvAccess_$f"; exit 1; }
  count=$((count + 1))
done
[ "$count" -eq 45 ] || { echo "expected 45 C functions, checked $count"; exit 1; }
for sym in OrvosiUtil_snoozeMs OrvosiUtil_getTimeMs; do
  grep -qw "$sym" <<<"$plain" || { echo "missing export: $sym"; exit 1; }
done
# The pose feed's C functions.
for f in OrvPoseFeed_create OrvPoseFeed_destroy OrvPoseFeed_start OrvPoseFeed_stop OrvPoseFeed_isRunning \
  OrvPoseFeed_getLastError OrvPoseFeed_getServiceError OrvPoseFeed_getRecovery OrvPoseFeed_setStaleTimeUs \
  OrvPoseFeed_getLatest \
  OrvPoseFeedReader_create OrvPoseFeedReader_destroy OrvPoseFeedReader_getAtTime \
  OrvPoseFeedReader_resetDisplayClock OrvPoseFeed_lockAccess OrvPoseFeed_unlockAccess; do
  grep -qw "$f" <<<"$plain" || { echo "missing export: $f"; exit 1; }
done
grep -q 'OrvAccess::getVersion' <<<"$demangled" || { echo "class not exported"; exit 1; }
grep -q 'OrvPoseFeed::Reader::getAtTime' <<<"$demangled" || { echo "pose feed not exported"; exit 1; }
echo "exports ok: $(awk '$2 ~ /^[TDBR]$/' <<<"$plain" | wc -l) public symbols, SONAME $soname"
