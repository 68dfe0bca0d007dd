#!/usr/bin/env python3
"""Puts what qdb prints into the README.

    ./demo --seconds 20 && scripts/draw_qdb.py [BUILD]

Runs the commands that stand in the README's block on the database which a demo
has left in the build folder (build), and puts what each prints behind it.
"""

import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATABASE = 'demo/root/var/run/quillondatabase/DMLiveObjectDatabase.db'
LINES = 5  # of an output, its head included

BLOCK = re.compile(r'(<!-- scripts/draw_qdb.py -->\n```\n)(.*?)(```\n)', re.DOTALL)


def printed(build, command):
    """The command line and the beginning of what it prints."""
    program, *arguments = shlex.split(command)
    assert program == 'qdb', command
    database = ['--database', str(build / DATABASE)]
    result = subprocess.run([build / 'qdb', *arguments, *database],
                            check=True, capture_output=True, text=True)
    lines = result.stdout.splitlines()
    shown = lines[:LINES] + (['...'] if len(lines) > LINES else [])
    return '\n'.join(['$ ' + command, *shown]) + '\n'


def main():
    build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / 'build')
    readme = ROOT / 'README.md'
    text = readme.read_text()
    found = BLOCK.search(text)
    commands = re.findall(r'^\$ (.*)$', found.group(2), re.MULTILINE)
    block = '\n'.join(printed(build, command) for command in commands)
    readme.write_text(text[:found.start(2)] + block + text[found.end(2):])


if __name__ == '__main__':
    main()
