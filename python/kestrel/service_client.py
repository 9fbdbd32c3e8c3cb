"""A client of the arm service (``kestrel serve``): the arm stays held by the service, and this
client drives it through the service's socket, one JSON request per line (docs/service.md).

    from kestrel import ServiceClient

    with ServiceClient(interface="simcan0") as arm:   # or ServiceClient("/path/to/socket")
        arm.acquire()                                  # control: one client at a time
        arm.move_joint_waypoints([[0.0, 0.4, -0.9, 0.0, -0.6, 0.0]], time_sec=2.0)
        print(arm.state()["joints"])
        for state in arm.subscribe(rate_hz=50):        # streamed state, until you break
            ...

Only the standard library is used, so scripts on any Python 3 can talk to the service. The
library's bad-argument errors arrive as ValueError; every other error the service answers with
is a ServiceError carrying its type ("runtime_error", "no_control", "bad_request", ...).
"""

from __future__ import annotations

import json
import os
import socket
from typing import Any, Dict, Iterator, List, Optional, Sequence, Tuple

__all__ = ["ServiceClient", "ServiceError", "service_directory", "find_service"]


class ServiceError(RuntimeError):
    """An error the service answered with: ``type`` and the message."""

    def __init__(self, error_type: str, message: str):
        super().__init__(message)
        self.type = error_type


def service_directory() -> str:
    """$KESTREL_SERVICE_DIR, else $XDG_RUNTIME_DIR/kestrel, else /tmp/kestrel-<uid>."""
    own = os.environ.get("KESTREL_SERVICE_DIR")
    if own:
        return own
    runtime = os.environ.get("XDG_RUNTIME_DIR")
    if runtime:
        return os.path.join(runtime, "kestrel")
    return f"/tmp/kestrel-{os.getuid()}"


def find_service(interface: str) -> str:
    """The socket of the service running for ``interface`` (its registry file names it)."""
    registry = os.path.join(service_directory(), interface + ".lock")
    try:
        with open(registry, encoding="utf-8") as file:
            path = file.readline().strip()
    except FileNotFoundError:
        path = ""
    return path or os.path.join(service_directory(), interface + ".sock")


def _floats(values: Sequence[float]) -> List[float]:
    return [float(v) for v in values]


def _rows(rows: Sequence[Sequence[float]]) -> List[List[float]]:
    return [_floats(row) for row in rows]


