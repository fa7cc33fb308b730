#!/usr/bin/env bash
# Installs the layer into a temporary prefix and lets the system's loader
# find it there through the installed manifest (whose library path is
# relative to itself), under the plain test application. No tracker runs:
# the layer must load, name the missing configuration file and pass the
# runtime's poses through.
set -euo pipefail
build_dir=$1
runtime_json=$2
app=$3

work=$(mktemp -d "${TMPDIR:-/tmp}/orvaxr-XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

cmake --install "$build_dir" --component openxr --prefix "$work/prefix" >/dev/null
manifests=$work/prefix/share/openxr/1/api_layers/explicit.d
[ -f "$manifests/XrApiLayer_orv_head_pose.json" ] || fail "the manifest was not installed in $manifests"
[ -n "$(find "$work/prefix" -name libXrApiLayer_orv_head_pose.so)" ] || fail "the layer's library was not installed"
for f in openxr.ini XrApiLayer_orv_head_pose.implicit.json; do
  [ -f "$work/prefix/share/orvaccess/openxr/$f" ] || fail "share/orvaccess/openxr/$f was not installed"
done
exported=$(nm -D --defined-only "$(find "$work/prefix" -name libXrApiLayer_orv_head_pose.so)" | awk '{print $3}')
[ "$exported" = xrNegotiateLoaderApiLayerInterface ] || fail "the layer exports more than the negotiation function: $exported"

if ! XR_RUNTIME_JSON=$runtime_json XR_API_LAYER_PATH=$manifests XR_ENABLE_API_LAYERS=XR_APILAYER_ORV_head_pose \
  ORVACCESS_XR_INI=$work/none.ini ORVACCESS_XR_CONFIG= "$app" --frames 2 >"$work/out" 2>"$work/err"; then
  cat "$work/out" "$work/err"
  fail "the application did not run with the installed layer"
fi
grep -q "orvaccess OpenXR layer: the library's configuration file $work/none.ini does not exist" "$work/err" ||
  fail "the installed layer was not loaded: $(cat "$work/err")"
grep -q "2 frames, 2 with tracked views" "$work/out" || fail "the runtime's poses did not pass through: $(cat "$work/out")"
echo "the installed layer loads from its manifest and exports only xrNegotiateLoaderApiLayerInterface"
