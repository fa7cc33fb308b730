"""Records from the real simulator: their types and shapes, and the same
datagrams read one by one, in bulk and through the C++ interface."""
import select
import socket
import subprocess
import time

import numpy as np
import pytest

import orvaccess
from conftest import REFERENCE, free_port, write_ini

# Each queue: its record class, its getter and drain (by the suffix they
# share), and the name the C++ reference prints.
QUEUES = [
    (orvaccess.TrkDataExt, "tracking_data", "tracking"),
    (orvaccess.ImuData, "imu_data", "imu"),
    (orvaccess.AuxData, "aux_data", "aux"),
    (orvaccess.DiagData, "diag_data", "diag"),
    (orvaccess.TgtData, "target_data", "target"),
    (orvaccess.PlatPoseData, "platform_pose_data", "platpose"),
    (orvaccess.GpsData, "gps_data", "gps"),
    (orvaccess.TgtResData, "target_res_data", "targetres"),
    (orvaccess.PoseRecStats, "pose_recovery_stats", "poserec"),
    (orvaccess.FeatData, "feature_data", "feature"),
    (orvaccess.HubData, "hub_data", "hub"),
]
RECORDS = [q[0] for q in QUEUES] + [orvaccess.Status, orvaccess.QueuedErrorCode, orvaccess.ImuCrs]

# Every stream at a rate that fills every queue within a fraction of a second.
BUSY = ("--pra-hz", "100", "--gps-hz", "100", "--diag-hz", "100", "--target-hz", "50", "--nft-hz", "100",
        "--hub-hz", "100", "--error-period", "0.05")


def drain_all(a):
    return {suffix: getattr(a, "drain_" + suffix)() for _, suffix, _ in QUEUES}


def test_record_classes_cover_every_byte_of_their_c_struct():
    # A field left out of a list would leave a hole no padding explains.
    for cls in RECORDS:
        dtype = cls.dtype
        assert cls.fields == dtype.names, cls
        end = 0
        for offset, sub in sorted((dtype.fields[n][1], dtype.fields[n][0]) for n in dtype.names):
            align = sub.base.alignment
            assert 0 <= offset - end < align, f"{cls.__name__}: {offset - end} unexplained bytes before {offset}"
            end = offset + sub.itemsize
        assert dtype.itemsize - end < 8, cls.__name__
    # The sizes the C++ header promises.
    assert orvaccess.TrkDataExt.dtype.itemsize == 448
    assert orvaccess.TgtResData.dtype.itemsize == 32
    assert orvaccess.ImuCrs.dtype.itemsize == 32


def test_every_record_kind_arrives_with_its_c_types_and_shapes(start_sim):
    sim = start_sim(*BUSY, "--image-hz", "20", "--shm-image-hz", "20")
    got = {}
    images = {}
    codes = set()
    with orvaccess.Access(sim.ini) as a:
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline and (len(got) < len(QUEUES) + 2 or len(images) < 2 or len(codes) < 2):
            for cls, suffix, _ in QUEUES:
                rec = getattr(a, "get_" + suffix)()
                if rec is not None:
                    got[suffix] = rec
            crs = a.get_imu_crs()
            if crs is not None:
                got["crs"] = crs
            code = a.get_error_code()
            if code is not None:
                got["error"] = code
                codes.add(code.code)
            image = a.get_image()
            if image is not None:
                # The status tells which road the image came by.
                road = "shm" if a.get_status().received & orvaccess.Received.ORVACCESS_RECV_SHARED_MEM else "udp"
                images[road] = image
            time.sleep(0.001)
        latest = a.get_tracking_data_latest()
        status = a.get_status()

    assert sorted(got) == sorted([q[1] for q in QUEUES] + ["crs", "error"])
    assert sorted(images) == ["shm", "udp"]
    for cls, suffix, _ in QUEUES:
        rec = got[suffix]
        assert type(rec) is cls
        for name in cls.fields:
            kind, shape = cls.dtype.fields[name][0].base, cls.dtype.fields[name][0].shape
            value = getattr(rec, name)
            if shape:
                assert isinstance(value, np.ndarray) and value.shape == shape and value.dtype == kind, name
            else:
                assert isinstance(value, float if kind.kind == "f" else int), name

    pose = latest
    assert pose.cbn.shape == (3, 3) and pose.cbn.dtype == np.float32
    assert pose.position.shape == (3,) and pose.euler.shape == (3,)
    # An attitude matrix is a rotation.
    assert np.allclose(pose.cbn @ pose.cbn.T, np.eye(3), atol=1e-5)
    assert got["hub_data"].cbn.shape == (3, 3) and got["hub_data"].vec.shape == (7, 3)
    assert got["crs"].bits.shape == (32,) and got["crs"].bits.dtype == np.uint8
    # The simulator's orvRx error byte 0x21 and orvHub error 6, with their origins.
    assert {0x121, 0x406} <= codes
    assert orvaccess.Connection(status.connections) & orvaccess.Connection.ORVACCESS_CONN_TCP
    for image in images.values():
        assert image.pixels.shape == (480, 640) and image.pixels.dtype == np.uint8
        assert image.format == orvaccess.ImageFormat.ORVACCESS_IMG_640x480_1 and image.percent == 100


