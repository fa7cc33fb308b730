#!/usr/bin/env python3
"""Writes the type stub of the compiled module orvaccess._orvaccess.

mypy's stubgen reads the signatures pybind11 gives every method; each
record's fields follow from the record's own dtype; the named tuples' field
types and what a binding hands out as a plain Python object (a record or
None, a path, three numbers) are declared in TYPES below. Whatever is still
untyped then stops the build, naming the method, so that a new binding
cannot slip into the stub as Any.

    PYTHONPATH=build/python gen_stubs.py -o _orvaccess.pyi
"""
import argparse
import ast
import contextlib
import importlib
import io
import os
import re
import sys
import tempfile

from genfile import write_if_changed

MODULE = "orvaccess._orvaccess"

PATH = "Union[str, os.PathLike[str]]"
PACKET = "Union[bytes, bytearray, memoryview, NDArray[numpy.uint8]]"
ROWS = "NDArray[numpy.void]"


def _optional(record):
    return f"Optional[{record}]"


# What pybind11 cannot name: "Class.method" is a return type, "Class.method.arg"
# an argument's, "Class.name" a property's or a named tuple's field.
TYPES = {
    "_enums": "dict[str, list[tuple[str, int]]]",
    "Access.__init__.ini_path": f"Optional[{PATH}]",
    "Access.get_aux_data": _optional("AuxData"),
    "Access.get_aux_data_latest": _optional("AuxData"),
    "Access.get_diag_data": _optional("DiagData"),
    "Access.get_diag_data_latest": _optional("DiagData"),
    "Access.get_error_code": _optional("QueuedErrorCode"),
    "Access.get_feature_data": _optional("FeatData"),
    "Access.get_file.local_path": PATH,
    "Access.get_gps_data": _optional("GpsData"),
    "Access.get_hub_data": _optional("HubData"),
    "Access.get_image": _optional("Image"),
    "Access.get_image_info": "ImageInfo",
    "Access.get_imu_crs": _optional("ImuCrs"),
    "Access.get_imu_data": _optional("ImuData"),
    "Access.get_imu_data_latest": _optional("ImuData"),
    "Access.get_platform_pose_data": _optional("PlatPoseData"),
    "Access.get_pose_recovery_stats": _optional("PoseRecStats"),
    "Access.get_sender_drops": "dict[str, int]",
    "Access.get_target_count": _optional("TargetCount"),
    "Access.get_target_data": _optional("TgtData"),
    "Access.get_target_res_data": _optional("TgtResData"),
    "Access.get_tracking_data": _optional("TrkDataExt"),
    "Access.get_tracking_data_at_time": _optional("TrkDataExt"),
    "Access.get_tracking_data_latest": _optional("TrkDataExt"),
    "Access.image_percent": "int",
    "Access.process_meta_pkt.packet": PACKET,
    "Access.process_tracking_pkt.packet": PACKET,
    "Access.put_file.local_path": PATH,
    "Access.set_boresight_ref.roll_pitch_yaw": "ArrayLike",
    "Access.set_ini_path.path": PATH,
    "Access.set_logging.log_path": PATH,
    "Access.set_tip_offset.xyz": "ArrayLike",
    "PoseFeed.__init__.ini_path": f"Optional[{PATH}]",
    "PoseFeed.error_codes": "list[tuple[int, int]]",
    "PoseFeed.latest": "FeedPose",
    "PoseFeedReader.at_time": "FeedPose",
    "PoseIterator.__next__": "TrkDataExt",
    "FeedPose.pose": _optional("TrkDataExt"),
    "FeedPose.sequence": "int",
    "FeedPose.received_us": "int",
    "FeedPose.age_us": "int",
    "FeedPose.prediction_s": "float",
    "FeedPose.stale": "bool",
    "PoseFeed.recovery": "FeedRecovery",
    "FeedRecovery.state": "int",
    "FeedRecovery.outages": "int",
    "FeedRecovery.recoveries": "int",
    "FeedRecovery.requests": "int",
    "FeedRecovery.requests_failed": "int",
    "FeedRecovery.reopens": "int",
    "FeedRecovery.reopens_failed": "int",
    "FeedRecovery.longest_outage_us": "int",
    "FeedRecovery.last_outage_us": "int",
    "FeedRecovery.text": "str",
    "Image.pixels": "NDArray[Union[numpy.uint8, numpy.uint16]]",
    "Image.format": "int",
    "Image.sequenceId": "int",
    "Image.percent": "int",
    "ImageInfo.size": "int",
    "ImageInfo.width": "int",
    "ImageInfo.height": "int",
    "ImageInfo.bytesPerPixel": "int",
    "TargetCount.tag": "int",
    "TargetCount.count": "int",
}

