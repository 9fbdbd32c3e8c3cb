# ArmController from Python against the simulated arm: every operation, numpy in and out, the
# library's exceptions as ValueError / RuntimeError with their own messages.
import math

import numpy as np
import pytest

import kestrel
from conftest import HOME, wait_until

DOWN = math.pi


@pytest.mark.parametrize("call, message", [
    (lambda a: a.set_joint([0.0] * 5, 1.0), "q_end size mismatch"),
    (lambda a: a.solve_ik([0.3, 0.0], [DOWN, 0, 0]),
     "target_pos and target_euler must both have exactly 3 elements."),
])
def test_bad_arguments_raise_value_error_with_the_library_message(arm, call, message):
    with pytest.raises(ValueError) as raised:
        call(arm)
    assert str(raised.value) == message


def test_unreachable_line_raises_runtime_error_before_moving(at_home):
    before = at_home.get_joint()
    with pytest.raises(RuntimeError, match=r"^\[move_l\]"):
        at_home.move_l([[1.5, 0.0, 0.2, DOWN, 0.0, 0.0]])
    assert np.abs(at_home.get_joint() - before).max() < 0.005


def test_state_queries_are_numpy_arrays(arm):
    for values, size in [(arm.get_joint(), 6), (arm.get_joint_velocities(), 6),
                         (arm.get_joint_torques(), 6), (arm.get_end_effector_pose(), 7)]:
        assert isinstance(values, np.ndarray) and values.dtype == np.float64
        assert values.shape == (size,)
    assert 0.0 <= arm.get_gripper_position() <= 1.0
    assert 0.0 <= arm.get_gripper_distance() <= 0.085
    assert arm.running() and not arm.emergency_stopped()


@pytest.mark.parametrize("convert", [list, tuple, np.array], ids=["list", "tuple", "numpy"])
def test_joint_waypoints_reach_their_target_from_any_sequence(at_home, convert):
    target = [0.2, 0.5, -1.0, 0.1, -0.5, 0.2]
    duration = at_home.move_joint_waypoints(convert([convert(target)]), time_sec=1.0,
                                            speed_percent=0.0)
    assert duration == pytest.approx(1.0, abs=0.01)
    np.testing.assert_allclose(at_home.get_joint(), target, atol=0.02)
    samples = at_home.get_last_waypoint_command_samples()
    assert samples.shape[1] == 13 and samples.shape[0] >= 400
    np.testing.assert_allclose(samples[-1, :6], target, atol=1e-6)


def test_set_joint_returns_at_once_and_the_loop_carries_it_out(at_home):
    at_home.set_joint([0.1, 0.45, -0.95, 0.0, -0.6, 0.1], time=0.5)
    assert wait_until(lambda: at_home.get_control_cycle_sample().command_kind == 2)
    at_home.move_joint_waypoints([HOME], 0.0, 0.8)  # waits for the arm
    np.testing.assert_allclose(at_home.get_joint(), HOME, atol=0.02)


def test_plan_has_one_row_per_control_period_and_ends_at_the_waypoint(at_home):
    plan = at_home.plan_joint_waypoints_with_gripper(
        q_start=HOME, waypoints=[[0.3, 0.5, -1.0, 0.0, -0.6, 0.0]], gripper_positions=[0.5],
        time_sec=2.0, speed_percent=0.0)
    for rows in (plan.positions, plan.velocities, plan.accelerations):
        assert rows.shape == (801, 6)
    assert plan.gripper.shape == (801,)
    np.testing.assert_allclose(plan.positions[0], HOME, atol=1e-9)
    np.testing.assert_allclose(plan.positions[-1], [0.3, 0.5, -1.0, 0.0, -0.6, 0.0], atol=1e-9)
    assert np.abs(plan.velocities[-1]).max() < 1e-9


def test_chunk_updates_return_their_duration_without_waiting(at_home):
    durations = []
    for k in range(3):
        target = [0.1 * (k + 1), 0.4, -0.9, 0.0, -0.6, 0.0]
        durations.append(at_home.update_joint_waypoint_chunk(
            [target], time_sec=1.0, speed_percent=0.0, switch_delay_sec=0.05))
    assert durations == pytest.approx([1.0] * 3, abs=0.01)
    assert wait_until(lambda: at_home.get_control_cycle_sample().command_kind == 3)
    at_home.update_joint_waypoint_chunk_with_gripper([HOME], [1.0], time_sec=1.0,
                                                     speed_percent=0.0, switch_delay_sec=0.0)
    at_home.move_joint_waypoints([HOME], 0.5, 0.0)
    np.testing.assert_allclose(at_home.get_joint(), HOME, atol=0.02)


