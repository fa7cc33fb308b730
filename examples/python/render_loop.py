#!/usr/bin/env python3
"""A 90 Hz render loop on a thread of its own, fed by a PoseFeed: each frame
takes the pose predicted to the moment it will be shown, without waiting for
the tracker. The main thread prints a line a second and the error codes.

    build/bin/orvsim --ini examples/orvaccess.ini &
    PYTHONPATH=build/python /usr/bin/python3 examples/python/render_loop.py --ini examples/orvaccess.ini
"""
from __future__ import annotations

import argparse
import dataclasses
import math
import sys
import threading
import time

import orvaccess

from example_args import seconds_arg

FRAME_S = 1 / 90
# From the start of a frame until it is on the display: render, then scan out.
FRAME_TO_DISPLAY_US = round(2 * FRAME_S * 1e6)


@dataclasses.dataclass
class Stats:
    frames: int = 0
    stale: int = 0  # frames shown with an old pose: the tracker has gone quiet
    new: int = 0  # frames with a pose newer than the frame before
    last: orvaccess.FeedPose | None = None  # the newest frame with a pose


def render(feed: orvaccess.PoseFeed, stop: threading.Event, stats: Stats) -> None:
    reader = feed.reader()  # one per render thread: it learns this loop's display clock
    next_frame = time.monotonic()
    last_sequence = 0
    while not stop.is_set():
        next_frame += FRAME_S
        time.sleep(max(0.0, next_frame - time.monotonic()))
        display_us = round(orvaccess.get_time_ms() * 1000) + FRAME_TO_DISPLAY_US
        frame = reader.at_time(display_us)
        stats.frames += 1
        if frame.pose is not None:
            stats.stale += frame.stale
            stats.new += frame.sequence != last_sequence
            last_sequence = frame.sequence
            stats.last = frame
        # ... draw the scene with frame.pose.cbn and frame.pose.position


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ini", default="orvaccess.ini", help="configuration file (default: %(default)s)")
    parser.add_argument("--duration", type=seconds_arg, default=10.0, help="seconds to run (default: %(default)s)")
    parser.add_argument("--poses", type=int, default=0,
                        help="stop once this many frames had a new pose; 0: no limit")
    args = parser.parse_args()

    try:
        feed = orvaccess.PoseFeed(args.ini)
    except OSError as e:
        print(f"render_loop: cannot read the configuration file {args.ini}: {e.strerror}", file=sys.stderr)
        return 1
    except orvaccess.Error as e:
        print(f"render_loop: {e}", file=sys.stderr)
        return 1
    stats = Stats()
    stop = threading.Event()
    with feed:
        renderer = threading.Thread(target=render, args=(feed, stop, stats))
        renderer.start()
        end = time.monotonic() + args.duration
        frames_before = 0
        while time.monotonic() < end and not 0 < args.poses <= stats.new:
            # A line a second; a glance every 50 ms for the end.
            line_start = time.monotonic()
            next_line = min(end, line_start + 1.0)
            while time.monotonic() < next_line and not 0 < args.poses <= stats.new:
                time.sleep(min(0.05, max(0.0, next_line - time.monotonic())))
            rate = (stats.frames - frames_before) / max(1e-3, time.monotonic() - line_start)
            last = stats.last
            if last is not None and last.pose is not None:
                yaw = math.degrees(last.pose.euler[2])
                print(f"{rate:3.0f} frames/s  tag {last.pose.packetTag:10d}  "
                      f"yaw {yaw:7.2f} deg  predicted {last.prediction_s * 1000:5.1f} ms  "
                      f"stale frames {stats.stale}")
            frames_before = stats.frames
            for code, value in feed.error_codes():
                print(f"  error {code}: {orvaccess.error_message(code)} (value {value})")
            if feed.service_error:
                print(f"  {feed.service_error}")
        stop.set()
        renderer.join()
    print(f"{stats.frames} frames, {stats.new} with a new pose, {stats.stale} stale")
    return 0


if __name__ == "__main__":
    sys.exit(main())