class ServiceClient:
    """One connection to the arm service. Not shared between threads: open one per thread
    (a second connection is also how another thread sends ``stop`` while a motion waits)."""

    def __init__(self, socket_path: Optional[str] = None, *, interface: Optional[str] = None,
                 timeout: Optional[float] = None):
        if (socket_path is None) == (interface is None):
            raise ValueError("give the service's socket path or its interface, not both")
        self.socket_path = socket_path if socket_path is not None else find_service(interface)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(timeout)
        try:
            self._socket.connect(self.socket_path)
        except OSError as error:
            self._socket.close()
            raise ConnectionError(
                f"cannot connect to the arm service at {self.socket_path}: {error.strerror}"
            ) from None
        self._reader = self._socket.makefile("r", encoding="utf-8", newline="\n")
        self._next_id = 1
        self._states: List[Dict[str, Any]] = []

    # ---- connection -----------------------------------------------------------------------
    def close(self) -> None:
        """Disconnects; a motion this client was running ends and the arm holds."""
        self._reader.close()
        self._socket.close()

    def __enter__(self) -> "ServiceClient":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def _read(self) -> Dict[str, Any]:
        line = self._reader.readline()
        if not line:
            raise ConnectionError("the arm service closed the connection")
        return json.loads(line)

    def call(self, op: str, **fields: Any) -> Any:
        """Sends one request and returns its result (streamed states met meanwhile are kept
        for subscribe())."""
        request_id = self._next_id
        self._next_id += 1
        fields.update(op=op, id=request_id)
        self._socket.sendall((json.dumps(fields) + "\n").encode("utf-8"))
        while True:
            message = self._read()
            if "event" in message:
                self._states.append(message["state"])
                continue
            if message.get("id") != request_id:
                continue
            if message.get("ok"):
                return message["result"]
            error = message.get("error", {})
            if error.get("type") == "invalid_argument":
                raise ValueError(error.get("message", ""))
            raise ServiceError(error.get("type", "runtime_error"), error.get("message", ""))

    # ---- control and state ------------------------------------------------------------------
    def ping(self) -> Dict[str, Any]:
        return self.call("ping")

    def acquire(self) -> int:
        """Takes control (this client's number); ServiceError "no_control" while another
        client holds it."""
        return self.call("acquire")["client"]

    def release(self) -> None:
        self.call("release")

    def stop(self) -> None:
        """Ends whatever the arm does and holds; accepted from every client."""
        self.call("stop")

    def state(self) -> Dict[str, Any]:
        return self.call("state")

    def subscribe(self, rate_hz: float = 50.0) -> Iterator[Dict[str, Any]]:
        """Streams the state at ``rate_hz`` (up to 800); stops when the iteration ends."""
        self.call("subscribe", rate_hz=float(rate_hz))
        try:
            while True:
                while self._states:
                    yield self._states.pop(0)
                message = self._read()
                if "event" in message:
                    self._states.append(message["state"])
        finally:
            self.unsubscribe()

    def unsubscribe(self) -> None:
        self.call("unsubscribe")
        self._states.clear()

    # ---- direct commands --------------------------------------------------------------------
    def set_joint(self, q: Sequence[float], time_sec: float) -> None:
        self.call("set_joint", q=_floats(q), time_sec=float(time_sec))

    def set_joint_raw(self, q: Sequence[float], v: Sequence[float]) -> None:
        self.call("set_joint_raw", q=_floats(q), v=_floats(v))

    def open_gripper(self) -> None:
        self.call("open_gripper")

    def close_gripper(self) -> None:
        self.call("close_gripper")

    def set_gripper_position(self, position: float) -> None:
        self.call("set_gripper_position", position=float(position))

    def set_gripper_distance(self, distance: float, kp: Optional[float] = None,
                             kd: Optional[float] = None) -> None:
        gains = {k: float(v) for k, v in (("kp", kp), ("kd", kd)) if v is not None}
        self.call("set_gripper_distance", distance=float(distance), **gains)

    def set_end_effector_pose(self, pos: Sequence[float], euler: Sequence[float],
                              time_sec: float) -> None:
        self.call("set_end_effector_pose", pos=_floats(pos), euler=_floats(euler),
                  time_sec=float(time_sec))

    def set_end_effector_pose_raw(self, pos: Sequence[float], euler: Sequence[float]) -> None:
        self.call("set_end_effector_pose_raw", pos=_floats(pos), euler=_floats(euler))

    def solve_ik(self, pos: Sequence[float], euler: Sequence[float],
                 q_seed: Sequence[float] = ()) -> Tuple[List[float], bool]:
        result = self.call("solve_ik", pos=_floats(pos), euler=_floats(euler),
                           q_seed=_floats(q_seed))
        return result["q"], result["success"]

    def solve_ik_nearest(self, pos: Sequence[float], euler: Sequence[float],
                         q_seed: Sequence[float] = ()) -> Tuple[List[float], bool]:
        """Every solution inside the joint limits considered, the nearest q_seed returned."""
        result = self.call("solve_ik_nearest", pos=_floats(pos), euler=_floats(euler),
                           q_seed=_floats(q_seed))
        return result["q"], result["success"]

    def gravity_compensation(self, on: bool = True) -> None:
        """Floats the arm (on) or holds it where it was left (off)."""
        self.call("gravity_compensation", on=bool(on))

    # ---- motions: each returns its planned duration, seconds ---------------------------------
    def move_joint_waypoints(self, waypoints: Sequence[Sequence[float]], time_sec: float = 0.0,
                             speed_percent: float = 0.0,
                             gripper_positions: Optional[Sequence[float]] = None) -> float:
        return self._motion("move_joint_waypoints", waypoints=_rows(waypoints),
                            time_sec=time_sec, speed_percent=speed_percent,
                            gripper_positions=gripper_positions)

    def update_joint_waypoint_chunk(self, waypoints: Sequence[Sequence[float]],
                                    time_sec: float = 0.0, speed_percent: float = 0.0,
                                    switch_delay_sec: float = 0.0,
                                    gripper_positions: Optional[Sequence[float]] = None) -> float:
        return self._motion("update_joint_waypoint_chunk", waypoints=_rows(waypoints),
                            time_sec=time_sec, speed_percent=speed_percent,
                            switch_delay_sec=float(switch_delay_sec),
                            gripper_positions=gripper_positions)

    def move_pose_waypoints(self, poses: Sequence[Sequence[float]], time_sec: float = 0.0,
                            speed_percent: float = 0.0, linear: bool = True,
                            blend_radius_m: float = 0.002) -> float:
        return self._motion("move_pose_waypoints", poses=_rows(poses), time_sec=time_sec,
                            speed_percent=speed_percent, linear=bool(linear),
                            blend_radius_m=float(blend_radius_m))

    def move_l(self, poses: Sequence[Sequence[float]], time_sec: float = 0.0,
               speed_percent: float = 0.0, blend_radius_m: float = 0.002) -> float:
        return self._motion("move_l", poses=_rows(poses), time_sec=time_sec,
                            speed_percent=speed_percent, blend_radius_m=float(blend_radius_m))

    def move_p(self, poses: Sequence[Sequence[float]], time_sec: float = 0.0,
               speed_percent: float = 0.0,
               gripper_positions: Optional[Sequence[float]] = None) -> float:
        return self._motion("move_p", poses=_rows(poses), time_sec=time_sec,
                            speed_percent=speed_percent, gripper_positions=gripper_positions)

    def run_program(self, file: Optional[str] = None, text: Optional[str] = None) -> float:
        """A motion program (docs/motion-programs.md) by a path the service can read, or as
        its YAML text."""
        fields = {"file": file} if file is not None else {"text": text}
        return self.call("run_program", **fields)["planned_sec"]

    def _motion(self, op: str, *, time_sec: float, speed_percent: float,
                gripper_positions: Optional[Sequence[float]], **fields: Any) -> float:
        if gripper_positions is not None:
            fields["gripper_positions"] = _floats(gripper_positions)
        return self.call(op, time_sec=float(time_sec), speed_percent=float(speed_percent),
                         **fields)["planned_sec"]
