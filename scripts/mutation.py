#!/usr/bin/env python3
"""Helper of scripts/mutation.sh: reads the fault list, applies a fault, picks the tests that
cover it, runs a command under a time limit, and writes the result table."""

import json
import os
import re
import signal
import subprocess
import sys
from collections import OrderedDict

FIELDS = ("what", "tests", "from", "to")
HEADER = re.compile(r"^(M\d+)\s+(\S+)\s*$")
FIELD = re.compile(r"^\s+(\w+):\s?(.*)$")
CONTINUATION = re.compile(r"^\s+\| ?(.*)$")


def fail(message):
    sys.exit("mutation: " + message)


def read_faults(path):
    """The faults of the list, in order, as dictionaries; a malformed entry ends the run."""
    faults = OrderedDict()
    current = None
    last_field = None
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            where = "%s:%d" % (path, number)
            if not line.strip() or line.startswith("#"):
                continue
            header = HEADER.match(line)
            if header:
                if header.group(1) in faults:
                    fail("%s: %s is listed twice" % (where, header.group(1)))
                current = {"id": header.group(1), "file": header.group(2)}
                faults[current["id"]] = current
                last_field = None
                continue
            if current is None:
                fail("%s: a field before the first fault" % where)
            continued = CONTINUATION.match(line)
            if continued and last_field in ("from", "to"):
                current[last_field].append(continued.group(1).rstrip())
                continue
            field = FIELD.match(line)
            if not field or field.group(1) not in FIELDS or field.group(1) in current:
                fail("%s: expected one of %s once per fault" % (where, ", ".join(FIELDS)))
            name, value = field.group(1), field.group(2).strip()
            current[name] = [value] if name in ("from", "to") else value
            last_field = name
    for fault in faults.values():
        missing = [name for name in FIELDS if name not in fault]
        if missing:
            fail("%s lacks %s" % (fault["id"], ", ".join(missing)))
        if fault["to"] == [""]:
            fault["to"] = []
        fault["tests"] = fault["tests"].split()
        if not fault["tests"]:
            fail("%s names no tests" % fault["id"])
    return faults


def chosen(faults, ids):
    unknown = [i for i in ids if i not in faults]
    if unknown:
        fail("unknown fault(s): " + " ".join(unknown))
    return [faults[i] for i in ids] if ids else list(faults.values())


def pattern(fault):
    """The original text as a pattern: its lines in order, each with any indentation."""
    lines = [re.escape(line.strip()) for line in fault["from"]]
    return re.compile(r"\n[ \t]*".join(lines))


def mutated(root, fault):
    """The file's text with the fault applied, or an error text when it does not apply."""
    path = os.path.join(root, fault["file"])
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except OSError as e:
        return None, "stale: %s" % e.strerror.lower()
    matches = list(pattern(fault).finditer(text))
    if len(matches) != 1:
        return None, "stale: the original text occurs %d times" % len(matches)
    match = matches[0]
    indent = re.match(r"[ \t]*", text[text.rfind("\n", 0, match.start()) + 1:]).group(0)
    replacement = ("\n" + indent).join(line.strip() for line in fault["to"])
    return text[:match.start()] + replacement + text[match.end():], None


def test_names(listing_path):
    """Test name -> the program it runs, from `ctest --show-only=json-v1`."""
    with open(listing_path, encoding="utf-8") as f:
        listing = json.load(f)
    programs = {}
    for test in listing.get("tests", []):
        command = test.get("command") or [""]
        programs[test["name"]] = os.path.basename(command[0])
    return programs


def selected_tests(fault, programs):
    names = []
    for token in fault["tests"]:
        target, _, regex = token.partition(":")
        found = [n for n, p in programs.items()
                 if p == target and (not regex or re.search(regex, n))]
        if not found:
            fail("%s: '%s' selects no test (is the target built?)" % (fault["id"], token))
        names.extend(n for n in found if n not in names)
    return names


def ctest_regexes(names, longest=15000):
    """CTest -R expressions that together select exactly `names`. A parametrised test's name
    ends in "  # GetParam() = ...", which may print addresses that change with every discovery:
    the part before it is matched. CTest's regular expressions know ^ $ | ( ) and backslash
    escapes, and refuse to compile a very long one: split."""
    special = set(".[]()*+?^$|\\")
    escaped = []
    for name in names:
        name = "".join("\\" + c if c in special else c for c in name.split("  # ")[0])
        if name not in escaped:
            escaped.append(name)
    groups = [[]]
    for name in escaped:
        if groups[-1] and sum(len(n) + 1 for n in groups[-1]) + len(name) > longest:
            groups.append([])
        groups[-1].append(name)
    return ["^(" + "|".join(group) + ")( |$)" for group in groups]


