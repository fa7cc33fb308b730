"""Failures raise orvaccess.Error with the library's own reason; error codes
are the header's enumeration with the library's messages."""
import pathlib
import re
import time

import numpy as np
import pytest

import orvaccess
from conftest import ROOT, free_port, write_ini

E = orvaccess.ErrorCode


def raised(call, *args, **kwargs):
    with pytest.raises(orvaccess.Error) as info:
        call(*args, **kwargs)
    return info.value


def test_failures_raise_error_with_the_library_text(start_sim, tmp_path):
    a = orvaccess.Access(tmp_path / "none.ini")
    e = raised(a.get_imu_data)
    assert (e.text, e.call, str(e)) == ("Unable to service UDP: Interface not open", "get_imu_data", e.text)
    assert a.get_last_error() == e.text
    # A drain that fails hands over what it had taken (here nothing).
    e = raised(a.drain_hub_data)
    assert e.records.dtype == orvaccess.HubData.dtype and len(e.records) == 0

    # Nothing to open: the library's reason, and where to look.
    e = raised(orvaccess.Access(write_ini(tmp_path / "zero.ini", {})).open)
    assert e.text == "Unable to open any connections" and "check the ports in" in str(e)

    # Commands without a command channel.
    udp_only = write_ini(tmp_path / "udp.ini", {"udpNftPort": free_port()})
    with orvaccess.Access(udp_only) as a:
        assert raised(a.set_register, 5, 1).text == "TCP not open"
        assert raised(a.get_image_info, 13).text == "Illegal image format (13)"
        # Beyond what the C++ enumeration can hold: refused alike before the call.
        assert raised(a.get_image_info, 200).text == "Illegal image format (200)"
        assert raised(a.get_imu_data, 2).text == "Invalid source IMU selector"

    sim = start_sim("--tracking-hz", "0")
    with orvaccess.Access(sim.ini) as a:
        e = raised(a.transact_imu, orvaccess.ImuSelect.ORVACCESS_IMU_CAMERA, bytes(256))
        assert e.text == "IMU transmit length too long (256 bytes, at most 255)"
        assert raised(a.get_file, "missing.txt", tmp_path / "out.txt").text == "File not found by server"
        assert not (tmp_path / "out.txt").exists()


def test_error_codes_are_the_header_enumeration_with_the_library_messages(start_sim):
    # The names and values as the header spells them.
    header = (ROOT / "include" / "orvaccess" / "orvwire.h").read_text()
    body = re.search(r"typedef enum e_OrvAccessError \{(.*?)\} e_OrvAccessError;", header, re.S).group(1)
    declared = {name: int(value) for name, value in re.findall(r"(ORVACCESS_ERR_\w+)\s*=\s*(\d+)", body)}
    assert {m.name: m.value for m in E} == declared
    assert issubclass(E, int) and E(770) is E.ORVACCESS_ERR_BAD_TRACKING_PKT
    assert E.ORVACCESS_ERR_BAD_TRACKING_PKT.message == "[ORVACCESS] ERROR: Bad tracking packet"
    assert E.ORVACCESS_ERR_IMAGE_TRANSFER.message == "[ORVACCESS] ERROR: Image transfer failed"
    # The library gives 781 to 784 no text; the enumeration names them.
    assert orvaccess.error_message(784) == "[ORVACCESS]: Unknown error"
    for code in (E.ORVACCESS_ERR_BAD_HUB_PKT, E.ORVACCESS_ERR_BAD_NFT_PKT, E.ORVACCESS_ERR_BAD_GPS_SUBPKT,
                 E.ORVACCESS_ERR_BAD_PRA_PKT):
        assert code.message.startswith("[ORVACCESS]: a ") and code.message.endswith(f" ({code.name})")
        assert "Unknown error" not in code.message and orvaccess.error_text(code) == code.message
    assert orvaccess.error_text(770) == orvaccess.error_message(770)
    assert orvaccess.error_message(0x406) == "[ORVHUB] ERROR: Error reading from serial port"

    # Damaged tracking datagrams come back as their code, nothing else does.
    sim = start_sim("--corrupt", "0.05", "--fault-streams", "tracking", "--error-period", "0")
    with orvaccess.Access(sim.ini) as a:
        codes = np.empty(0, orvaccess.QueuedErrorCode.dtype)
        deadline = time.monotonic() + 30
        while len(codes) < 3 and time.monotonic() < deadline:
            a.drain_tracking_data()
            codes = np.concatenate([codes, a.drain_error_codes()])
            time.sleep(0.005)
    assert len(codes) >= 3 and set(codes["code"]) == {E.ORVACCESS_ERR_BAD_TRACKING_PKT}
    assert set(codes["value"]) == {0}


