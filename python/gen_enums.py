#!/usr/bin/env python3
"""Lists the public enumerations of the C headers as a C++ table.

Only the names come from the headers' text; every value is the compiler's,
so the table cannot drift from the enumerations it is made from.

    gen_enums.py -o enums.inc orvwire.h orvaccess.h
"""
import argparse
import re
import sys

from genfile import write_if_changed

ENUM = re.compile(r"typedef\s+enum\s+(\w+)\s*\{(.*?)\}\s*(\w+)\s*;", re.S)
COMMENT = re.compile(r"/\*.*?\*/|//[^\n]*", re.S)
NAME = re.compile(r"^\s*([A-Za-z_]\w*)\s*(=.*)?$", re.S)
# Only the application's enumerations; the wire layout is the library's own.
PREFIX = "e_OrvAccess"


def enumerations(text):
    for match in ENUM.finditer(COMMENT.sub("", text)):
        tag, body, name = match.groups()
        if tag != name or not name.startswith(PREFIX):
            continue
        members = []
        for item in body.split(","):
            if not item.strip():
                continue
            m = NAME.match(item)
            if not m:
                raise SystemExit(f"gen_enums: cannot read member {item.strip()!r} of {name}")
            members.append(m.group(1))
        yield name, members


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("-o", "--output", required=True)
    parser.add_argument("headers", nargs="+")
    args = parser.parse_args()
    lines = ["// Made by gen_enums.py from the public headers; do not edit."]
    count = 0
    for path in args.headers:
        with open(path, encoding="utf-8") as f:
            for name, members in enumerations(f.read()):
                entries = ", ".join(f'{{"{m}", static_cast<long long>({m})}}' for m in members)
                lines.append(f'{{"{name}", {{{entries}}}}},')
                count += 1
    if count == 0:
        sys.exit("gen_enums: no e_OrvAccess enumeration found in " + " ".join(args.headers))
    text = "\n".join(lines) + "\n"
    write_if_changed(args.output, text)


if __name__ == "__main__":
    main()
