#!/usr/bin/python3
"""Checks that the unit file says what systemd understands, and confines enough.

Usage: check_unit.py [UNIT]

Silent when systemd has nothing to say of the unit and rates its exposure 2.5 or
less; otherwise tells what is wrong, and the status is 1. Without
systemd-analyze, or with one that can't look at a file, it says so and that's all.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parent.parent
LIMIT = 2.5
SYSTEM_UNITS = pathlib.Path("/lib/systemd/system")


def analyze(*arguments):
    return subprocess.run(["systemd-analyze", "--no-pager", *arguments],
                          text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)


def make_root(root, unit):
    """A root where the unit is installed beside the machine's own units. What
    they all start is there, and empty: nobody runs it."""
    units = root / "lib/systemd/system"
    shutil.copytree(SYSTEM_UNITS, units, symlinks=True)
    shutil.copy(unit, units)
    for program in re.findall(r"^Exec\w+=[-+!@:|]*(/\S+)",
                              unit.read_text(), re.M):
        path = root / program[1:]
        path.parent.mkdir(parents=True, exist_ok=True)
        path.touch(0o755)


def understood(unit):
    """What systemd says of the unit; nothing when it is content."""
    with tempfile.TemporaryDirectory() as directory:
        root = pathlib.Path(directory)
        make_root(root, unit)
        result = analyze("verify", "--man=no", f"--root={root}", unit.name)
        return [line for line in result.stdout.splitlines()
                if result.returncode or unit.name in line]


def exposed(unit):
    """What is wrong with the exposure; nothing when it is within the limit."""
    report = analyze("security", "--offline=true", str(unit))
    level = re.search(r"Overall exposure level for .*: ([0-9.]+)",
                      report.stdout)
    if level is None:
        return report.stdout.splitlines()
    if float(level[1]) > LIMIT:
        return [f"exposure is {level[1]}, and may be {LIMIT}"]
    return []


def main():
    unit = SOURCE / "packaging/quillondb.service"
    if len(sys.argv) > 1:
        unit = pathlib.Path(sys.argv[1])
    if not shutil.which("systemd-analyze") or not SYSTEM_UNITS.is_dir():
        print("no systemd-analyze: the unit file isn't checked")
        return 0
    if "--offline" not in analyze("--help").stdout:
        print("systemd-analyze is too old: the unit file isn't checked")
        return 0
    complaints = understood(unit) + exposed(unit)
    print("".join(f"{unit.name}: {line}\n" for line in complaints), end="")
    return 1 if complaints else 0


sys.exit(main())
