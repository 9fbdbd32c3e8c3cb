"""Kestrel: drive a six-joint DM-motor arm with a gripper over SocketCAN, from Python.

    import kestrel
    with kestrel.ArmController(enable_gripper=True, can_interface="can0", use_canfd=False,
                               control_mode=kestrel.MIT_MODE, skip_hardware_init=False) as arm:
        arm.move_joint_waypoints([[0.0, 0.4, -0.9, 0.0, -0.6, 0.0]], time_sec=2.0,
                                 speed_percent=0.0)
        print(arm.get_joint())

No arm at hand? ``kestrel.simulation`` runs the same program against the simulated arm.
"""

from ._kestrel import *  # noqa: F401,F403  (the compiled library)
from ._kestrel import __doc__ as _library_doc  # noqa: F401

try:
    from .service_client import ServiceClient  # noqa: F401
except ModuleNotFoundError as error:
    # The arm service's client is optional; anything else wrong inside it must surface.
    if error.name != f"{__name__}.service_client":
        raise
