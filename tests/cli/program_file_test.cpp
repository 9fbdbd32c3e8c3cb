// Motion-program files: what a well-formed file becomes, and the exact message (file, line, step)
// for each kind of mistake, all before any arm is involved.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "program_file.hpp"

namespace {

using kestrel::cli::parse_program;
using kestrel::cli::ProgramStep;

std::string error_of(const std::string& text) {
  try {
    parse_program(text, "p.yaml");
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
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
  EXPECT_NEAR(movej.waypoints[0][5], M_PI, 1e-12);
  EXPECT_EQ(movej.time_sec, 2.0);
  EXPECT_EQ(program.steps[0].line, 4);
  EXPECT_EQ(program.steps[1].motion.waypoints.size(), 2u);
  EXPECT_EQ(program.steps[1].motion.speed_percent, 0.5);
  // Poses: metres stay metres, only the three angles are converted.
  const auto& movel = program.steps[2].motion;
  EXPECT_EQ(movel.poses[0][0], 0.3);
  EXPECT_NEAR(movel.poses[0][3], M_PI, 1e-12);
  EXPECT_NEAR(movel.poses[0][5], M_PI / 2, 1e-12);
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
  EXPECT_EQ(error_of(head + "  - jump: {to: [0, 0, 0, 0, 0, 0]}\n"),
            "p.yaml:3: step 2: unknown step \"jump\" (expected movej, movel, movep, sleep or "
            "gripper)");
  EXPECT_EQ(error_of(head + "  - movej: {to: [0, 0, 0]}\n"),
            "p.yaml:3: step 2: to must be a list of 6 numbers");
  EXPECT_EQ(error_of(head + "  - movej: {to: [0, 0, x, 0, 0, 0]}\n"),
            "p.yaml:3: step 2: to value 3 must be a number, not \"x\"");
  EXPECT_EQ(error_of(head + "  - movej: {to: [0, 0, .nan, 0, 0, 0]}\n"),
            "p.yaml:3: step 2: to value 3 must be finite");
  EXPECT_EQ(
      error_of(head + "  - movej: {to: [0, 0, 0, 0, 0, 0], time_sec: 1, speed_percent: 0.5}\n"),
      "p.yaml:3: step 2: give time_sec or speed_percent, not both");
  EXPECT_EQ(error_of(head + "  - movel: {to: [0.3, 0, 0.2, 3.1, 0, 0], speed_percent: 1.5}\n"),
            "p.yaml:3: step 2: speed_percent must be in (0, 1] (a fraction of the speed limits)");
  EXPECT_EQ(error_of(head + "  - movej: {to: [0, 0, 0, 0, 0, 0], time_sec: 0}\n"),
            "p.yaml:3: step 2: time_sec must be positive");
  EXPECT_EQ(error_of(head + "  - movej: {to: [0, 0, 0, 0, 0, 0], blend_radius_m: 0.1}\n"),
            "p.yaml:3: step 2: unknown key \"blend_radius_m\" (expected to, waypoints, time_sec, "
            "speed_percent)");
  EXPECT_EQ(error_of(head + "  - movep: {to: [0.3, 0, 0.2, 3, 0, 0], poses: []}\n"),
            "p.yaml:3: step 2: give either to: (one target) or poses: (a list of targets)");
  EXPECT_EQ(error_of(head + "  - gripper: 2\n"),
            "p.yaml:3: step 2: gripper must be open, close or a fraction in [0, 1]");
  EXPECT_EQ(error_of(head + "  - sleep: -1\n"),
            "p.yaml:3: step 2: sleep must be a non-negative number of seconds");
  EXPECT_EQ(
      error_of(head + "  - {sleep: 1, gripper: open}\n"),
      "p.yaml:3: step 2: a step is a map with one key: movej, movel, movep, sleep or gripper");
  // A list or a map as a key (found by fuzzing: yaml-cpp's conversion error escaped unnamed).
  EXPECT_EQ(error_of(head + "  - movej: {to: [0, 0, 0, 0, 0, 0], [1]: 2}\n"),
            "p.yaml:3: step 2: a key must be a word, not a list or a map");
  EXPECT_EQ(error_of(head + "  - {[movej]: 1}\n"),
            "p.yaml:3: step 2: a key must be a word, not a list or a map");
}

TEST(ProgramFile, FileLevelMistakes) {
  EXPECT_EQ(error_of("steps: []\n"), "p.yaml: \"steps:\" must be a non-empty list");
  EXPECT_EQ(error_of("- sleep: 1\n"), "p.yaml: expected a map with a \"steps:\" list");
  EXPECT_EQ(error_of("angle_unit: grad\nsteps:\n  - sleep: 1\n"),
            "p.yaml: angle_unit must be rad or deg, not \"grad\"");
  EXPECT_EQ(error_of("speed: 1\nsteps:\n  - sleep: 1\n"),
            "p.yaml: unknown top-level key \"speed\" (expected steps, angle_unit)");
  EXPECT_EQ(error_of("{a: b}: 1\nsteps:\n  - sleep: 1\n"),
            "p.yaml: a top-level key must be a word, not a list or a map");
  EXPECT_THAT(error_of("steps: [\n"), ::testing::StartsWith("p.yaml: not valid YAML: "));
  try {
    kestrel::cli::load_program_file("/nonexistent/program.yaml");
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "/nonexistent/program.yaml: cannot open the file");
  }
}

}  // namespace
