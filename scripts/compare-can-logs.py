#!/usr/bin/env python3
"""Compares two bus recordings of the same command, decoded by `kestrel-monitor --log`.

    compare-can-logs.py exact|motion EXPECTED ACTUAL

Frames to the motors and frames from them are compared as two streams, each in its own order
(how requests and replies interleave depends on the machine's speed, not on the library).

exact   every frame the same, field by field (a command that reads the arm at rest).
motion  a command that moves the arm: every frame that is not part of the control cycle
        (start-up register traffic, enable, disable, clear error, ...) the same and in the same
        order; the control cycle's frames (MIT and position-velocity commands, refresh requests,
        feedback) the same kinds to and from the same motors, their numbers left aside since
        they depend on timing.
Prints what matched, or the first differences; exit status 0 when the recordings agree.
"""
import re
import sys

LINE = re.compile(r"^\s*\d+\.\d+ (->|<-|  ) (\w{3})( FD|   ) (.*)$")
CYCLIC_COMMAND = re.compile(r"\) (MIT|position-velocity|pos-vel|refresh)\b")
NUMBER = re.compile(r"[-+]?\d+(\.\d+)?")


def streams(path):
    to_motors, from_motors = [], []
    with open(path, encoding="utf-8") as f:
        for line in f:
            match = LINE.match(line.rstrip("\n"))
            if not match:
                continue
            arrow, ident, fd, text = match.groups()
            frame = f"{ident}{fd.rstrip()} {text}"
            (to_motors if arrow == "->" else from_motors).append(frame)
    return to_motors, from_motors


def is_cyclic(frame):
    return bool(CYCLIC_COMMAND.search(frame)) or " feedback " in frame


def kind(frame):
    """The frame without its numbers after the motor's name: what it is, not what it says.
    Feedback keeps only its motor: a slow machine may see a motor time out (status 13) that a
    fast one does not, which the status line of the command shows anyway."""
    head, _, rest = frame.partition(") ")
    if rest.startswith("feedback "):
        return head + ") feedback"
    return head + ") " + NUMBER.sub("#", rest)


def first_difference(expected, actual):
    for i, (e, a) in enumerate(zip(expected, actual)):
        if e != a:
            return f"frame {i + 1}: expected '{e}', got '{a}'"
    if len(expected) != len(actual):
        return f"{len(expected)} frames expected, {len(actual)} got"
    return None


def compare(mode, expected_path, actual_path):
    problems = []
    summary = []
    for name, expected, actual in zip(("to the motors", "from the motors"),
                                      streams(expected_path), streams(actual_path)):
        if mode == "exact":
            difference = first_difference(expected, actual)
            if difference:
                problems.append(f"{name}: {difference}")
            summary.append(f"{len(actual)} {name}")
            continue
        fixed_expected = [f for f in expected if not is_cyclic(f)]
        fixed_actual = [f for f in actual if not is_cyclic(f)]
        difference = first_difference(fixed_expected, fixed_actual)
        if difference:
            problems.append(f"{name}, outside the control cycle: {difference}")
        kinds_expected = sorted({kind(f) for f in expected if is_cyclic(f)})
        kinds_actual = sorted({kind(f) for f in actual if is_cyclic(f)})
        missing = [k for k in kinds_expected if k not in kinds_actual]
        extra = [k for k in kinds_actual if k not in kinds_expected]
        if missing or extra:
            problems.append(f"{name}, control cycle kinds: missing {missing}, unexpected {extra}")
        if not actual:
            problems.append(f"{name}: no frames at all")
        summary.append(f"{len(fixed_actual)} {name} outside the cycle the same, "
                       f"{len(kinds_actual)} kinds in {len(actual) - len(fixed_actual)} cycle frames")
    return problems, summary


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("exact", "motion"):
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 2
    problems, summary = compare(*sys.argv[1:])
    if problems:
        for p in problems:
            print(p)
        return 1
    print("; ".join(summary))
    return 0


if __name__ == "__main__":
    sys.exit(main())
