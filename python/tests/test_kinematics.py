# RobotKinematics, the safety checks and the regressor from Python: numpy in and out, the
# pure-Python model agreeing with the KDL one, the library's errors with their own messages.
from pathlib import Path

import numpy as np
import pytest

import kestrel
from conftest import HOME

CONFIG = Path(__file__).resolve().parents[2] / "kestrel_sdk" / "src" / "config"
RNG = np.random.default_rng(18)


@pytest.fixture(scope="module")
def model():
    return kestrel.RobotKinematics()


@pytest.fixture(scope="module")
def safety():
    return kestrel.read_safety_config(str(CONFIG / "robot_kinematics.yaml"))


def random_postures(count):
    return RNG.uniform(-1.0, 1.0, size=(count, 6)) * [1.5, 1.0, 1.0, 1.5, 1.0, 1.5]


def test_model_data(model):
    assert model.num_joints() == 6
    lower, upper = model.joint_lower_limits(), model.joint_upper_limits()
    assert lower.shape == upper.shape == (6,) and np.all(lower < upper)
    assert model.joint_has_limits() == [True] * 6
    assert [j.type for j in model.urdf_joints()][:6] == ["revolute"] * 6
    assert len(model.screw_joints()) == 6 and model.screw_axes().shape == (6, 6)
    np.testing.assert_allclose(model.gravity(), [0.0, 0.0, -9.81])
    assert model.home_transform().shape == model.flange_to_tcp().shape == (4, 4)


def test_dynamics_terms_add_up(model):
    q, dq, ddq = random_postures(3)
    total = model.dynamic_compensation_kdl(q, dq, ddq)
    parts = (model.gravity_compensation_kdl(q) + model.coriolis_compensation_kdl(q, dq) +
             model.inertia_compensation_kdl(q, ddq))
    np.testing.assert_allclose(total, parts, atol=1e-9)


def test_regressor_times_parameters_is_the_gravity_torque(model):
    pi = kestrel.standard_inertial_parameters(model)
    assert pi.shape == (60,)
    for q in random_postures(3):
        regressor = kestrel.standard_regressor(q, np.zeros(6), np.zeros(6))
        assert regressor.shape == (6, 60)
        np.testing.assert_allclose(regressor @ pi, model.gravity_compensation_kdl(q), atol=1e-6)


@pytest.mark.parametrize("call, error, message", [
    (lambda m: m.forwardKinematics_kdl([0.0] * 5), RuntimeError,
     "forwardKinematics_kdl: size mismatch between input vector and KDL chain joints"),
    (lambda m: kestrel.standard_regressor([0.0] * 6, [0.0] * 5, [0.0] * 6), ValueError,
     "dq must hold 6 values, got 5"),
    (lambda m: kestrel.check_joint_limit_margins([[0.0] * 6, [0.0] * 4], [-1] * 6, [1] * 6,
                                                 [True] * 6, kestrel.TrajectorySafetyConfig()),
     ValueError, "sample 1 must hold 6 joint positions, got 4"),
    (lambda m: m.forward_kinematics(np.zeros((2, 3))), TypeError,
     "forward_kinematics(): incompatible function arguments"),
])
def test_errors_keep_the_library_messages(model, call, error, message):
    with pytest.raises(error) as raised:
        call(model)
    assert str(raised.value).startswith(message)


def test_inverse_kinematics_round_trips(model):
    for q in random_postures(4) * 0.5 + HOME:
        pose = model.forward_kinematics(q) @ model.flange_to_tcp()
        position, euler = pose[:3, 3], model.rotation_matrix_to_euler(pose[:3, :3])
        kdl = model.forwardKinematics_kdl(q)  # the screw model and KDL agree on the tool pose
        np.testing.assert_allclose(kdl[:3], position, atol=1e-9)
        quaternion = model.rotation_matrix_to_quaternion(pose[:3, :3])
        assert np.linalg.norm(model.quaternion_error(kdl[3:], quaternion)) < 1e-9
        answer, solved, _ = model.solve_ik_kdl(position, euler, HOME)
        assert solved
        np.testing.assert_allclose(model.forwardKinematics_kdl(answer)[:3], position, atol=1e-4)
        jacobian = model.inverse_kinematics_jacobian(position, euler, answer, 1e-4, 1e-3, 200,
                                                     0.05)
        np.testing.assert_allclose(jacobian, answer, atol=1e-3)
    assert model.inverse_kinematics_jacobian(np.array([2.0, 0, 0]), np.zeros(3), np.zeros(6),
                                             1e-6, 1e-6, 100, 0.05) is None