def capture(start_sim, seconds):
    """What the simulator sends to the meta, orvCore, orvHub and NFT ports,
    as (port index, datagram) in arrival order."""
    keys = ("udpOrvRxPort", "udpOrvCorePort", "udpOrvHubPort", "udpNftPort")
    ports = {key: free_port() for key in ("tcpOrvRxPort", "udpOrvRxImgPort", "udpOrvRxInputPort") + keys}
    socks = []
    for key in keys:
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        s.bind(("127.0.0.1", ports[key]))
        socks.append(s)
    datagrams = []
    try:
        sim = start_sim(*BUSY, "--image-hz", "0", "--shm-image-hz", "0", ports=ports)
        # An access object of its own asks orvRx to stream; it receives nothing.
        control = write_ini(sim.ini.parent / "control.ini",
                            {"tcpOrvRxPort": ports["tcpOrvRxPort"], "udpOrvRxImgPort": ports["udpOrvRxImgPort"]})
        with orvaccess.Access(control) as a:
            a.set_streaming(True)
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                ready, _, _ = select.select(socks, [], [], 0.01)
                for s in ready:
                    datagrams.append((socks.index(s), s.recv(65535)))
    finally:
        for s in socks:
            s.close()
    return datagrams


def replay(datagrams, ports, service):
    # A few datagrams at a time, so that no receive buffer overflows.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        for n, (index, data) in enumerate(datagrams, 1):
            s.sendto(data, ("127.0.0.1", ports[index]))
            if n % 8 == 0:
                service()
    service()


def receiver(folder, name):
    """An INI file that opens the four ports and nothing else."""
    ports = [free_port() for _ in range(4)]
    keys = ("udpOrvRxPort", "udpOrvCorePort", "udpOrvHubPort", "udpNftPort")
    return write_ini(folder / name, dict(zip(keys, ports))), ports


def assert_rows(records, array, what):
    assert len(records) == len(array), what
    for i, rec in enumerate(records):
        for name in rec.fields:
            assert np.array_equal(getattr(rec, name), array[name][i]), f"{what} {i} {name}"