# Names that stubgen leaves out, at module level.
MODULE_ATTRIBUTES = {"__version__": "str"}

# Attributes set at run time that no signature shows.
ATTRIBUTES = {
    "Error": {"text": "str", "call": "str", "records": f"Optional[{ROWS}]"},
}

# Every drain hands out rows of a record's structured dtype.
RULES = [(re.compile(r"^\w+\.drain_\w+$"), "numpy.ndarray", ROWS)]

# Type names that say nothing, or that no stub can import.
VAGUE = re.compile(r"\b(object|Any|handle|buffer|dict|list|tuple|numpy\.ndarray|function)\b(?!\[)")

HEADER = '''"""Types of orvaccess's compiled module.

Made by gen_stubs.py from the built module; do not edit.
"""
import os
from typing import Any, ClassVar, NamedTuple, Optional, Union

import numpy
from numpy.typing import ArrayLike, NDArray

# pybind11's metaclass of the bound classes (pybind11_builtins.pybind11_type),
# which no stub can import.
class _Pybind11Type(type): ...
'''

DEF = re.compile(r"^(\s*)def (\w+)\((.*)\) -> (.*): \.\.\.$")

# Marks the lines of docstrings, which the check for untyped names skips.
DOC = "\0"


def docstring(obj, name, indent):
    """The lines of obj's docstring as a stub carries it (editors show it),
    without the signature pybind11 puts first."""
    lines = (getattr(obj, "__doc__", None) or "").strip("\n").splitlines()
    if lines and re.match(rf"^({re.escape(name)})?\(.*\)( -> .*)?$", lines[0]):
        lines = lines[1:]
    text = "\n".join(lines).strip().replace("\\", "\\\\").replace('"""', '\\"\\"\\"')
    if not text:
        return []
    if text.endswith('"'):
        text += " "
    lines = f'"""{text}"""'.splitlines()
    return [DOC + (indent + line if line.strip() else "") for line in lines]


def documented(line, doc):
    """A one-line stub definition with its docstring as the body."""
    if not doc:
        return [line]
    return [line[: -len(" ...")], *doc]


def split_args(text):
    """Splits an argument list at its top-level commas."""
    args, depth, start = [], 0, 0
    for i, c in enumerate(text):
        if c in "([":
            depth += 1
        elif c in ")]":
            depth -= 1
        elif c == "," and depth == 0:
            args.append(text[start:i].strip())
            start = i + 1
    if text[start:].strip():
        args.append(text[start:].strip())
    return args


