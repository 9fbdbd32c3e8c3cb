// Motion-program files: what a well-formed file becomes, and the exact message (file, line, step)
// for each kind of mistake, all before any arm is involved.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <tuple>

#include "program_file.hpp"

namespace {

using kestrel::cli::parse_program;
using kestrel::cli::ProgramStep;

// The message a program is refused with, "no error" when none.
std::string error_of(const std::function<void()>& load) {
  try {
    load();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

std::string error_of(const std::string& text) {
  return error_of([&] { parse_program(text, "p.yaml"); });
}

TEST(ProgramFile, StepsBecomeProgramItemsWithTheirUnits) {
  const auto program = parse_program(R"(
angle_unit: deg
steps:
  - movej: {to: [0, 90, -45, 0, 0, 180], time_sec: 2}
  - movej: {waypoints: [[0, 0, 0, 0, 0, 0], [10, 0, 0, 0, 0, 0]], speed_percent: 0.5}
  - movel: {to: [0.3, 0.1, 0.2, 180, 0, 90], blend_radius_m: 0.01}
  - movep: {poses: [[0.3, 0.1, 0.2, 180, 0, 0]]}
  - sleep: 0.25
  - gripper: open
  - gripper: close
  - gripper: 0.4
)",
                                     "p.yaml");
  ASSERT_EQ(program.steps.size(), 8u);
  const auto& movej = program.steps[0].motion;
  EXPECT_EQ(movej.type, "movej");
  EXPECT_NEAR(movej.waypoints[0][1], M_PI / 2, 1e-12);
  EXPECT_EQ(movej.time_sec, 2.0);
  EXPECT_EQ(program.steps[0].line, 4);
  EXPECT_EQ(program.steps[1].motion.waypoints.size(), 2u);
  EXPECT_EQ(program.steps[1].motion.speed_percent, 0.5);
  // Poses: metres stay metres, only the three angles are converted.
  const auto& movel = program.steps[2].motion;
  EXPECT_EQ(movel.poses[0][0], 0.3);
  EXPECT_NEAR(movel.poses[0][3], M_PI, 1e-12);
  EXPECT_EQ(movel.blend_radius_m, 0.01);
  EXPECT_EQ(program.steps[3].motion.type, "movep");
  EXPECT_EQ(program.steps[3].motion.blend_radius_m, 0.0);
  EXPECT_EQ(program.steps[4].motion.type, "sleep");
  EXPECT_EQ(program.steps[4].motion.sleep_sec, 0.25);
  EXPECT_EQ(program.steps[5].kind, ProgramStep::Kind::gripper);
  EXPECT_EQ(program.steps[5].gripper_position, 1.0);
  EXPECT_EQ(program.steps[6].gripper_position, 0.0);
  EXPECT_EQ(program.steps[7].gripper_position, 0.4);
}

TEST(ProgramFile, MistakesNameTheFileLineAndStep) {
  const std::string head = "steps:\n  - sleep: 1\n";
  const std::string p3 = "p.yaml:3: step 2: ";
  // {program text, the exact message}
  const std::tuple<std::string, std::string> rows[] = {
      {head + "  - jump: {to: [0, 0, 0, 0, 0, 0]}\n",
       p3 + "unknown step \"jump\" (expected movej, movel, movep, sleep or gripper)"},
      {head + "  - movej: {to: [0, 0, 0]}\n", p3 + "to must be a list of 6 numbers"},
      {head + "  - movej: {to: [0, 0, x, 0, 0, 0]}\n",
       p3 + "to value 3 must be a number, not \"x\""},
      {head + "  - movej: {to: [0, 0, .nan, 0, 0, 0]}\n", p3 + "to value 3 must be finite"},
      {head + "  - movej: {to: [0, 0, 0, 0, 0, 0], time_sec: 1, speed_percent: 0.5}\n",
       p3 + "give time_sec or speed_percent, not both"},
      {head + "  - movel: {to: [0.3, 0, 0.2, 3.1, 0, 0], speed_percent: 1.5}\n",
       p3 + "speed_percent must be in (0, 1] (a fraction of the speed limits)"},
      {head + "  - movej: {to: [0, 0, 0, 0, 0, 0], time_sec: 0}\n",
       p3 + "time_sec must be positive"},
      {head + "  - movej: {to: [0, 0, 0, 0, 0, 0], blend_radius_m: 0.1}\n",
       p3 + "unknown key \"blend_radius_m\" (expected to, waypoints, time_sec, speed_percent)"},
      {head + "  - movep: {to: [0.3, 0, 0.2, 3, 0, 0], poses: []}\n",
       p3 + "give either to: (one target) or poses: (a list of targets)"},
      {head + "  - gripper: 2\n", p3 + "gripper must be open, close or a fraction in [0, 1]"},
      {head + "  - sleep: -1\n", p3 + "sleep must be a non-negative number of seconds"},
      {head + "  - {sleep: 1, gripper: open}\n",
       p3 + "a step is a map with one key: movej, movel, movep, sleep or gripper"},
      // A list or a map as a key (found by fuzzing: yaml-cpp's conversion error escaped unnamed).
      {head + "  - movej: {to: [0, 0, 0, 0, 0, 0], [1]: 2}\n",
       p3 + "a key must be a word, not a list or a map"},
      {head + "  - {[movej]: 1}\n", p3 + "a key must be a word, not a list or a map"},
      // Mistakes of the whole file.
      {"steps: []\n", "p.yaml: \"steps:\" must be a non-empty list"},
      {"- sleep: 1\n", "p.yaml: expected a map with a \"steps:\" list"},
      {"angle_unit: grad\n" + head, "p.yaml: angle_unit must be rad or deg, not \"grad\""},
      {"speed: 1\n" + head, "p.yaml: unknown top-level key \"speed\" (expected steps, angle_unit)"},
      {"{a: b}: 1\n" + head, "p.yaml: a top-level key must be a word, not a list or a map"},
  };
  for (const auto& [text, message] : rows) {
    EXPECT_EQ(error_of(text), message) << text;
  }
  EXPECT_THAT(error_of("steps: [\n"), ::testing::StartsWith("p.yaml: not valid YAML: "));
  EXPECT_EQ(error_of([] { kestrel::cli::load_program_file("/nonexistent/program.yaml"); }),
            "/nonexistent/program.yaml: cannot open the file");
}

}  // namespace
