"""The simulated arm, for scripts and tests that have no arm at hand.

The simulator (``kestrel-sim --serve``) serves a userspace CAN bus; a program reaches it through
the SocketCAN interposer, ``libkestrel_simbus_preload.so``, which must be loaded when the Python
process starts. Either start Python under it yourself::

    kestrel sim &                                          # the simulated arm on simcan0
    kestrel-simbus run -- python3 my_script.py simcan0

or let the script do both::

    from kestrel.simulation import SimulatedArm, run_with_interposer

    run_with_interposer()              # re-executes this script under the interposer, once
    with SimulatedArm() as sim, kestrel.ArmController(
            True, sim.interface, False, kestrel.MIT_MODE, False) as arm:
        ...

The programs are looked up in $KESTREL_SIM_PROGRAM / $KESTREL_SIMBUS_PROGRAM, then beside this
package (an installed prefix's ``bin``, or a build tree's ``tools``), then on PATH.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Optional, Sequence

_TOOLS = {
    "kestrel-sim": ("KESTREL_SIM_PROGRAM", "sim"),
    "kestrel-simbus": ("KESTREL_SIMBUS_PROGRAM", "simbus"),
}
_BUS_DIRECTORY_ENV = "KESTREL_SIMBUS_DIR"
_INTERPOSER = "libkestrel_simbus_preload"


def find_program(name: str) -> str:
    """Path of ``kestrel-sim`` or ``kestrel-simbus``; FileNotFoundError when there is none."""
    env, tool_dir = _TOOLS[name]
    if os.environ.get(env):
        return os.environ[env]
    here = Path(__file__).resolve().parent
    candidates = []
    if len(here.parents) > 3:  # <prefix>/lib/python3*/dist-packages/kestrel
        candidates.append(here.parents[3] / "bin" / name)
    candidates.append(here.parents[1] / "tools" / tool_dir / name)  # <build>/python/kestrel
    for candidate in candidates:
        if os.access(candidate, os.X_OK):
            return str(candidate)
    found = shutil.which(name)
    if found:
        return found
    raise FileNotFoundError(f"{name} not found: install Kestrel's tools or set ${env}")


def interposer_loaded() -> bool:
    """True when this process runs with the SocketCAN interposer."""
    try:
        with open("/proc/self/maps", encoding="utf-8") as maps:
            return any(_INTERPOSER in line for line in maps)
    except OSError:
        return False


def run_with_interposer() -> None:
    """Re-executes this Python program under the interposer (``kestrel-simbus run``) unless it
    already runs with it. Call it first thing: nothing before it survives the re-execution."""
    if interposer_loaded():
        return
    simbus = find_program("kestrel-simbus")
    sys.stdout.flush()
    sys.stderr.flush()
    os.execv(simbus, [simbus, "run", "--", sys.executable, *sys.orig_argv[1:]])


class SimulatedArm:
    """``kestrel-sim --serve`` on a private bus directory, for as long as it is open.

    While it runs, $KESTREL_SIMBUS_DIR names its directory, so that this process (with the
    interposer loaded) and its children reach it. ``options`` are more ``kestrel-sim`` options,
    e.g. ``["--start-posture", "0,-0.3,0.2"]``.
    """

    def __init__(self, interface: str = "simcan0", options: Sequence[str] = (),
                 start_timeout: float = 10.0) -> None:
        self.interface = interface
        self.options = list(options)
        self.start_timeout = start_timeout
        self.bus_directory: Optional[str] = None
        self._process: Optional[subprocess.Popen] = None
        self._previous_directory: Optional[str] = None

    @property
    def log(self) -> str:
        """What the simulator has written so far (standard output and error)."""
        if self.bus_directory is None:
            return ""
        path = Path(self.bus_directory) / "sim.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def start(self) -> "SimulatedArm":
        if self._process is not None:
            raise RuntimeError("the simulated arm is already running")
        self.bus_directory = tempfile.mkdtemp(prefix="kestrel-sim-")
        env = dict(os.environ, **{_BUS_DIRECTORY_ENV: self.bus_directory})
        env.pop("LD_PRELOAD", None)  # the simulator serves the bus itself
        with open(Path(self.bus_directory) / "sim.log", "wb") as log:
            self._process = subprocess.Popen(
                [find_program("kestrel-sim"), "--serve", "--interface", self.interface,
                 *self.options], stdout=log, stderr=subprocess.STDOUT, env=env)
        socket = Path(self.bus_directory) / self.interface
        deadline = time.monotonic() + self.start_timeout
        while not socket.exists():
            if self._process.poll() is not None or time.monotonic() > deadline:
                log_text = self.log
                self.stop()
                raise RuntimeError(f"the simulated arm did not start:\n{log_text}")
            time.sleep(0.02)
        self._previous_directory = os.environ.get(_BUS_DIRECTORY_ENV)
        os.environ[_BUS_DIRECTORY_ENV] = self.bus_directory
        return self

    def stop(self) -> int:
        """Ends the simulator; returns its exit status (0 after a clean shutdown)."""
        status = 0
        if self._process is not None:
            if self._process.poll() is None:
                self._process.terminate()
            try:
                status = self._process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self._process.kill()
                status = self._process.wait()
            self._process = None
        if self.bus_directory is not None:
            if os.environ.get(_BUS_DIRECTORY_ENV) == self.bus_directory:
                if self._previous_directory is None:
                    del os.environ[_BUS_DIRECTORY_ENV]
                else:
                    os.environ[_BUS_DIRECTORY_ENV] = self._previous_directory
            shutil.rmtree(self.bus_directory, ignore_errors=True)
            self.bus_directory = None
        return status

    def __enter__(self) -> "SimulatedArm":
        return self.start()

    def __exit__(self, *exc_info: object) -> None:
        self.stop()
