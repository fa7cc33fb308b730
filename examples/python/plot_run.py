#!/usr/bin/env python3
"""Records a run and plots it into a PNG: attitude and position over time,
the rate and the gaps of every channel, and how far each predicted pose was
from where the head turned out to be.

    build/bin/orvsim --ini examples/orvaccess.ini &
    PYTHONPATH=build/python /usr/bin/python3 examples/python/plot_run.py --ini examples/orvaccess.ini --out run.png

It polls the way a renderer does: every millisecond the pose predicted to
the display time (now + --ahead-ms), and the newest pose as reported. The
reported poses, interpolated to the moment a prediction was meant for, are
the truth it is measured against; "unpredicted" is the reported pose shown
as it is. It also prints the error at fixed horizons from the pose time (0,
10, 20 and 40 ms, the library's own prediction with that interval); start
orvsim with --motion gaze (or gaze+vibration, or your own trace) to see it
on motion like your users'.
"""
from __future__ import annotations

import argparse
import configparser
import pathlib
import sys
import time
from typing import NamedTuple

import numpy as np
from numpy.typing import NDArray

import orvaccess

from example_args import seconds_arg

# Two reported poses further apart than this are no truth between them.
MAX_TRUTH_GAP_US = 10_000
# The library bounds a prediction's horizon to this range.
MIN_HORIZON_S, MAX_HORIZON_S = -0.005, 0.2
# Fixed horizons from the pose time at which the prediction is measured too.
HORIZONS_S = (0.0, 0.010, 0.020, 0.040)

Floats = NDArray[np.float64]


class Recording(NamedTuple):
    truth: dict[int, orvaccess.TrkDataExt]  # pose time -> reported pose
    predictions: list[tuple[int, int, NDArray[np.float32]]]  # (pose time, display time, predicted cbn)
    arrivals: dict[str, list[int]]  # channel -> arrival times, us
    errors: NDArray[np.void]  # the error codes queued meanwhile
    fixed: list[tuple[int, float, NDArray[np.float32]]]  # (pose time, horizon, predicted cbn) at HORIZONS_S


def prediction_settings(ini: str) -> tuple[float, int]:
    """predictionS and virtualSyncCtrl as the library reads them (0 when absent)."""
    parser = configparser.ConfigParser(strict=False, inline_comment_prefixes=(";", "#"))
    parser.read(ini)
    values: dict[str, str] = {}
    for section in parser.sections():
        if section.lower() == "processing":
            values.update(parser[section])
    try:
        return float(values.get("predictions", 0)), int(values.get("virtualsyncctrl", "0"), 0)
    except ValueError:
        return 0.0, 0


def prediction_note(ini: str, prediction_s: float, sync: int) -> str | None:
    """What to say in place of (or beside) the prediction error when the file
    does not have the library predict to the display time; None when it does."""
    if sync & 0x3:
        return None
    if prediction_s == 0:
        return (f"the prediction is off in {ini}: with virtualSyncCtrl {sync} and predictionS 0 every pose is "
                f"handed out as reported, so there is no prediction error to measure; set virtualSyncCtrl = 2 "
                f"under [Processing] to predict to the display time")
    return (f"the prediction in {ini} ignores the display time: with virtualSyncCtrl {sync} every pose is "
            f"predicted predictionS = {prediction_s:g} s from its own time, whatever --ahead-ms says; set "
            f"virtualSyncCtrl = 2 under [Processing] to predict to the display time")


def is_nft_pose(p: orvaccess.TrkDataExt) -> bool:
    # NFT poses share the tracking queue; they carry extB/extD, orvCore's do not.
    if p.extB.any() or p.extD.any():
        return True
    return not p.cbn2.any() and p.time2 == 0 and p.statusWord == 0


def rotation_angle_deg(a: Floats, b: Floats) -> Floats:
    """The angle between attitudes, from the distance of their matrices
    (exact near zero, where the trace formula drowns in rounding)."""
    d = np.linalg.norm((a - b).reshape(len(a), -1), axis=1)
    angle: Floats = np.degrees(2 * np.arcsin(np.minimum(1.0, d / (2 * np.sqrt(2)))))
    return angle


