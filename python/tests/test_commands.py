"""Commands and uplink data reach the simulated orvRx, and come back."""
import os
import re

import orvaccess


def test_registers_imu_transactions_and_files_reach_orvrx(start_sim, tmp_path):
    sim = start_sim("--tracking-hz", "0")
    data = os.urandom(1000)
    (tmp_path / "cal.bin").write_bytes(data)
    with orvaccess.Access(sim.ini) as a:
        a.set_register(0x123456, 0x5A)
        assert a.get_register(0x123456) == 0x5A
        camera = orvaccess.ImuSelect.ORVACCESS_IMU_CAMERA
        # The simulated IMU: identity 0x6B at address 0; writes from the start address on.
        assert a.transact_imu(camera, bytes([0]), 2) == bytes([0x6B, 0])
        assert a.transact_imu(camera, bytes([5, 1, 2, 3]), 0) == b""
        assert a.transact_imu(camera, bytes([5]), 3) == bytes([1, 2, 3])
        a.put_file(tmp_path / "cal.bin", "cal.bin")
        assert (sim.files / "cal.bin").read_bytes() == data
        a.get_file("cal.bin", str(tmp_path / "back.bin"), location=orvaccess.FileLoc.ORVACCESS_FILE_LOC_1)
        assert (tmp_path / "back.bin").read_bytes() == data
        # Commands stop streaming; the next getter asks for it again.
        assert not a.get_streaming()
        a.get_imu_data()
        assert a.get_streaming()


def test_uplink_records_reach_orvrx(start_sim):
    sim = start_sim("--tracking-hz", "0")
    with orvaccess.Access(sim.ini) as a:
        for tag in (4319, 4320, 4321):
            a.set_platform_pose_data(orvaccess.PlatPoseData(tag=tag, pose=(0.1, -0.2, 3.0)))
        a.set_gps_data(orvaccess.GpsData(lat=48.137154, lon=11.576124, gpsByte2=7))
        a.send_input_data(0x42)
    # orvsim reads what waits on its uplink port once more when it stops.
    report = sim.stop()
    assert re.search(r"uplink\s+3 platform poses \(last tag 4321\), 1 GPS, 1 input, 0 bad", report), report
