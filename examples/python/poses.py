#!/usr/bin/env python3
"""Prints the newest pose predicted to the moment of display, ten times a
second, with any error codes that arrive.

    build/sim/orvsim --ini examples/orvaccess.ini &
    PYTHONPATH=build/python /usr/bin/python3 examples/python/poses.py --ini examples/orvaccess.ini
"""
import argparse
import math
import sys
import time

import orvaccess


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--ini", default="orvaccess.ini", help="configuration file (default: %(default)s)")
    parser.add_argument("--duration", type=float, default=10.0, help="seconds to run (default: %(default)s)")
    parser.add_argument("--rate", type=float, default=10.0, help="lines a second (default: %(default)s)")
    parser.add_argument("--ahead-ms", type=float, default=20.0,
                        help="how far ahead of now the display shows the pose (default: %(default)s)")
    args = parser.parse_args()

    try:
        with orvaccess.Access(args.ini) as a:
            print("    tag    pose time s   roll    pitch   yaw deg     x       y       z m")
            end = time.monotonic() + args.duration
            while time.monotonic() < end:
                display_us = a.get_time_us() + round(args.ahead_ms * 1000)
                pose = a.get_tracking_data_at_time(display_us)
                if pose is not None:
                    roll, pitch, yaw = (math.degrees(v) for v in pose.euler)
                    x, y, z = pose.position
                    print(f"{pose.packetTag:8d} {pose.poseTime / 1e6:13.3f} {roll:7.2f} {pitch:7.2f} {yaw:7.2f}"
                          f"   {x:7.3f} {y:7.3f} {z:7.3f}")
                for e in a.drain_error_codes():
                    print(f"  error {e['code']}: {a.get_error_message(e['code'])} (value {e['value']})")
                time.sleep(1.0 / args.rate)
    except orvaccess.Error as e:
        sys.exit(f"poses: {e.call} failed: {e}")


if __name__ == "__main__":
    main()