def truth_at(times: NDArray[np.int64], cbns: Floats, t: NDArray[np.int64]) -> Floats:
    """Reported attitudes interpolated to the times t; NaN where no two
    reported poses close enough enclose a time."""
    i = np.searchsorted(times, t)
    ok = (i > 0) & (i < len(times))
    i = np.clip(i, 1, len(times) - 1)
    t0, t1 = times[i - 1], times[i]
    ok &= (t1 - t0) <= MAX_TRUTH_GAP_US
    w = ((t - t0) / np.maximum(t1 - t0, 1))[:, None, None]
    m = (1 - w) * cbns[i - 1] + w * cbns[i]
    # Back onto a rotation: the nearest orthonormal matrix.
    u, _, vt = np.linalg.svd(m)
    rotation: Floats = u @ vt
    rotation[~ok] = np.nan
    return rotation


def record(a: orvaccess.Access, seconds: float, ahead_us: int, prediction_s: float) -> Recording:
    truth: dict[int, orvaccess.TrkDataExt] = {}
    predictions: list[tuple[int, int, NDArray[np.float32]]] = []
    fixed: list[tuple[int, float, NDArray[np.float32]]] = []
    arrivals: dict[str, list[int]] = {
        name: [] for name in ("imu", "hub", "nft", "diag", "platform pose", "gps", "images")}
    nft_seen: set[int] = set()
    poses_seen: set[int] = set()
    end = time.monotonic() + seconds
    next_progress = time.monotonic() + 1
    while time.monotonic() < end:
        if time.monotonic() >= next_progress:
            next_progress += 1
            print(f"plot_run: {len(truth)} poses, {max(0.0, end - time.monotonic()):.0f} s to go",
                  file=sys.stderr, flush=True)
        now = a.get_time_us()
        display = now + ahead_us
        p = a.get_tracking_data_at_time(display)
        if p is not None and not is_nft_pose(p):
            predictions.append((p.poseTime, display, p.cbn.copy()))
        # The newest pose as reported, unpredicted: the truth.
        a.set_prediction(0.0)
        latest = a.get_tracking_data_latest()
        a.set_prediction(prediction_s)
        if latest is not None and not is_nft_pose(latest) and latest.poseTime not in poses_seen:
            poses_seen.add(latest.poseTime)
            truth[latest.poseTime] = latest
            # The same pose predicted by the library at each fixed horizon.
            for h in HORIZONS_S:
                a.set_prediction(h)
                q = a.get_tracking_data_latest()
                if q is None or q.poseTime != latest.poseTime:
                    break
                fixed.append((q.poseTime, h, q.cbn.copy()))
            a.set_prediction(prediction_s)
        imu = a.drain_imu_data()
        arrivals["imu"].extend(imu["time"])
        arrivals["hub"].extend(a.drain_hub_data()["time"])
        for tag in a.drain_feature_data()["sequenceId"]:
            if tag not in nft_seen:
                nft_seen.add(tag)
                arrivals["nft"].append(now)
        arrivals["diag"].extend([now] * len(a.drain_diag_data()))
        arrivals["platform pose"].extend([now] * len(a.drain_platform_pose_data()))
        arrivals["gps"].extend([now] * len(a.drain_gps_data()))
        if a.get_image() is not None:
            arrivals["images"].append(now)
        a.drain_target_data()
        a.drain_target_res_data()
        a.drain_pose_recovery_stats()
        time.sleep(0.0005)
    errors = a.drain_error_codes()
    return Recording(truth, predictions, arrivals, errors, fixed)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--ini", default="orvaccess.ini", help="configuration file (default: %(default)s)")
    parser.add_argument("--duration", type=seconds_arg, default=10.0, help="seconds to record (default: %(default)s)")
    parser.add_argument("--ahead-ms", type=float, default=20.0,
                        help="how far ahead of now the display shows the pose (default: %(default)s)")
    parser.add_argument("--out", default="run.png", help="PNG to write (default: %(default)s)")
    args = parser.parse_args()

    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    prediction_s, sync = prediction_settings(args.ini)
    note = prediction_note(args.ini, prediction_s, sync)
    print(f"plot_run: recording {args.duration:g} s from the ports in {args.ini}, then plotting", file=sys.stderr)
    try:
        with orvaccess.Access(args.ini) as a:
            truth, predictions, arrivals, errors, fixed = record(a, args.duration, round(args.ahead_ms * 1000),
                                                          prediction_s)
    except FileNotFoundError as e:
        sys.exit(f"plot_run: cannot read the configuration file {e.filename}: {e.strerror}")
    except orvaccess.Error as e:
        sys.exit(f"plot_run: {e.call} failed: {e}")
    if len(truth) < 2:
        sys.exit(f"plot_run: {len(truth)} poses in {args.duration} s; is orvCore (or orvsim) sending to the "
                 f"ports in {args.ini}?")

    times = np.array(sorted(truth), dtype=np.int64)
    poses = [truth[t] for t in times]
    cbns = np.array([p.cbn for p in poses], dtype=np.float64)
    t0 = times[0]
    seconds = (times - t0) / 1e6
    # Only the newest pose is seen at each poll: a slow poll misses some.
    arrivals["tracking (polled)"] = list(times)

    # Each prediction against the truth at the moment it was meant for.
    pose_t = np.array([p[0] for p in predictions], dtype=np.int64)
    display_t = np.array([p[1] for p in predictions], dtype=np.int64)
    # To the display time when the library follows the display clock, else by the fixed interval alone.
    ahead_s = (display_t - pose_t) / 1e6 if sync & 0x3 else np.zeros(len(pose_t))
    horizon = prediction_s + ahead_s
    target = pose_t + np.round(np.clip(horizon, MIN_HORIZON_S, MAX_HORIZON_S) * 1e6).astype(np.int64)
    later = truth_at(times, cbns, target)
    as_reported = np.array([truth[t].cbn if t in truth else np.full((3, 3), np.nan) for t in pose_t])
    predicted_err = rotation_angle_deg(np.array([p[2] for p in predictions]), later)
    unpredicted_err = rotation_angle_deg(as_reported, later)
    # A prediction over no time (the prediction off) compares a pose with itself: a zero that measures nothing.
    measured = ~np.isnan(predicted_err) & ~np.isnan(unpredicted_err) & (horizon != 0)
    predicted_err, unpredicted_err = predicted_err[measured], unpredicted_err[measured]
    error_t = (target[measured] - t0) / 1e6

    fig, ax = plt.subplots(3, 2, figsize=(13, 11), constrained_layout=True)
    fig.suptitle(f"orvaccess: {seconds[-1]:.1f} s from {pathlib.Path(args.ini).name}, "
                 f"display {args.ahead_ms:g} ms ahead")

    euler = np.degrees([p.euler for p in poses])
    for k, name in enumerate(("roll", "pitch", "yaw")):
        ax[0, 0].plot(seconds, euler[:, k], label=name)
    ax[0, 0].set(title="Attitude as reported", xlabel="time (s)", ylabel="degrees")
    position = np.array([p.position for p in poses])
    for k, name in enumerate("xyz"):
        ax[0, 1].plot(seconds, position[:, k], label=name)
    ax[0, 1].set(title="Position as reported", xlabel="time (s)", ylabel="metres")

    # Whole seconds only: a part-second at the end would read as a drop.
    bins = np.arange(0, max(np.floor(seconds[-1]), 1.0) + 0.5, 1.0)
    names = [n for n in ("tracking (polled)", "imu", "hub", "nft", "diag", "platform pose", "gps", "images")
             if len(arrivals[n]) > 1]
    median_gap, max_gap = [], []
    for name in names:
        t = (np.sort(np.array(arrivals[name], dtype=np.int64)) - t0) / 1e6
        counts, edges = np.histogram(t, bins=bins)
        ax[1, 0].step(edges[1:], counts, where="pre", label=name)
        gaps = np.diff(t) * 1e3
        median_gap.append(np.median(gaps))
        max_gap.append(gaps.max())
    ax[1, 0].set(title="Records per second, per channel", xlabel="time (s)", ylabel="per second",
                 yscale="log", ylim=(0.5, 5000))
    ax[1, 0].legend(fontsize="small", ncol=4, loc="lower center")
    y = np.arange(len(names))
    ax[1, 1].barh(y - 0.2, median_gap, height=0.4, label="median")
    ax[1, 1].barh(y + 0.2, max_gap, height=0.4, label="largest")
    ax[1, 1].set_yticks(y, names)
    ax[1, 1].invert_yaxis()
    ax[1, 1].set(title="Gaps between records, per channel", xlabel="milliseconds", xscale="log")

    if len(predicted_err):
        ax[2, 0].plot(error_t, unpredicted_err, ".", ms=2, label="unpredicted")
        ax[2, 0].plot(error_t, predicted_err, ".", ms=2, label="predicted")
        edges = np.logspace(np.log10(max(min(predicted_err.min(), unpredicted_err.min()), 1e-5)),
                            np.log10(max(predicted_err.max(), unpredicted_err.max(), 1e-4)), 60)
        for err, name in ((unpredicted_err, "unpredicted"), (predicted_err, "predicted")):
            ax[2, 1].hist(err, bins=edges, histtype="step", label=f"{name}: p95 {np.percentile(err, 95):.3f} deg")
    ax[2, 0].set(title="Attitude error against the later reported pose", xlabel="time (s)", ylabel="degrees",
                 yscale="log")
    ax[2, 1].set(title=f"Attitude error, {len(predicted_err)} predictions", xlabel="degrees", ylabel="count",
                 xscale="log")
    if not len(predicted_err) and note is not None:
        ax[2, 0].text(0.5, 0.5, "No prediction to measure:\nset virtualSyncCtrl = 2 under [Processing]",
                      ha="center", va="center", transform=ax[2, 0].transAxes)
    for axis in ax.flat:
        if axis.get_legend() is None and axis.get_legend_handles_labels()[0]:
            axis.legend(fontsize="small")
        axis.grid(True, alpha=0.3)
    fig.savefig(args.out, dpi=100)

    print(f"{len(times)} poses, {len(arrivals['imu'])} IMU samples, {len(errors)} error codes in "
          f"{seconds[-1]:.1f} s")
    if note is not None:
        print(note)
    if len(predicted_err):
        for err, name in ((predicted_err, "predicted"), (unpredicted_err, "unpredicted")):
            print(f"attitude error  {name:<11} mean {err.mean():.4f} p95 {np.percentile(err, 95):.4f} "
                  f"max {err.max():.4f} deg over {len(err)} predictions")
    for h in HORIZONS_S:
        at = [f for f in fixed if f[1] == h]
        if not at:
            continue
        pose_t = np.array([f[0] for f in at], dtype=np.int64)
        later = truth_at(times, cbns, pose_t + round(h * 1e6))
        as_reported = np.array([truth[t].cbn for t in pose_t])
        err = rotation_angle_deg(np.array([f[2] for f in at]), later)
        raw = rotation_angle_deg(as_reported, later)
        ok = ~np.isnan(err)
        if ok.any():
            print(f"horizon {h * 1e3:4.0f} ms  predicted mean {err[ok].mean():.4f} p95 "
                  f"{np.percentile(err[ok], 95):.4f} max {err[ok].max():.4f} deg, unpredicted p95 "
                  f"{np.percentile(raw[ok], 95):.4f} deg over {ok.sum()} poses")
    print(f"written to {args.out}")


if __name__ == "__main__":
    main()