def test_named_files_numbers_and_rows_are_checked_before_use(tmp_path):
    # A file named for the object must be there; the default keeps the
    # library's rule (no file: every key at its default).
    with pytest.raises(FileNotFoundError) as info:
        orvaccess.Access(tmp_path / "none.ini").open()
    assert info.value.filename == str(tmp_path / "none.ini")
    a = orvaccess.Access()
    a.set_ini_path(tmp_path / "other.ini")
    with pytest.raises(FileNotFoundError):
        a.open()
    with pytest.raises(FileNotFoundError):
        orvaccess.PoseFeed(tmp_path / "none.ini")

    a = orvaccess.Access(tmp_path / "none.ini")
    with pytest.raises(ValueError, match="timeout must be a number of seconds"):
        a.wait_udp(float("nan"))
    with pytest.raises(ValueError, match="duration_s must be a number of seconds"):
        a.poses(duration_s=float("nan"))
    with pytest.raises(ValueError, match="poll_s must be"):
        a.poses(poll_s=float("nan"))
    # No end at all is what an infinite duration means.
    assert a.poses(duration_s=float("inf")) is not None

    # The reply never holds more than 255 bytes: a huge capacity allocates
    # nothing (and fails only for the closed object).
    for capacity in (1 << 30, 1 << 62):
        e = raised(a.transact_imu, orvaccess.ImuSelect.ORVACCESS_IMU_CAMERA, b"\0", capacity)
        assert e.call == "transact_imu"

    # A row must be one whole record of the record's dtype.
    for row in (np.zeros(0, orvaccess.ImuData.dtype), np.zeros(2, orvaccess.ImuData.dtype),
                np.zeros(1, orvaccess.HubData.dtype)[0], np.zeros(3, np.float32)):
        with pytest.raises(ValueError):
            orvaccess.ImuData.from_row(row)
    assert orvaccess.ImuData.from_row(np.zeros(1, orvaccess.ImuData.dtype)[0]) == orvaccess.ImuData()


def test_refused_arguments_say_what_is_expected(tmp_path):
    a = orvaccess.Access(tmp_path / "none.ini")
    # The parsers trust a packet's length word: a short one never reaches them.
    with pytest.raises(ValueError, match="length word says 332 bytes but 3 were given; pass the whole datagram"):
        a.process_tracking_pkt(bytes([10, 332 & 0xFF, 332 >> 8]))
    with pytest.raises(ValueError, match="at least its start byte and length word"):
        a.process_meta_pkt(b"\x13")
    with pytest.raises(ValueError, match="three numbers"):
        a.set_tip_offset([1.0, 2.0])
    with pytest.raises(ValueError, match="one byte, 0..255, not 300"):
        a.send_input_data(300)
    with pytest.raises(TypeError, match="no field 'roll'"):
        orvaccess.PlatPoseData(roll=1.0)
    with pytest.raises(ValueError, match=r"PlatPoseData.tag takes an integer in 0..4294967295, not -1"):
        orvaccess.PlatPoseData(tag=-1)
    with pytest.raises(TypeError):
        orvaccess.PlatPoseData(tag=1.5)
    with pytest.raises(ValueError, match=r"takes an array of shape \(3, 3\), not \(3,\)"):
        orvaccess.TrkDataExt(cbn=[1, 2, 3])
    # What is accepted lands in the C record, widths and all.
    rec = orvaccess.GpsData(valid=255, gpsHalf=65535, lat=48.137154, gpsValue1=0.1)
    assert (rec.valid, rec.gpsHalf, rec.lat) == (255, 65535, 48.137154)
    assert rec.gpsValue1 == np.float32(0.1)
