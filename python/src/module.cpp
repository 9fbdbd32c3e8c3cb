// The compiled part of the `kestrel` Python package (kestrel._kestrel); kestrel/__init__.py
// re-exports everything in it.
#include <pybind11/pybind11.h>

#include "bindings.hpp"

PYBIND11_MODULE(_kestrel, m) {
  m.doc() =
      "Kestrel: drive a six-joint DM-motor arm with a gripper over SocketCAN.\n\n"
      "Joint vectors and matrices come back as numpy arrays; any sequence of numbers is "
      "accepted.\nBad arguments raise ValueError before anything changes; plans that cannot be "
      "made raise RuntimeError.";
  kestrel::python::bind_controller_records(m);
  kestrel::python::bind_arm_controller(m);
  kestrel::python::bind_kinematics(m);
  kestrel::python::bind_safety(m);
}
