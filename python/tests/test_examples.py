# Every Python example, run as its comment says, beside a simulated arm of its own; each must end
# with status 0 and print what it promises.
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"
JOINT_MOVES = r"moved in [0-9.]+ s; joints now 0\.(49|50)\d 0\.(49|50)\d -(0\.99|1\.00)"


@pytest.mark.parametrize("name, expected", [
    ("cartesian_line.py", [r"line in [0-9.]+ s; tool at x 0\.40\d y [-]?0\.00\d z 0\.20\d m",
                           r"refused: \[move_l\]"]),
    ("streaming_chunks.py", [r"chunk 10: 0\.60 s", r"joint 1 ends at [+-]0\.0\d+ rad"]),
    ("record_and_plot.py", [r"recorded [0-9]{3,4} cycles over 3\.\d\d s; largest tracking error "
                            r"[0-9.]+ mrad"]),
])
def test_example_runs_beside_the_simulated_arm(private_sim, tmp_path, name, expected):
    arguments = [private_sim.interface]
    if name == "record_and_plot.py":
        arguments.append(str(tmp_path / "motion.png"))
    run = subprocess.run([sys.executable, str(EXAMPLES / name), *arguments], cwd=tmp_path,
                         capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr
    for pattern in expected:
        assert re.search(pattern, run.stdout), run.stdout
    if name == "record_and_plot.py":
        assert (tmp_path / "motion.png").stat().st_size > 10_000


def test_example_starts_its_own_simulated_arm_without_the_interposer(tmp_path):
    # joint_moves.py --sim from a plain interpreter: re-executed under the interposer, its own
    # simulated arm started (the other examples run beside one the test starts).
    env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "KESTREL_SIMBUS_DIR")}
    run = subprocess.run([sys.executable, str(EXAMPLES / "joint_moves.py"), "--sim"], env=env,
                         cwd=tmp_path, capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr
    assert re.search(JOINT_MOVES, run.stdout), run.stdout
