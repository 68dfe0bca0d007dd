#!/usr/bin/python3
"""Runs the service as its unit file confines it, without systemd.

Usage: sandbox.py BUILD_FOLDER [UNIT]

Takes the unit's directives for bwrap, starts the service with the stand-in in
it, on a bus and with directories of its own, and looks whether it can do its
work there: it gets ready, changes reach their rows and the telemetry pipe, a
file of the raw data directory becomes a row, a stop ends in order, and it begins
anew where a corrupt database was left; and whether a file that is none of its
business stays out of the rows, whoever asks.

The status is 0 when all was as expected. Needs root, bubblewrap, the module
seccomp, and systemd-analyze for the names of system calls; where a sandbox can't
be made, it says so and ends with 0.
"""
import contextlib
import importlib.util
import json
import os
import pathlib
import resource
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from support.unit_sandbox import Unit, bwrap_arguments  # noqa: E402

SOURCE = pathlib.Path(__file__).resolve().parent.parent
DEADLINE = 60
STOP_LIMIT = 10
READY = "Tarnu.Embedded.1#QuillonDB.1#IsQuillonDBReady"
KEY = "Tarnu.Embedded.1#Users.2#UserName"
FAN = 0x00400003
RAW = "/mnt/persistent_data/data0/gen_certs"

# Files that a machine has and that aren't for everybody, as all rows are.
SECRETS = ["/etc/shadow", "/etc/gshadow", "/root/.profile", "/root/.bashrc",
           "/var/lib/dpkg/status", "/var/log/dpkg.log"]

BUS = """<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path={}</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/>
<allow own="*"/><allow send_destination="*" eavesdrop="true"/>
<allow eavesdrop="true"/></policy></busconfig>
"""


def wait_until(condition, what):
    deadline = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"did not happen: {what}")
        time.sleep(0.01)


class World:
    """What the sandbox shows of itself outside: /run, the raw data, and the
    stand-in's own files, which the unit knows nothing of."""

    def __init__(self, directory, build):
        self.run = directory / "run"
        self.raw = directory / "raw"
        self.standin = self.run / "standin"
        self.socket = self.run / "dbus/system_bus_socket"
        self.pipe = self.run / "telemetryservice/qdbtdbipcpipe"
        self.build = build
        for path in (self.raw, self.standin, self.socket.parent,
                     self.pipe.parent, self.run / "program"):
            path.mkdir(parents=True)
        os.mkfifo(self.pipe, 0o600)
        shutil.copy(SOURCE / "tools/scenarios/server.json", self.standin)
        self.log = directory / "log"
        self.bus_config = directory / "bus.conf"
        self.bus_config.write_text(BUS.format(self.socket))

    def database(self):
        return self.run / "quillondatabase/DMLiveObjectDatabase.db"

    def is_ready(self):
        with contextlib.suppress(OSError, ValueError):
            state = json.loads((self.standin / "state.json").read_text())
            return state.get(READY) == 1
        return False

    def value(self, sql, *arguments):
        with contextlib.closing(sqlite3.connect(
                f"file:{self.database()}?mode=ro", uri=True,
                timeout=10)) as database:
            row = database.execute(sql, arguments).fetchone()
        return None if row is None else row[0]

    def text(self):
        return self.value(
            "SELECT CurrentValue FROM TblStrAttribute WHERE Key = ?", KEY)

    def dmctl(self, *arguments):
        subprocess.run([self.build / "dmctl", "--socket",
                        self.standin / "dm.sock", *map(str, arguments)],
                       check=True, stdout=subprocess.DEVNULL,
                       env={"DBUS_SYSTEM_BUS_ADDRESS":
                            f"unix:path={self.socket}"})


class Service:
    """The service in its sandbox, from its start to its stop."""

    def __init__(self, unit, world):
        self.unit = unit
        self.world = world
        if unit.has("RuntimeDirectory"):
            (world.run / unit.one("RuntimeDirectory")).mkdir(exist_ok=True)
        made = self.run(unit.one("ExecStartPre")).wait(DEADLINE)
        assert made == 0, f"the database is not made, status {made}"
        read, write = os.pipe()
        self.bwrap = self.run(unit.one("ExecStart"), write)
        os.close(write)
        # bwrap writes to it once more in the end.
        self.status = os.fdopen(read)
        self.pid = json.loads(self.status.readline())["child-pid"]

    def limits(self):
        os.umask(int(self.unit.one("UMask"), 8))
        data = self.unit.one("LimitDATA")
        size = int(data[:-1]) << {"K": 10, "M": 20, "G": 30}[data[-1]]
        resource.setrlimit(resource.RLIMIT_DATA, (size, size))

    def run(self, command, status=None):
        """Starts a command of the unit in a sandbox of its own."""
        filters = self.unit.syscall_filter()
        arguments = bwrap_arguments(self.unit, self.world, filters, status)
        program, *rest = command.split()
        name = pathlib.Path(program).name
        descriptors = [fd for fd in (filters, status) if fd is not None]
        with open(self.world.log, "ab") as log:
            process = subprocess.Popen(
                [*arguments, f"/run/program/{name}", *rest], stdout=log,
                stderr=log, pass_fds=descriptors, preexec_fn=self.limits)
        if filters is not None:
            os.close(filters)
        return process

    def stop(self):
        os.kill(self.pid, signal.SIGTERM)
        return self.bwrap.wait(STOP_LIMIT)

    def end(self):
        self.bwrap.kill()
        self.bwrap.wait()
        self.status.close()


