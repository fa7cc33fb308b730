#!/usr/bin/env python3
"""Records every IMU sample for a while into a NumPy .npz file.

    build/bin/orvsim --ini examples/orvaccess.ini &
    PYTHONPATH=build/python /usr/bin/python3 examples/python/record_imu.py --ini examples/orvaccess.ini --out imu.npz

The file holds one structured array, "imu", with the fields of the C record
s_OrvAccessImuData (time in us, dt in s, gyroRate and accelRate the
increments divided by dt, ...). Read it back with numpy.load("imu.npz")["imu"].
"""
from __future__ import annotations

import argparse
import os
import sys
import time

import numpy as np
from numpy.typing import NDArray

import orvaccess

from example_args import seconds_arg


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ini", default="orvaccess.ini", help="configuration file (default: %(default)s)")
    parser.add_argument("--duration", type=seconds_arg, default=5.0, help="seconds to record (default: %(default)s)")
    parser.add_argument("--out", default="imu.npz", help="file to write (default: %(default)s)")
    args = parser.parse_args()
    # Before recording, not after: a path that cannot be written would
    # throw the whole recording away.
    folder = os.path.dirname(os.path.abspath(args.out))
    if not os.path.isdir(folder) or not os.access(folder, os.W_OK):
        sys.exit(f"record_imu: cannot write {args.out}: {folder} is not a folder this user may write to")

    chunks: list[NDArray[np.void]] = []
    try:
        with orvaccess.Access(args.ini) as a:
            end = time.monotonic() + args.duration
            while time.monotonic() < end:
                # One call takes whatever has queued since the last one.
                chunks.append(a.drain_imu_data())
                time.sleep(0.02)
            chunks.append(a.drain_imu_data())
    except FileNotFoundError as e:
        sys.exit(f"record_imu: cannot read the configuration file {e.filename}: {e.strerror}")
    except orvaccess.Error as e:
        sys.exit(f"record_imu: {e.call} failed: {e}")

    imu = np.concatenate(chunks)
    np.savez(args.out, imu=imu)
    if len(imu) < 2:
        sys.exit(f"record_imu: {len(imu)} samples in {args.duration} s; is orvRx (or orvsim) streaming "
                 f"to the ports in {args.ini}?")
    seconds = (imu["time"][-1] - imu["time"][0]) / 1e6
    # Chip packet ids count 0..255: a step other than 1 means lost samples.
    steps = np.diff(imu["pid"].astype(np.int64)) % 256
    print(f"{len(imu)} samples in {seconds:.2f} s ({(len(imu) - 1) / seconds:.1f} Hz), "
          f"{int(np.sum(np.maximum(steps - 1, 0)))} missing, written to {args.out}")
    print("mean gyro rate   rad/s", np.array2string(imu["gyroRate"].mean(axis=0), precision=4))
    print("mean accel rate       ", np.array2string(imu["accelRate"].mean(axis=0), precision=3))


if __name__ == "__main__":
    main()