class Stub:
    """stubgen's text made precise; what it could not type ends in problems."""

    def __init__(self):
        self.used = set()
        self.problems = []

    def declared(self, key, found):
        if key in TYPES:
            self.used.add(key)
            return TYPES[key]
        for pattern, vague, precise in RULES:
            if pattern.match(key) and found == vague:
                return precise
        # stubgen takes the first words of a docstring for a type it cannot see.
        try:
            ast.parse(found, mode="eval")
        except SyntaxError:
            self.problems.append(f"{key}: no type ({found!r})")
        return found

    def function(self, owner, line):
        m = DEF.match(line)
        if not m:
            return line
        indent, name, args, ret = m.groups()
        key = f"{owner}.{name}" if owner else name
        typed = []
        for arg in split_args(args):
            if arg in ("self", "cls"):
                typed.append(arg)
                continue
            if arg in ("*args", "**kwargs"):
                # __exit__(*args) takes the exception triple, whatever it is.
                typed.append(f"{arg}: object")
                continue
            am = re.match(r"^(\*{0,2}\w+): (.+?)( = \.\.\.)?$", arg)
            if not am:
                self.problems.append(f"{key}: cannot read argument {arg!r}")
                typed.append(arg)
                continue
            arg_name, arg_type, default = am.groups()
            arg_type = self.declared(f"{key}.{arg_name.lstrip('*')}", arg_type)
            typed.append(f"{arg_name}: {arg_type}{default or ''}")
        # A context manager or an iterator hands out itself.
        if name in ("__enter__", "__iter__") and ret == "object":
            ret = owner
        ret = self.declared(key, ret)
        return f"{indent}def {name}({', '.join(typed)}) -> {ret}: ..."

    def ordinary_class(self, cls, name, body):
        out = []
        lines = iter(body)
        for line in lines:
            stripped = line.strip()
            # A class without a constructor of its own is made by others.
            if stripped == "def __init__(self, *args, **kwargs) -> None: ...":
                continue
            if stripped == "@property":
                prop = next(lines)
                pm = DEF.match(prop)
                if pm:
                    out.append(line)
                    # pybind11 leaves a property's type to its docstring.
                    key = f"{name}.{pm.group(2)}"
                    out += documented(
                        f"{pm.group(1)}def {pm.group(2)}(self) -> {self.declared(key, pm.group(4))}: ...",
                        docstring(cls.__dict__.get(pm.group(2)), pm.group(2), pm.group(1) + "    "))
                    continue
                out += [line, prop]
                continue
            am = re.match(r"^(\s+)(\w+): (.+)$", line)
            if am and not stripped.startswith("def "):
                key = f"{name}.{am.group(2)}"
                out.append(f"{am.group(1)}{am.group(2)}: {self.declared(key, am.group(3))}")
                continue
            fm = DEF.match(line)
            doc = docstring(getattr(cls, fm.group(2), None), fm.group(2), fm.group(1) + "    ") if fm else []
            out += documented(self.function(name, line), doc)
        for attribute, kind in ATTRIBUTES.get(name, {}).items():
            out.append(f"    {attribute}: {kind}")
        out = [line for line in out if line.strip() != "..."]
        return out or ["    ..."]

    def named_tuple(self, cls, name):
        out = []
        for field in cls._fields:
            line = f"    {field}: {self.declared(f'{name}.{field}', 'Any')}"
            # A field named like a method of tuple (count, index) hides it.
            out.append(line + ("  # type: ignore[assignment]" if hasattr(tuple, field) else ""))
        return out

    def record(self, cls, name):
        """A record's fields as its dtype lays them out: numbers as int or
        float, arrays as NumPy views of their element type."""
        import numpy

        attributes, keywords = [], []
        for field in cls.fields:
            kind = cls.dtype.fields[field][0]
            if kind.subdtype is not None:
                element = numpy.dtype(kind.subdtype[0]).type.__name__
                attributes.append(f"    {field}: NDArray[numpy.{element}]")
                keywords.append(f"{field}: ArrayLike = ...")
            else:
                number = "float" if kind.kind == "f" else "int"
                attributes.append(f"    {field}: {number}")
                keywords.append(f"{field}: {number} = ...")
        return [
            "    dtype: ClassVar[numpy.dtype[numpy.void]]",
            "    fields: ClassVar[tuple[str, ...]]",
            "    __hash__: ClassVar[None]  # type: ignore[assignment]",
            *attributes,
            f"    def __init__(self, *, {', '.join(keywords)}) -> None: ...",
            "    @staticmethod",
            f"    def from_row(row: Union[numpy.void, {ROWS}]) -> {name}: ...",
            f"    def __copy__(self) -> {name}: ...",
            f"    def __deepcopy__(self, memo: object) -> {name}: ...",
            "    def __eq__(self, other: object) -> bool: ...",
        ]

    def build(self, module, text):
        out = [HEADER]
        for attribute, kind in MODULE_ATTRIBUTES.items():
            if not hasattr(module, attribute):
                self.problems.append(f"MODULE_ATTRIBUTES names {attribute}, which the module no longer has")
            out.append(f"{attribute}: {kind}")
        classes = []  # (name, bases, body)
        for line in text.splitlines():
            if not line.strip() or line.startswith(("import ", "from ")):
                continue
            cm = re.match(r"^class (\w+)(\((.*)\))?:(.*)$", line)
            if cm:
                classes.append((cm.group(1), cm.group(3) or "", []))
                if cm.group(4).strip() == "...":
                    classes[-1][2].append("    ...")
            elif line.startswith(" ") and classes:
                classes[-1][2].append(line)
            else:
                classes.append((None, None, [line]))
        for name, bases, body in classes:
            if name is None:
                am = re.match(r"^(\w+): (.+)$", body[0])
                if am:
                    out.append(f"{am.group(1)}: {self.declared(am.group(1), am.group(2))}")
                else:
                    fm = DEF.match(body[0])
                    doc = docstring(getattr(module, fm.group(2), None), fm.group(2), "    ") if fm else []
                    out += documented(self.function(None, body[0]), doc)
                continue
            cls = getattr(module, name)
            if hasattr(cls, "dtype") and hasattr(cls, "fields"):
                lines = self.record(cls, name)
                bases = ""
            elif issubclass(cls, tuple) and hasattr(cls, "_fields"):
                lines = self.named_tuple(cls, name)
                bases = "NamedTuple"
            else:
                lines = self.ordinary_class(cls, name, body)
            if type(cls).__name__ == "pybind11_type":
                bases = ", ".join(filter(None, (bases, "metaclass=_Pybind11Type")))
            out += ["", f"class {name}({bases}):" if bases else f"class {name}:", *docstring(cls, name, "    "),
                    *lines]
        stub = "\n".join(out).rstrip("\n") + "\n"
        for line in stub.splitlines()[len(HEADER.splitlines()):]:
            # These take any object by their nature.
            if line.startswith(DOC) or line.strip().startswith(("def __eq__", "def __deepcopy__", "def __exit__")):
                continue
            vague = VAGUE.search(line)
            if vague:
                self.problems.append(f"untyped ({vague.group(1)}): {line.strip()}")
        for key in sorted(set(TYPES) - self.used):
            self.problems.append(f"TYPES names {key}, which the module no longer has")
        return stub.replace(DOC, "")


