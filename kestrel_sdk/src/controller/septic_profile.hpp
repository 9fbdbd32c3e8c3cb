// The rest-to-rest 7th-order blend: zero velocity, acceleration and jerk at both ends.
// s runs from 0 to 1 over the motion; the derivatives are per unit of s.
#pragma once

namespace kestrel::controller {

inline double septic_position(double s) {
  const double s4 = s * s * s * s;
  return 35.0 * s4 - 84.0 * s4 * s + 70.0 * s4 * s * s - 20.0 * s4 * s * s * s;
}

inline double septic_velocity(double s) {
  const double s3 = s * s * s;
  return 140.0 * s3 - 420.0 * s3 * s + 420.0 * s3 * s * s - 140.0 * s3 * s * s * s;
}

inline double septic_acceleration(double s) {
  const double s2 = s * s;
  return 420.0 * s2 - 1680.0 * s2 * s + 2100.0 * s2 * s * s - 840.0 * s2 * s * s * s;
}

}  // namespace kestrel::controller
