# ServiceClient against a real `kestrel serve` beside the simulated arm, both started by the
# tool in a private bus and service folder.
import itertools
import os
import shutil
import subprocess
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import kestrel
from conftest import HOME, wait_until
from kestrel.service_client import ServiceClient, ServiceError

INTERFACE = "pysvccan0"
AWAY = [0.3, 0.8, -1.2, 0.2, -0.5, 0.1]


def kestrel_program():
    # $KESTREL_CLI_PROGRAM, else the tool beside $KESTREL_SIM_PROGRAM, else PATH.
    sim = os.environ.get("KESTREL_SIM_PROGRAM")
    beside = Path(sim).parent.parent / "cli/kestrel" if sim else None
    return os.environ.get("KESTREL_CLI_PROGRAM") or (
        str(beside) if beside and beside.is_file() else shutil.which("kestrel"))


@pytest.fixture(scope="module")
def service():
    # The socket of a running service; the simulated arm and the service end with the module.
    program = kestrel_program()
    if program is None:
        pytest.skip("the kestrel tool is not built (set KESTREL_CLI_PROGRAM)")
    folder = tempfile.mkdtemp(prefix="kestrel-pyservice-")
    env = dict(os.environ, KESTREL_SIMBUS_DIR=folder, KESTREL_SERVICE_DIR=folder + "/service")
    env.pop("LD_PRELOAD", None)  # the tool carries its own interposer
    log = open(os.path.join(folder, "log"), "w")
    processes = [subprocess.Popen([program, "sim", "--serve", "--interface", INTERFACE], env=env,
                                  stdout=log, stderr=log)]
    assert wait_until(lambda: any(Path(folder).glob(INTERFACE + "*")), 5)
    processes.insert(0, subprocess.Popen([program, "serve", "--interface", INTERFACE], env=env,
                                         stdout=log, stderr=log))
    socket_path = folder + "/service/" + INTERFACE + ".sock"
    assert wait_until(lambda: os.path.exists(socket_path), 10), open(log.name).read()
    with pytest.MonkeyPatch.context() as patch:
        patch.setenv("KESTREL_SERVICE_DIR", env["KESTREL_SERVICE_DIR"])
        yield socket_path
    for process in processes:  # the service, then the arm
        process.terminate()
        assert process.wait(10) == 0, open(log.name).read()
    log.close()
    shutil.rmtree(folder)


def test_a_motion_by_interface_name_ends_held_at_its_target(service):
    with ServiceClient(interface=INTERFACE) as arm:
        assert arm.socket_path == service
        arm.acquire()
        assert arm.move_joint_waypoints([HOME], time_sec=1.5) == pytest.approx(1.5, abs=0.01)
        first = arm.state()["joints"]
        time.sleep(0.5)
        held = arm.state()["joints"]
        assert max(abs(a - b) for a, b in zip(first, HOME)) < 0.01
        assert max(abs(a - b) for a, b in zip(first, held)) < 0.003
        model = kestrel.RobotKinematics()
        tool = model.forward_kinematics(HOME) @ model.flange_to_tcp()
        for solve in (arm.solve_ik, arm.solve_ik_nearest):
            q, success = solve(tool[:3, 3].tolist(),
                               model.rotation_matrix_to_euler(tool[:3, :3]).tolist())
            assert success and max(abs(a - b) for a, b in zip(q, HOME)) < 0.01, solve.__name__


@pytest.mark.parametrize("call, error, message", [
    (lambda arm: arm.set_joint([0.0] * 5, 1.0), ValueError, "q_end size mismatch"),
    (lambda arm: arm.call("fly"), ServiceError, 'unknown operation "fly"'),
    (lambda arm: arm.run_program(text="- movej: [[0, 0]]"), ServiceError, "program: "),
])
def test_errors_arrive_as_the_librarys_types_with_its_messages(service, call, error, message):
    with ServiceClient(service) as arm:
        arm.acquire()
        with pytest.raises(error, match=message.replace("(", r"\(")):
            call(arm)


def test_control_is_one_clients_and_stop_comes_from_anyone(service):
    with ServiceClient(service) as holder, ServiceClient(service) as watcher:
        number = holder.acquire()
        with pytest.raises(ServiceError) as refused:
            watcher.acquire()
        assert refused.value.type == "no_control"
        assert str(refused.value).startswith(f"control is held by client {number} ")
        with ThreadPoolExecutor(1) as pool:
            motion = pool.submit(holder.move_joint_waypoints, [AWAY], time_sec=3.0)
            time.sleep(0.8)
            watcher.stop()
            with pytest.raises(ServiceError, match="^motion stopped$"):
                motion.result(3)


def test_subscribe_streams_the_state_at_the_chosen_rate(service):
    with ServiceClient(service) as watcher:
        start = time.monotonic()
        states = list(itertools.islice(watcher.subscribe(rate_hz=100), 30))
        assert time.monotonic() - start == pytest.approx(0.3, abs=0.12)
        assert all(len(s["joints"]) == 6 and len(s["tool_pose"]) == 7 for s in states)
        cycles = [s["cycle"]["cycle"] for s in states]
        assert cycles == sorted(cycles) and cycles[-1] > cycles[0]
        assert watcher.ping()["protocol"] == 1  # the connection serves on after the stream
