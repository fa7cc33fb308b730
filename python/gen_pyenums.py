#!/usr/bin/env python3
"""Writes orvaccess/_enums.py: the public enumerations as Python source.

The names come from the headers and the values from the compiler, both by
way of the compiled module's table (gen_enums.py made it), so the classes
cannot drift from C. As source rather than classes made at import, mypy
and editors see every member.

    gen_pyenums.py -o _enums.py path/to/_orvaccess.so
"""
import argparse
import importlib
import keyword
import os
import sys

from genfile import write_if_changed

# Python's name and kind of each enumeration; masks are IntFlag so that bits
# combine and print by name.
NAMES = {
    "e_OrvAccessError": ("ErrorCode", "IntEnum"),
    "e_OrvAccessErrorOrigin": ("ErrorOrigin", "IntEnum"),
    "e_OrvAccessConnection": ("Connection", "IntFlag"),
    "e_OrvAccessReceived": ("Received", "IntFlag"),
    "e_OrvAccessRxState": ("RxState", "IntEnum"),
    "e_OrvAccessRegister": ("Register", "IntEnum"),
    "e_OrvAccessVerbosity": ("Verbosity", "IntFlag"),
    "e_OrvAccessLogChannel": ("LogChannel", "IntFlag"),
    "e_OrvAccessImuSelect": ("ImuSelect", "IntEnum"),
    "e_OrvAccessFileLoc": ("FileLoc", "IntEnum"),
    "e_OrvAccessImageFormat": ("ImageFormat", "IntEnum"),
    "e_OrvAccessFeedStream": ("FeedStream", "IntEnum"),
}
PREFIX = "e_OrvAccess"

# Members beyond the values, by Python name.
EXTRA = {
    "ErrorCode": '''
    @property
    def message(self) -> str:
        """The library's message of this code; for the codes it gives no
        text of its own, the code's meaning and name instead of "Unknown error"."""
        return _orvaccess.error_text(self)
''',
}


def load(path):
    # Imported by name from its own folder, as the package itself would.
    folder, name = os.path.split(os.path.abspath(path))
    if not name.startswith("_orvaccess."):
        sys.exit(f"gen_pyenums: {path} is not the _orvaccess extension module")
    sys.path.insert(0, folder)
    try:
        return importlib.import_module("_orvaccess")
    except ImportError as e:
        sys.exit(f"gen_pyenums: cannot load {path}: {e}")
    finally:
        sys.path.remove(folder)


def source(tables):
    lines = ['"""The public enumerations of orvwire.h and orvaccess.h, member names as in C.',
             "", "Made by gen_pyenums.py from the compiled module; do not edit.", '"""',
             "import enum", "", "from . import _orvaccess", ""]
    names = []
    for c_name in sorted(tables, key=lambda n: list(NAMES).index(n) if n in NAMES else len(NAMES)):
        # An enumeration added to the headers later still arrives, named after C.
        name, kind = NAMES.get(c_name, (c_name[len(PREFIX):], "IntEnum"))
        members = tables[c_name]
        if not members:
            sys.exit(f"gen_pyenums: {c_name} has no members")
        names.append(name)
        lines += ["", f"class {name}(enum.{kind}):", f'    """{c_name} of the C headers."""', ""]
        for member, value in members:
            if not member.isidentifier() or keyword.iskeyword(member) or member.startswith("_"):
                sys.exit(f"gen_pyenums: {c_name}.{member} cannot be a Python name")
            lines.append(f"    {member} = {int(value)}")
        if name in EXTRA:
            lines.append(EXTRA.pop(name).rstrip("\n"))
        lines.append("")
    if EXTRA:
        sys.exit("gen_pyenums: no enumeration for " + ", ".join(EXTRA))
    lines += ["", "__all__ = [" + ", ".join(f'"{n}"' for n in names) + "]", ""]
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("-o", "--output", required=True)
    parser.add_argument("module", help="the built _orvaccess extension")
    args = parser.parse_args()
    text = source(load(args.module)._enums)
    write_if_changed(args.output, text)


if __name__ == "__main__":
    main()
