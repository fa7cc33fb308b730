"""The real simulator for the tests: orvsim on free ports of 127.0.0.1.

Each simulator gets its own INI file (ports, shared-memory name) in the
test's temporary folder; the library reads the same file, so the two meet.
"""
import itertools
import os
import pathlib
import signal
import socket
import subprocess
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
ORVSIM = os.environ.get("ORVPY_ORVSIM", str(ROOT / "build" / "sim" / "orvsim"))
REFERENCE = os.environ.get("ORVPY_REFERENCE", str(ROOT / "build" / "python" / "tests" / "orvpy_reference"))
EXAMPLES = pathlib.Path(os.environ.get("ORVPY_EXAMPLES", str(ROOT / "examples" / "python")))

PORT_KEYS = ("tcpOrvRxPort", "udpOrvRxPort", "udpOrvRxImgPort", "udpOrvRxInputPort", "udpOrvCorePort",
             "udpOrvHubPort", "udpNftPort")

_next_port = itertools.count()
_next_name = itertools.count()


def _port_is_free(port):
    for kind in (socket.SOCK_DGRAM, socket.SOCK_STREAM):
        with socket.socket(socket.AF_INET, kind) as s:
            try:
                s.bind(("0.0.0.0", port))
            except OSError:
                return False
    return True


def free_port():
    """A port in 20000..32767 free for UDP and TCP now. The library takes no
    port above 32767; the search starts where the process id says, so that
    parallel runs spread out instead of racing for one port."""
    low, span = 20000, 32767 - 20000
    start = (os.getpid() * 97) % span
    for i in range(span):
        port = low + (start + next(_next_port) * 7 + i) % span
        if _port_is_free(port):
            return port
    raise RuntimeError("no free port in 20000..32767")


def write_ini(path, ports, shm_name="", extra=""):
    """An INI file for both ends: the given ports (0 disables), 127.0.0.1,
    room for a few hundred datagrams should a test stall."""
    lines = ["[Communication]", "tcpOrvRxAddr = 127.0.0.1",
             f"tcpOrvRxEnabled = {1 if ports.get('tcpOrvRxPort') else 0}"]
    lines += [f"{key} = {ports.get(key, 0)}" for key in PORT_KEYS]
    lines += [f"{key} = 1048576" for key in ("udpOrvRxRcvBufSize", "udpOrvCoreRcvBufSize",
                                             "udpOrvHubRcvBufSize", "udpNftRcvBufSize")]
    lines.append(f"sMemImgName = {shm_name}")
    pathlib.Path(path).write_text("\n".join(lines) + "\n" + extra)
    return path


class Sim:
    """orvsim started with its own INI file; stop() returns its report."""

    def __init__(self, folder, args=(), ports=None):
        folder = pathlib.Path(folder)
        self.ports = ports or {key: free_port() for key in PORT_KEYS}
        self.shm_name = f"orvpy{os.getpid()}_{next(_next_name)}"
        self.ini = write_ini(folder / "orvaccess.ini", self.ports, self.shm_name)
        self.files = folder / "files"
        self.files.mkdir(exist_ok=True)
        self._out = open(folder / "orvsim.out", "w+")
        self._err = open(folder / "orvsim.err", "w+")
        self.proc = subprocess.Popen([ORVSIM, "--ini", str(self.ini), "--files", str(self.files), *args],
                                     stdout=self._out, stderr=self._err, stdin=subprocess.DEVNULL)
        # orvsim says it serves once every port and the region are open.
        deadline = time.monotonic() + 10
        while "serving" not in pathlib.Path(self._err.name).read_text():
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.kill()
                raise RuntimeError("orvsim did not start: " + pathlib.Path(self._err.name).read_text())
            time.sleep(0.01)

    def stop(self):
        """Stops the simulator the way Ctrl-C does; its printed report."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.release()
        if self._out.closed:  # stopped before
            return self._report
        self._out.seek(0)
        self._report = self._out.read()
        self._out.close()
        self._err.close()
        return self._report

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        self.release()

    def release(self):
        """Removes the simulator's shared-memory region and semaphore, which
        a killed orvsim leaves behind (one that stops unlinks them itself)."""
        for leftover in (f"/dev/shm/{self.shm_name}", f"/dev/shm/sem.{self.shm_name}Sem"):
            try:
                os.unlink(leftover)
            except FileNotFoundError:
                pass


@pytest.fixture
def start_sim(tmp_path):
    """start_sim(*orvsim_args, ports=None) starts a simulator; all are ended with the test."""
    sims = []

    def start(*args, ports=None):
        folder = tmp_path / f"sim{len(sims)}"
        folder.mkdir()
        sims.append(Sim(folder, args, ports))
        return sims[-1]

    yield start
    for sim in sims:
        sim.stop()
