#!/usr/bin/env python3
"""Prints the newest pose predicted to the moment of display, ten times a
second, with any error codes that arrive.

    build/bin/orvsim --ini examples/orvaccess.ini &
    PYTHONPATH=build/python /usr/bin/python3 examples/python/poses.py --ini examples/orvaccess.ini
"""
import argparse
import math
import sys
import time

import orvaccess

from example_args import seconds_arg


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ini", default="orvaccess.ini", help="configuration file (default: %(default)s)")
    parser.add_argument("--duration", type=seconds_arg, default=10.0, help="seconds to run (default: %(default)s)")
    parser.add_argument("--count", type=int, default=0, help="stop after this many poses; 0: no limit")
    parser.add_argument("--rate", type=float, default=10.0, help="lines a second (default: %(default)s)")
    parser.add_argument("--ahead-ms", type=float, default=20.0,
                        help="how far ahead of now the display shows the pose (default: %(default)s)")
    args = parser.parse_args()
    if not 0 < args.rate <= 1000:
        parser.error(f"--rate {args.rate:g} is not a number of lines a second above 0, up to 1000")

    try:
        with orvaccess.Access(args.ini) as a:
            print("    tag    pose time s   roll    pitch   yaw deg     x       y       z m")
            start = time.monotonic()
            end = start + args.duration
            poses = 0
            hinted = False
            while time.monotonic() < end and (args.count <= 0 or poses < args.count):
                display_us = a.get_time_us() + round(args.ahead_ms * 1000)
                pose = a.get_tracking_data_at_time(display_us)
                if pose is not None:
                    poses += 1
                    roll, pitch, yaw = (math.degrees(v) for v in pose.euler)
                    x, y, z = pose.position
                    print(f"{pose.packetTag:8d} {pose.poseTime / 1e6:13.3f} {roll:7.2f} {pitch:7.2f} {yaw:7.2f}"
                          f"   {x:7.3f} {y:7.3f} {z:7.3f}")
                for e in a.drain_error_codes():
                    print(f"  error {e['code']}: {a.get_error_message(e['code'])} (value {e['value']})")
                if poses == 0 and not hinted and time.monotonic() - start >= 2:
                    hinted = True
                    print(f"poses: no pose yet; is orvCore (or orvsim) sending to the ports in {args.ini}?",
                          file=sys.stderr)
                time.sleep(1.0 / args.rate)
    except FileNotFoundError as e:
        sys.exit(f"poses: cannot read the configuration file {e.filename}: {e.strerror}")
    except orvaccess.Error as e:
        sys.exit(f"poses: {e.call} failed: {e}")
    if poses == 0:
        sys.exit(f"poses: no pose in {args.duration} s; is orvCore (or orvsim) sending to the ports in {args.ini}?")


if __name__ == "__main__":
    main()
