#!/usr/bin/env python3
"""Checks that the folders look down only.

Usage: check_layers.py [FOLDER]

A file may include its own folder's files and those of the folders that its
folder stands on. Prints what it finds; the exit status is 1 then.
"""
import pathlib
import re
import sys

# Each folder of the service stands on all before it.
SERVICE = [
    "platform",
    "objects/schema",
    "core",
    "queues",
    "db",
    "publish",
    "objects",
    "config",
    "reconcile",
    "events",
    "busintake",
    "service",
]

# What stands beside the service, and what it may look at.
BESIDE = {
    "standin": ["platform", "objects/schema", "core/descriptor.h", "core/json.h"],
    "client": ["core/descriptor.h", "core/json.h"],
    "tools": ["objects/schema", "core/descriptor.h", "core/grouped.h", "core/json.h",
              "core/statistics_file.h", "db/statement_ptr.h"],
}
FREE = ["tests", "bench", "fuzz"]

INCLUDE = re.compile(r'^\s*#include "([^"]+)"', re.MULTILINE)


def folder_of(path):
    """The longest known folder that the path lies in; None: not one of ours."""
    known = SERVICE + list(BESIDE) + FREE
    inside = [name for name in known if path.startswith(name + "/")]
    return max(inside, key=len, default=None)


def may_include(folder, path):
    target = folder_of(path)
    if folder in FREE or target in (None, folder):
        return True
    if folder in BESIDE:
        return any(path == name or path.startswith(name + "/") for name in BESIDE[folder])
    return target in SERVICE[: SERVICE.index(folder)]


def main(root):
    found = 0
    for file in sorted(root.rglob("*")):
        path = file.relative_to(root).as_posix()
        folder = folder_of(path)
        if file.suffix not in (".h", ".hpp", ".cpp") or folder is None:
            continue
        for included in INCLUDE.findall(file.read_text()):
            if not may_include(folder, included):
                print(f"{path} looks up to {included}")
                found = 1
    return found


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")))