def test_ik_answers_reach_the_pose_and_cartesian_motions_arrive(at_home):
    pose = [0.30, 0.0, 0.20, DOWN, 0.0, 0.0]
    q, solved = at_home.solve_ik(pose[:3], pose[3:], q_seed=HOME)
    assert solved and q.shape == (6,)
    nearest, solved = at_home.solve_ik_nearest(pose[:3], pose[3:], q_seed=q)
    assert solved
    np.testing.assert_allclose(nearest, q, atol=1e-3)
    at_home.move_p([pose], time_sec=1.5)
    np.testing.assert_allclose(at_home.get_end_effector_pose()[:3], pose[:3], atol=0.005)
    at_home.move_l([[0.36, 0.0, 0.20, DOWN, 0.0, 0.0]], speed_percent=0.8)
    at_home.move_pose_waypoints([pose], 1.0, 0.0, linear=False)
    at_home.move_p_with_gripper([[0.36, 0.0, 0.20, DOWN, 0.0, 0.0]], [0.2], time_sec=1.0)
    np.testing.assert_allclose(at_home.get_end_effector_pose()[:3], [0.36, 0.0, 0.20], atol=0.005)
    at_home.set_end_effector_pose(pose[:3], pose[3:], time=0.6)
    at_home.move_joint_waypoints([at_home.solve_ik(pose[:3], pose[3:])[0]], 1.0, 0.0)
    np.testing.assert_allclose(at_home.get_end_effector_pose()[:3], pose[:3], atol=0.005)


def test_motion_program_runs_its_items_in_order(at_home):
    Item = kestrel.ArmController.MotionProgramItem
    program = [Item(type="movej", waypoints=[[0.2, 0.4, -0.9, 0.0, -0.6, 0.0]], time_sec=0.8),
               Item(type="sleep", sleep_sec=0.2),
               Item(type="movej", waypoints=[HOME], time_sec=0.8)]
    assert program[0].waypoints.shape == (1, 6)
    assert at_home.run_motion_program(program) == pytest.approx(1.6, abs=0.02)
    np.testing.assert_allclose(at_home.get_joint(), HOME, atol=0.02)


@pytest.mark.parametrize("command, opening", [
    (lambda a: a.openGripper(), 0.085),
    (lambda a: a.setGripperPosition(0.5), 0.0425),
    (lambda a: a.setGripperDistance(0.02), 0.02),
    (lambda a: a.setGripperDistance(distance=0.03, kp=5.0, kd=0.5), 0.03),
    (lambda a: a.setGripperPosition_raw(1.5), 0.085),  # clamped
    (lambda a: a.closeGripper(), 0.0),
])
def test_gripper_commands_set_the_commanded_opening(arm, command, opening):
    command(arm)
    assert wait_until(
        lambda: abs(arm.get_control_cycle_sample().commanded_gripper_m - opening) < 1e-3)


def test_control_cycle_samples_and_loop_statistics(arm):
    first = arm.get_control_cycle_sample()
    assert first.commanded_position.shape == (6,) and first.measured_torque.shape == (6,)
    arm.reset_control_loop_statistics()
    arm.set_joint_raw(arm.get_joint(), [0.0] * 6)  # a raw target: held where it is
    arm.move_joint_waypoints([HOME], 0.3, 0.0)
    later = arm.get_control_cycle_sample()
    assert later.cycle > first.cycle and later.time_sec > first.time_sec
    stats = arm.control_loop_statistics()
    assert stats.cycles >= 100
    assert 0 < stats.compute_median_us <= stats.compute_p99_us <= stats.compute_max_us
    assert stats.send_failures.total() == 0
    histograms = arm.control_loop_histograms()
    assert histograms.compute.dtype == np.uint64
    assert histograms.compute.sum() == histograms.cycles >= stats.cycles


def test_gravity_compensation_floats_until_stopped(at_home):
    for start in (at_home.identify_gravity_compensation,
                  at_home.identify_gravity_compensation_kdl):
        start()
        assert wait_until(lambda: at_home.get_control_cycle_sample().command_kind in (4, 5))
        at_home.stop()
    at_home.move_joint_waypoints([HOME], 0.5, 0.0)
    assert at_home.running() and not at_home.emergency_stopped()
