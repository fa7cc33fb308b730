"""Opening and closing, the pose iterator, and threads around waiting calls."""
import os
import threading
import time

import numpy as np
import pytest

import orvaccess


def descriptors():
    return sorted(os.listdir("/proc/self/fd"))


def mapped(name):
    with open("/proc/self/maps") as f:
        return name in f.read()


def test_the_context_manager_closes_everything(start_sim):
    sim = start_sim()
    before = descriptors()
    with orvaccess.Access(sim.ini) as a:
        # Command channel, uplink, five receivers and the shared-memory region.
        assert len(descriptors()) >= len(before) + 7 and mapped(sim.shm_name)
        assert a.get_status().connections == int(orvaccess.Connection(0x7F))
        a.add_error_code(0x406, 9)
        with pytest.raises(orvaccess.Error):
            a.get_image_info(13)
    assert descriptors() == before and not mapped(sim.shm_name)
    # What a closed object still tells is still there.
    assert a.get_last_error() == "Illegal image format (13)"
    code = a.get_error_code()
    assert (code.code, code.value) == (0x406, 9) and a.get_error_code() is None
    with pytest.raises(orvaccess.Error, match="Interface not open"):
        a.get_tracking_data()

    # Also when the body fails; the object opens again afterwards.
    with pytest.raises(KeyError):
        with a:
            raise KeyError("out of the block")
    assert descriptors() == before
    # close() alone keeps the region until the next open(), as in C++.
    a.open()
    a.close()
    assert len(descriptors()) > len(before) and mapped(sim.shm_name)
    with a:
        pass
    assert descriptors() == before


def test_poses_yields_every_pose_in_order_for_the_duration(start_sim):
    sim = start_sim("--nft-hz", "0")
    with orvaccess.Access(sim.ini) as a:
        start = time.monotonic()
        poses = list(a.poses(duration_s=0.3))
        took = time.monotonic() - start
    assert 0.3 <= took < 1.0
    assert all(type(p) is orvaccess.TrkDataExt for p in poses)
    # A pose every other IMU sample (500 a second), each packet tag once, in
    # order; a larger step only where the simulator itself skipped after a stall.
    steps = np.diff([p.packetTag for p in poses])
    assert len(poses) > 50 and np.all(steps > 0) and np.all(steps % 2 == 0)
    assert np.median(steps) == 2


def test_waiting_calls_let_other_threads_run(start_sim):
    sim = start_sim("--replies", "silent")
    ticks = []
    stop = threading.Event()

    def tick():
        while not stop.is_set():
            ticks.append(time.monotonic())
            time.sleep(0.005)

    with orvaccess.Access(sim.ini) as a:
        thread = threading.Thread(target=tick)
        thread.start()
        try:
            start = time.monotonic()
            with pytest.raises(orvaccess.Error, match="No response to get register command"):
                a.get_register(7, timeout_ms=300)
            end = time.monotonic()
        finally:
            stop.set()
            thread.join()
    assert end - start >= 0.3
    # Had the call held the GIL, the other thread would have stood still.
    assert sum(start + 0.05 < t < end - 0.05 for t in ticks) >= 10


def test_wait_udp_sleeps_until_the_tracker_sends(start_sim):
    sim = start_sim()
    with orvaccess.Access(sim.ini) as a:
        a.get_tracking_data()  # switches streaming on
        start = time.monotonic()
        assert a.wait_udp(2.0)
        assert time.monotonic() - start < 1.0
        a.drain_tracking_data()
    with pytest.raises(orvaccess.Error, match="Unable to wait for UDP: Interface not open"):
        a.wait_udp(0)