@contextlib.contextmanager
def running_bus(world):
    bus = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", "dbus-daemon", "--nofork",
         "--nopidfile", f"--config-file={world.bus_config}"])
    try:
        wait_until(world.socket.exists, "the start of the bus")
        yield
    finally:
        bus.kill()
        bus.wait()


@contextlib.contextmanager
def running_service(unit, world):
    """Ends with an orderly stop, unless something failed before."""
    service = Service(unit, world)
    try:
        yield
        status = service.stop()
        assert status == 0, f"the stop ended with status {status}"
        assert not world.is_ready(), "readiness stays after the stop"
    finally:
        service.end()


def serves(world):
    """Ready, and a change gets to its row and to the pipe."""
    pipe = os.open(world.pipe, os.O_RDONLY | os.O_NONBLOCK)
    wait_until(world.is_ready, "readiness")
    changes_arrive(world, 4321)
    assert b"TblFanExtObj" in os.read(pipe, 1 << 16), "no record on the pipe"
    os.close(pipe)


def changes_arrive(world, speed):
    world.dmctl("set", FAN, f"VariableSpeed={speed}")
    wait_until(lambda: world.value("SELECT VariableSpeed FROM TblFanExtObj "
                                   "WHERE OID = ?", FAN) == speed,
               f"speed {speed} in its row")


def import_file(world, path):
    """The row's text after an import of the file, which is seen by the end of
    another text."""
    (world.raw / "good").write_text("good text")
    world.dmctl("cfg", "raw", KEY, f"{RAW}/good")
    wait_until(lambda: world.text() == "good text", "the import of a file")
    world.dmctl("cfg", "raw", KEY, path)
    wait_until(lambda: world.text() != "good text", f"the import of {path}")
    return world.text()


def keeps_out(world):
    """Nothing of a file that isn't raw data gets into a row."""
    tried = [path for path in SECRETS
             if os.path.isfile(path) and os.path.getsize(path) > 0]
    assert "/etc/shadow" in tried, "this machine has no secrets"
    for path in tried:
        text = import_file(world, path)
        assert not text, f"{path} is in a row: {text[:60]!r}"
    return len(tried)


def survives_size(world):
    """A file that is larger than all memory there may be costs its own row."""
    with open(world.raw / "huge", "wb") as huge:
        huge.write(b"huge")
        huge.truncate(1 << 30)
    assert not import_file(world, f"{RAW}/huge"), "a huge file is in a row"
    changes_arrive(world, 1234)


def corrupt(unit, world):
    """As a corrupt database leaves things, which ends the service with status
    0: systemd starts it again however often that happens."""
    assert unit.one("Restart") == "always", "a corrupt database is the end"
    assert unit.one("StartLimitIntervalSec") == "0", "restarts are counted"
    world.database().write_bytes(b"no database" * 1000)


def check(unit, world):
    with running_bus(world):
        with running_service(unit, world):
            serves(world)
            kept = keeps_out(world)
            survives_size(world)
        corrupt(unit, world)
        with running_service(unit, world):
            serves(world)
    return kept


def can_run():
    if os.geteuid() != 0 or not shutil.which("bwrap") or \
            not shutil.which("systemd-analyze") or \
            not importlib.util.find_spec("seccomp"):
        return False
    return not subprocess.run(
        ["bwrap", "--unshare-all", "--ro-bind", "/", "/", "--proc", "/proc",
         "--dev", "/dev", "true"], stderr=subprocess.DEVNULL).returncode


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    unit = Unit(sys.argv[2] if len(sys.argv) > 2
                else SOURCE / "packaging/quillondb.service")
    if not can_run():
        print("no sandbox can be made here: the unit's isn't tried")
        return 0
    with tempfile.TemporaryDirectory(prefix="qdbsandbox.") as directory:
        world = World(pathlib.Path(directory), build)
        try:
            kept = check(unit, world)
        except (AssertionError, subprocess.SubprocessError) as failure:
            print(f"in the unit's sandbox: {failure}")
            print(world.log.read_text()[-3000:])
            return 1
    print(f"in the unit's sandbox the service lives, {kept} files stay out")
    return 0


sys.exit(main())