def stubgen(module_name):
    """stubgen's stub of the module, as text."""
    from mypy import stubgen as mypy_stubgen

    with tempfile.TemporaryDirectory() as folder:
        # stubgen reports what it wrote; the build has no use for that.
        with contextlib.redirect_stdout(io.StringIO()):
            mypy_stubgen.main(["--quiet", "-m", module_name, "-o", folder])
        path = os.path.join(folder, *module_name.split(".")) + ".pyi"
        with open(path, encoding="utf-8") as f:
            return f.read()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("-o", "--output", required=True)
    args = parser.parse_args()
    # This script's folder holds the package's sources, without the module.
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path[:] = [p for p in sys.path if os.path.abspath(p or ".") != here]
    try:
        module = importlib.import_module(MODULE)
    except ImportError as e:
        sys.exit(f"gen_stubs: cannot import {MODULE} ({e}); put the built package on PYTHONPATH")
    try:
        text = stubgen(MODULE)
    except ImportError:
        sys.exit("gen_stubs: mypy's stubgen is missing: install python3-mypy (scripts/install-deps.sh)")
    stub = Stub()
    result = stub.build(module, text)
    if stub.problems:
        sys.exit(f"gen_stubs: the stub of {MODULE} would be incomplete; declare or remove these in TYPES of "
                 f"{os.path.abspath(__file__)}:\n  " + "\n  ".join(stub.problems))
    write_if_changed(args.output, result)


if __name__ == "__main__":
    main()