def test_drains_equal_records_one_by_one_and_the_cpp_interface(start_sim, tmp_path):
    datagrams = capture(start_sim, 0.25)
    assert len({index for index, _ in datagrams}) == 4

    # One by one.
    ini, ports = receiver(tmp_path, "one.ini")
    one = {}
    with orvaccess.Access(ini) as a:
        replay(datagrams, ports, lambda: a.service_udp(False))
        for cls, suffix, _ in QUEUES:
            get = getattr(a, "get_" + suffix)
            one[suffix] = list(iter(get, None))
        one["errors"] = list(iter(a.get_error_code, None))

    # In bulk.
    ini, ports = receiver(tmp_path, "bulk.ini")
    with orvaccess.Access(ini) as a:
        replay(datagrams, ports, lambda: a.service_udp(False))
        bulk = drain_all(a)
        bulk["errors"] = a.drain_error_codes()
        assert all(len(v) == 0 for v in drain_all(a).values())

    # Through the C++ interface.
    ini, ports = receiver(tmp_path, "reference.ini")
    capture_file = tmp_path / "capture.bin"
    capture_file.write_bytes(b"".join(bytes([i]) + len(d).to_bytes(2, "little") + d for i, d in datagrams))
    out = subprocess.run([REFERENCE, str(ini), str(capture_file), *map(str, ports)],
                         capture_output=True, text=True, timeout=30)
    assert out.returncode == 0, out.stderr
    raw = {}
    for line in out.stdout.splitlines():
        kind, hexbytes = line.split()
        raw.setdefault(kind, []).append(bytes.fromhex(hexbytes))

    for cls, suffix, kind in QUEUES + [(orvaccess.QueuedErrorCode, "errors", "error")]:
        assert len(one[suffix]) > 0, f"no {suffix} in the capture"
        assert all(type(r) is cls for r in one[suffix])
        assert bulk[suffix].dtype == cls.dtype
        assert_rows(one[suffix], bulk[suffix], suffix + " in bulk")
        reference = np.frombuffer(b"".join(raw.get(kind, [])), dtype=cls.dtype)
        assert_rows(one[suffix], reference, suffix + " through C++")
        # A row makes the same record again.
        assert cls.from_row(bulk[suffix][-1]) == one[suffix][-1]


@pytest.mark.parametrize("fmt, shape, dtype", [(11, (480, 640), "<u2"), (50, (480, 640, 3), "u1")])
def test_images_have_the_shape_and_type_of_their_format(start_sim, fmt, shape, dtype):
    sim = start_sim("--image-format", str(fmt), "--image-hz", "25", "--shm-image-hz", "0", "--tracking-hz", "0")
    with orvaccess.Access(sim.ini) as a:
        deadline = time.monotonic() + 20  # a limit for a hung run; an image comes within 40 ms
        image = None
        while image is None and time.monotonic() < deadline:
            image = a.get_image()
            time.sleep(0.002)
        assert image is not None, f"no image; {a.image_percent} % of one arrived"
        info = a.get_image_info(fmt)
    assert image.format == fmt and image.pixels.shape == shape and image.pixels.dtype == np.dtype(dtype)
    assert info.size == image.pixels.nbytes and (info.height, info.width) == shape[:2]


def rz(yaw):
    c, s = np.cos(yaw), np.sin(yaw)
    return np.array([[c, -s, 0], [s, c, 0], [0, 0, 1]])


def test_pose_adjustments_apply_to_records_in_place(tmp_path):
    a = orvaccess.Access(tmp_path / "none.ini")
    a.init()  # the defaults: no prediction, no tip offset, identity boresight
    rec = orvaccess.TrkDataExt(cbn=rz(np.pi / 2), position=(1, 2, 3), angularRate=(0, 0, 1))
    a.set_tip_offset((1, 0, 0))
    a.update_exports(0.05, rec)
    # Turned on by 0.05 s at 1 rad/s; the tip offset follows the predicted attitude.
    assert rec.euler[2] == pytest.approx(np.pi / 2 + 0.05, abs=1e-5)
    assert rec.position == pytest.approx(np.array([1, 2, 3]) + rz(np.pi / 2 + 0.05) @ [1, 0, 0], abs=1e-5)

    a.set_tip_offset([0, 0, 0])
    a.set_boresight_ref(np.array([0, 0, 0.1]))
    rec = orvaccess.TrkDataExt(cbn=rz(0.3))
    a.update_exports(0.0, rec)
    assert rec.euler == pytest.approx([0, 0, 0.2], abs=1e-6)
