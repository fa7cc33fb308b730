"""The package's types as static tools see them: mypy over the package and
the examples, mypy refusing wrong uses, and the stub against the module it
describes."""
import importlib
import os
import pathlib
import re
import subprocess
import sys
import types

import orvaccess
import pytest
from conftest import EXAMPLES, ROOT

pytest.importorskip("mypy", reason="mypy is not installed for this interpreter: install python3-mypy "
                    "(scripts/install-deps.sh)")

PACKAGE = pathlib.Path(orvaccess.__file__).parent
CONFIG = ROOT / "python" / "pyproject.toml"
ALLOWLIST = pathlib.Path(__file__).with_name("stubtest_allowlist.txt")


@pytest.fixture(scope="module")
def mypy(tmp_path_factory):
    """mypy with the package's settings, on the built package; one cache for the module's runs."""
    cache = tmp_path_factory.mktemp("mypy_cache")

    def run(*paths):
        return subprocess.run(
            [sys.executable, "-m", "mypy", "--config-file", str(CONFIG), "--cache-dir", str(cache),
             "--show-error-codes", "--no-error-summary", *map(str, paths)],
            capture_output=True, text=True, timeout=300, cwd=PACKAGE.parent,
            env=dict(os.environ, MYPYPATH=str(PACKAGE.parent)))
    return run


def test_package_and_examples_pass_mypy(mypy):
    assert (PACKAGE / "_orvaccess.pyi").is_file() and (PACKAGE / "py.typed").is_file(), \
        f"no type stub in {PACKAGE}: configure again (cmake -S . -B build) now that mypy is installed, and build"
    out = mypy(PACKAGE, *sorted(EXAMPLES.resolve().glob("*.py")))
    assert out.returncode == 0, out.stdout + out.stderr


# Each line marked "# error: code" must get that error and no other line any.
USES = '''
import pathlib

import orvaccess

with orvaccess.Access(pathlib.Path("orvaccess.ini")) as a:
    a.set_prediction("20 ms")  # error: arg-type
    pose = a.get_tracking_data_latest()
    print(pose.euler)  # error: union-attr
    if pose is not None:
        print(pose.eulr)  # error: attr-defined
        pose.poseTime = 1.5  # error: assignment
        pose.poseTime = a.get_time_us() + 20_000
        print(pose.cbn @ pose.position, pose.euler[2] * 2)
    orvaccess.PlatPoseData(tg=7)  # error: call-arg
    a.set_platform_pose_data(orvaccess.PlatPoseData(tag=7, pose=(0, 0, 0.1)))
    a.set_platform_pose_data(orvaccess.GpsData())  # error: arg-type
    a.set_tip_offset([0.0, 0.0, 0.12])
    a.set_verbosity(orvaccess.Verbosity.ORVACCESS_VERB_LOG | orvaccess.Verbosity.ORVACCESS_VERB_ERR)
    print(orvaccess.ErrorCode.ORVACCESS_ERR_BAD_TRACKING_PKT.message.upper())
    print(orvaccess.ErrorCode.ORVACCESS_ERR_BAD_TRACKING)  # error: attr-defined
    rows = a.drain_imu_data(orvaccess.ImuSelect.ORVACCESS_IMU_CAMERA, max_records="all")  # error: arg-type
    print(rows["gyroRate"].mean(axis=0), orvaccess.ImuData.from_row(rows[0]).dt + 1.0)
    image = a.get_image()
    if image is not None:
        print(image.pixels.shap)  # error: attr-defined
        print(image.pixels.shape, a.get_image_info(image.format).width)
    try:
        a.get_file("calib.dat", pathlib.Path("calib.dat"))
    except orvaccess.Error as e:
        print(e.call, e.text.upper())

with orvaccess.PoseFeed() as feed:
    frame = feed.reader().at_time(orvaccess.get_time_ms() * 1000)  # error: arg-type
    print(feed.latest().pose.cbn)  # error: union-attr
    for code, value in feed.error_codes():
        print(orvaccess.error_text(code), value + 1)
'''


def test_mypy_refuses_wrong_uses_and_takes_right_ones(mypy, tmp_path):
    uses = tmp_path / "uses.py"
    uses.write_text(USES)
    expected = {(n, m.group(1)) for n, line in enumerate(USES.splitlines(), 1)
                for m in [re.search(r"# error: ([\w-]+)$", line)] if m}
    out = mypy(uses)
    found = {(int(m.group(1)), m.group(2))
             for m in re.finditer(r"^.*uses\.py:(\d+): error: .*\[([\w-]+)\]$", out.stdout, re.M)}
    assert found == expected, out.stdout + out.stderr


def test_stub_matches_the_module():
    out = subprocess.run(
        [sys.executable, "-c", "import sys; from mypy.stubtest import main; sys.exit(main())",
         "--concise", "--allowlist", str(ALLOWLIST), "orvaccess"],
        capture_output=True, text=True, timeout=300, cwd=PACKAGE.parent,
        env=dict(os.environ, MYPYPATH=str(PACKAGE.parent)))
    assert out.returncode == 0, out.stdout + out.stderr
    # And the package exports everything the module and the headers offer.
    offered = {n for n in dir(orvaccess._orvaccess) if not n.startswith("_")} | set(orvaccess._enums.__all__)
    assert offered <= set(orvaccess.__all__), offered - set(orvaccess.__all__)


def test_stub_generator_names_what_it_cannot_type(monkeypatch):
    monkeypatch.syspath_prepend(str(ROOT / "python"))
    gen_stubs = importlib.import_module("gen_stubs")

    class Widget:
        pass

    stub = gen_stubs.Stub()
    stub.build(types.SimpleNamespace(Widget=Widget, __version__="1"),
               "class Widget:\n"
               "    def get(self) -> object: ...\n"
               "    def put(self, value: handle, count: int = ...) -> None: ...\n"
               "    def size(self) -> int: ...\n"
               "    @property\n"
               "    def level(self) -> How full it is: ...\n")
    untyped = [p for p in stub.problems if p.startswith("untyped")]
    assert untyped == ["untyped (object): def get(self) -> object: ...",
                       "untyped (handle): def put(self, value: handle, count: int = ...) -> None: ..."]
    # stubgen's guess from a docstring's first words is no type either.
    assert "Widget.level: no type ('How full it is')" in stub.problems
    # A declaration the module no longer has is named as well.
    assert "TYPES names Access.get_image, which the module no longer has" in stub.problems