@pytest.mark.parametrize("method", ["automatic", "closed_form", "global_search"])
def test_every_ik_solution_reaches_the_pose_and_the_nearest_is_one_of_them(model, method):
    method = getattr(kestrel.RobotKinematics.IkMethod, method)
    assert model.has_closed_form_ik() and model.closed_form_ik_status() == ""
    q = np.array([0.4, 0.6, -1.1, 0.3, -0.7, 0.5])
    pose = model.forward_kinematics(q) @ model.flange_to_tcp()
    position, euler = pose[:3, 3], model.rotation_matrix_to_euler(pose[:3, :3])
    solutions = model.solve_ik_all(position, euler, HOME, method)
    assert solutions.ndim == 2 and solutions.shape[0] >= 1 and solutions.shape[1] == 6
    for solution in solutions:
        np.testing.assert_allclose(model.forwardKinematics_kdl(solution)[:3], position,
                                   atol=1e-5)
    nearest, solved = model.solve_ik_nearest(position, euler, q, method=method)
    assert solved
    np.testing.assert_allclose(nearest, q, atol=1e-5)
    far = model.solve_ik_all([3.0, 0.0, 0.0], [0.0, 0.0, 0.0], method=method)
    assert far.shape == (0, 6)
    assert model.solve_ik_nearest([3.0, 0.0, 0.0], [0.0, 0.0, 0.0], HOME)[1] is False


def test_rotation_helpers_invert_each_other(model):
    rpy = np.array([0.3, -0.4, 1.1])
    transform = kestrel.t_from_xyzrpy(np.array([0.1, 0.2, 0.3]), rpy)
    np.testing.assert_allclose(model.rotation_matrix_to_euler(transform[:3, :3]), rpy, atol=1e-12)
    np.testing.assert_allclose(transform[:3, 3], [0.1, 0.2, 0.3])
    np.testing.assert_allclose(kestrel.exp_so3(np.array([0, 0, 1.0]), np.pi / 2) @ [1, 0, 0],
                               [0, 1, 0], atol=1e-12)
    translation = kestrel.exp_se3(np.array([0, 0, 0, 1.0, 0, 0]), 0.5)
    np.testing.assert_allclose(translation[:3, 3], [0.5, 0, 0])


def test_joint_limit_margins_warn_then_stop(model, safety):
    lower, upper = model.joint_lower_limits(), model.joint_upper_limits()
    config = safety.trajectory_safety
    postures = np.tile(HOME, (3, 2, 1))  # inside, near the limit, at the limit
    postures[1, 1, 2] = upper[2] - (config.joint_limit_stop_margin_rad + 0.01)
    postures[2, 1, 2] = upper[2]
    verdicts = [kestrel.check_joint_limit_margins(p, lower, upper, [True] * 6, config)
                for p in postures]
    assert [v.level for v in verdicts] == [kestrel.SafetyLevel.ok, kestrel.SafetyLevel.warning,
                                           kestrel.SafetyLevel.stop]
    assert (verdicts[2].code, verdicts[2].sample, verdicts[2].joint) == (
        "joint_limit_margin_stop", 1, 2)
    combined = kestrel.combine_safety_results(verdicts)
    assert combined.code == "joint_limit_margin_stop"
    assert repr(combined) == kestrel.format_safety_result(combined)
    assert repr(combined).startswith("joint_limit_margin_stop: ")


def test_self_collision_and_singularity_checks(model, safety):
    assert safety.self_collision.enabled and len(safety.self_collision.bodies) >= 2
    verdict = kestrel.check_self_collision(model, [HOME], safety.self_collision)
    assert verdict.level == kestrel.SafetyLevel.ok
    no_bodies = kestrel.SelfCollisionConfig()
    no_bodies.enabled = True
    assert kestrel.check_self_collision(model, [HOME], no_bodies).level == kestrel.SafetyLevel.stop
    wrist = list(HOME)
    wrist[4] = safety.singularity_protection.wrist_target_abs_rad
    verdict = kestrel.assess_singularity(model, [HOME, wrist], safety.singularity_protection)
    assert (verdict.level, verdict.code, verdict.sample) == (kestrel.SafetyLevel.stop,
                                                             "singularity_stop", 1)


def test_septic_trajectory_samples_rest_to_rest(model):
    trajectory = kestrel.generate_septuple_trajectory([0.0] * 6, HOME, 1.0, 400.0)
    assert trajectory.positions.shape == (6, 401) and trajectory.times.shape == (401,)
    np.testing.assert_allclose(trajectory.positions[:, -1], HOME, atol=1e-12)
    assert np.abs(trajectory.velocities[:, [0, -1]]).max() < 1e-12