def run_limited(seconds, command):
    """Runs the command in its own process group; kills the group after `seconds` (exit 124)."""
    process = subprocess.Popen(command, start_new_session=True)
    try:
        return process.wait(timeout=seconds)
    except subprocess.TimeoutExpired:
        for sig, wait in ((signal.SIGTERM, 10), (signal.SIGKILL, None)):
            try:
                os.killpg(process.pid, sig)
            except ProcessLookupError:
                break
            try:
                process.wait(timeout=wait)
                break
            except subprocess.TimeoutExpired:
                continue
        return 124
    except KeyboardInterrupt:
        os.killpg(process.pid, signal.SIGKILL)
        raise


def failed_tests(log_path):
    """The tests CTest lists as failed at the end of its output."""
    names = []
    listing = False
    with open(log_path, encoding="utf-8", errors="replace") as f:
        for line in f:
            if line.startswith("The following tests FAILED"):
                listing = True
                continue
            found = re.match(r"^\s+\d+ - (\S+)", line) if listing else None
            if found and found.group(1) not in names:
                names.append(found.group(1))
    return names


def first_compiler_error(log_path):
    with open(log_path, encoding="utf-8", errors="replace") as f:
        for line in f:
            found = re.search(r"error: (.*)", line)
            if found:
                return found.group(1).strip()[:80]
    return "the build failed"


RESULT_TEXT = {
    "test": "caught (test)",
    "build": "caught (build)",
    "timeout": "caught (timeout)",
    "survived": "**survived**",
    "stale": "stale",
    "built": "builds",
}


def cell(text):
    return text.replace("|", "\\|").replace("\n", " ")


def report(faults, results_path, title):
    found = {}
    with open(results_path, encoding="utf-8") as f:
        for line in f:
            fault_id, result, detail, seconds = line.rstrip("\n").split("\t")
            found[fault_id] = (faults[fault_id], result, detail, float(seconds))
    rows = [found[i] for i in faults if i in found]  # in the order of the list
    counts = OrderedDict()
    for _, result, _, _ in rows:
        counts[RESULT_TEXT[result]] = counts.get(RESULT_TEXT[result], 0) + 1
    out = ["# " + title, ""]
    out.append("%d faults: %s; %.0f s of fault runs." % (
        len(rows), ", ".join("%s %d" % (k.strip("*"), v) for k, v in counts.items()),
        sum(r[3] for r in rows)))
    out += ["", "| Id | Fault | File | Result | Caught by | s |", "| --- | --- | --- | --- | --- | --- |"]
    for fault, result, detail, seconds in rows:
        where = fault["file"].replace("kestrel_sdk/src/", "")
        out.append("| %s | %s | `%s` | %s | %s | %.0f |" % (
            fault["id"], cell(fault["what"]), where, RESULT_TEXT[result], cell(detail), seconds))
    return "\n".join(out) + "\n"


def main(argv):
    if len(argv) < 2:
        fail("usage: mutation.py COMMAND ...")
    command, args = argv[1], argv[2:]
    if command == "run-limited":
        sys.exit(run_limited(float(args[0]), args[1:]))
    if command == "failed":
        print(" ".join(failed_tests(args[0])))
        return
    if command == "compiler-error":
        print(first_compiler_error(args[0]))
        return
    faults = read_faults(args[0])
    if command == "list":
        for fault in chosen(faults, args[1:]):
            print("%s  %-52s %s\n      tests: %s" % (
                fault["id"], fault["file"].replace("kestrel_sdk/src/", ""), fault["what"],
                " ".join(fault["tests"])))
    elif command == "ids":
        print(" ".join(f["id"] for f in chosen(faults, args[1:])))
    elif command == "file":
        print(faults[args[1]]["file"])
    elif command == "targets":
        targets = []
        for fault in chosen(faults, args[1:]):
            targets.extend(t.partition(":")[0] for t in fault["tests"])
        print(" ".join(sorted(set(targets))))
    elif command == "check":
        _, error = mutated(args[1], faults[args[2]])
        if error:
            print(error)
            sys.exit(3)
    elif command == "apply":
        text, error = mutated(args[1], faults[args[2]])
        if error:
            fail("%s: %s" % (args[2], error))
        with open(os.path.join(args[1], faults[args[2]]["file"]), "w", encoding="utf-8") as f:
            f.write(text)
    elif command == "regex":
        programs = test_names(args[1])
        names = []
        for fault in chosen(faults, args[2:]):
            names.extend(n for n in selected_tests(fault, programs) if n not in names)
        print("\n".join(ctest_regexes(names)))
    elif command == "report":
        sys.stdout.write(report(faults, args[1], args[2]))
    else:
        fail("unknown command " + command)


if __name__ == "__main__":
    main(sys.argv)
