"""The Python examples run against the simulator as a user runs them."""
import os
import subprocess
import sys

import numpy as np
import orvaccess
from conftest import EXAMPLES


def run(example, *args):
    out = subprocess.run([sys.executable, str(EXAMPLES / example), *args], capture_output=True, text=True,
                         timeout=60, env=dict(os.environ, MPLBACKEND="Agg"))
    assert out.returncode == 0, out.stderr
    return out.stdout


def test_examples_run_against_the_simulator(start_sim, tmp_path):
    sim = start_sim()
    # Poses predicted to the display time, as the library's own example does.
    with open(sim.ini, "a") as f:
        f.write("[Processing]\nvirtualSyncCtrl = 2\n")

    # Until five poses came, however long a busy machine takes: error lines
    # may come between them.
    lines = run("poses.py", "--ini", str(sim.ini), "--duration", "50", "--rate", "20", "--count", "5").splitlines()
    assert lines[0].split()[0] == "tag"
    poses = [line.split() for line in lines[1:] if not line.lstrip().startswith("error")]
    assert len(poses) == 5
    tag, pose_time, *angles = poses[0]
    assert int(tag) > 0 and len(angles) == 6

    # Until 30 frames had a new pose: about a third of a second.
    lines = run("render_loop.py", "--ini", str(sim.ini), "--duration", "50", "--poses", "30").splitlines()
    words = lines[-1].split()  # "N frames, M with a new pose, K stale"
    frames, new, stale = int(words[0]), int(words[2]), int(words[7])
    assert 30 <= new <= frames and stale <= frames

    out = run("record_imu.py", "--ini", str(sim.ini), "--duration", "0.5", "--out", str(tmp_path / "imu.npz"))
    imu = np.load(tmp_path / "imu.npz")["imu"]
    assert imu.dtype.names == orvaccess.ImuData.fields and len(imu) >= 2
    assert np.all(np.diff(imu["time"].astype(np.int64)) > 0)
    assert f"{len(imu)} samples" in out

    out = run("plot_run.py", "--ini", str(sim.ini), "--duration", "1.5", "--out", str(tmp_path / "run.png"))
    png = (tmp_path / "run.png").read_bytes()
    assert png.startswith(b"\x89PNG") and len(png) > 50_000
    # The library's prediction beats showing the pose as reported.
    predicted, unpredicted = (float(line.split()[4]) for line in out.splitlines()
                              if line.startswith("attitude error"))
    assert predicted < unpredicted / 5
    # And at each fixed horizon.
    assert [line.split()[1] for line in out.splitlines() if line.startswith("horizon")] == ["0", "10", "20", "40"]


def test_plot_run_says_when_the_file_has_the_prediction_off(start_sim, tmp_path):
    # The simulator's own file has no [Processing]: the library hands out poses as reported.
    sim = start_sim()
    out = run("plot_run.py", "--ini", str(sim.ini), "--duration", "1.5", "--out", str(tmp_path / "run.png"))
    assert (tmp_path / "run.png").read_bytes().startswith(b"\x89PNG")
    assert not [line for line in out.splitlines() if line.startswith("attitude error")], out
    assert (f"the prediction is off in {sim.ini}: with virtualSyncCtrl 0 and predictionS 0 every pose is handed "
            "out as reported" in out), out
    assert "set virtualSyncCtrl = 2 under [Processing] to predict to the display time" in out, out
