// The parts of the `kestrel` extension module, one per area of the library; module.cpp calls
// them in the order that lets later parts name the types of earlier ones in signatures.
#pragma once

#include <pybind11/pybind11.h>

class ArmController;

namespace kestrel::python {

void bind_controller_records(pybind11::module_& m);  // samples, statistics, plans, program items
void bind_arm_controller(pybind11::module_& m);
// ArmController's nested types (planned trajectory, motion-program item).
void bind_arm_controller_records(pybind11::class_<ArmController>& arm);
void bind_kinematics(pybind11::module_& m);
void bind_safety(pybind11::module_& m);  // safety checks and their configuration, regressor

}  // namespace kestrel::python
