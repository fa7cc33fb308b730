#!/usr/bin/env python3
"""What one bulk call costs on the Python side: 1,000 queued IMU samples
drained into one structured array, against the time spent in the library's
own getters (each of which services the ports first).

    PYTHONPATH=build/python /usr/bin/python3 python/tests/bench_drain.py

Not a test: it prints one line per round and the best of them.
"""
import sys
import tempfile
import time

import orvaccess
from conftest import Sim

RECORDS = 1000
ROUNDS = 5


def main():
    with tempfile.TemporaryDirectory() as folder:
        sim = Sim(folder, ["--tracking-hz", "0", "--hub-hz", "0", "--nft-hz", "0", "--image-hz", "0",
                           "--shm-image-hz", "0", "--error-period", "0"])
        with orvaccess.Access(sim.ini) as a:
            a.set_streaming(True)
            # Queue enough samples for every round; getStatus services the
            # ports without taking records out.
            end = time.monotonic() + (RECORDS * ROUNDS + 500) / 1000
            while time.monotonic() < end:
                a.get_status()
                time.sleep(0.005)
            sim.stop()
            a.get_status()
            python_side = []
            for _ in range(ROUNDS):
                start = time.perf_counter()
                imu = a.drain_imu_data(max_records=RECORDS)
                total = time.perf_counter() - start
                library = a._last_drain_library_s
                if len(imu) < RECORDS:
                    sys.exit(f"bench_drain: only {len(imu)} samples queued")
                python_side.append(total - library)
                print(f"{len(imu)} IMU records: {total * 1e6:7.1f} us in all, {library * 1e6:7.1f} us in the "
                      f"library's getters, {(total - library) * 1e6:5.1f} us on the Python side")
    print(f"best Python side of a {RECORDS}-record drain: {min(python_side) * 1e6:.1f} us")


if __name__ == "__main__":
    main()
