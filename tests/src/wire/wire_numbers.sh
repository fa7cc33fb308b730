#!/bin/sh
# Fails, naming file and line, where a number of the wire is written out
# instead of taken from the wire module (src/wire, orvaccess/orvwire.h): in
# the library outside src/wire, the programs, the tests (the golden bytes
# excepted, which are written by hand on purpose) and the dissector's
# template. Code only: comments and string literals are read past, except in
# the dissector, whose texts were where the numbers hid.
#
#   wire_numbers.sh SOURCE_ROOT
set -eu
root=${1:?usage: wire_numbers.sh SOURCE_ROOT}
cd "$root"

findings=$(mktemp)
trap 'rm -f "$findings"' EXIT
# report WHAT: reads "file:line:text" lines and records them as findings.
report() {
    while IFS= read -r hit; do
        printf '%s: %s\n' "$(printf '%s' "$hit" | cut -d: -f1,2)" "$1" >>"$findings"
    done
}

sources() {
    find src programs tests -type f \( -name '*.cpp' -o -name '*.hpp' -o -name '*.h' -o -name '*.c' \) \
        ! -path 'src/wire/*' ! -path 'tests/src/wire/test_golden.cpp' | sort
}

# Strips // comments and "..." literals so that prose and expected output
# may still say "332 bytes".
code_of() {
    sed -e 's/"\([^"\\]\|\\.\)*"/""/g' -e 's://.*$::' "$1"
}

# under FILE PREFIXES...: whether FILE lies below one of the prefixes.
under() {
    f=$1
    shift
    for prefix in "$@"; do
        case "$f" in "$prefix"*) return 0 ;; esac
    done
    return 1
}

# scan PATTERN WHAT [PREFIX...]: every source (or those below the prefixes), code only.
scan() {
    pattern=$1 what=$2
    shift 2
    for f in $(sources); do
        if [ $# -gt 0 ] && ! under "$f" "$@"; then continue; fi
        code_of "$f" | grep -nE "$pattern" | sed "s|^|$f:|"
    done | report "$what"
}

scan 'frame\( *(0x[0-9A-Fa-f]+|[0-9]+) *,' "a start byte written as a number: use ORVWIRE_START_..."
scan '\b(332|331|153|65523)\b' "a packet size or offset written as a number: use orvwire.h or wire/Fields.hpp"
scan '\b(769|77[0-9]|78[0-4])\b' "an error code written as a number: use ORVACCESS_ERR_..."
scan 'skip\( *([2-9]|[1-9][0-9]+) *\)' "bytes skipped by count: decode with the field lists of wire/Fields.hpp" \
    src/ programs/
scan 'kMaxDatagram *- *[0-9]' "a size made from the datagram ceiling by hand: use wire/Packets.hpp"
scan '\b65535\b' "the datagram ceiling written as a number: use orvwire::kMaxDatagram" src/
scan '\[ *5 *\]' "the port count written as a number: use orvwire::kPortCount" src/access/
scan '\b(type|c\.type) *[!=]= *(3|20)\b' "a chip type written as a number: use wire/Chip.hpp" programs/

lua=programs/capture/dissector/orvaccess.lua
grep -nE '\b(769|77[0-9]|78[0-4])\b' "$lua" | sed "s|^|$lua:|" |
    report "an error code written in the dissector: take it from W.families"
grep -nE '\b0x(400|100)\b' "$lua" | sed "s|^|$lua:|" |
    report "an error origin written in the dissector: take it from W.origins"
grep -nE '\b(25|27|29)\b' "$lua" | sed "s|^|$lua:|" |
    report "a diagnostic length written in the dissector: take it from W.layout"
grep -nE '^local [A-Z_]+ = \{$' "$lua" | grep -vE 'local (W|SIZE|OPAQUE|EX|CX|PORT_PREFS|CODE_NAMES) ' |
    sed "s|^|$lua:|" | report "a field list written in the dissector: take it from W.layouts"

if [ -s "$findings" ]; then
    cat "$findings" >&2
    echo "$(wc -l <"$findings") wire numbers written outside the wire module (above)" >&2
    exit 1
fi
echo "no wire numbers outside the wire module"
