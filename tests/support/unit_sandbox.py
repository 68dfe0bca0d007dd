"""A unit file's sandbox as arguments of bwrap.

What bwrap has no word for isn't imitated: limits of control groups (MemoryMax,
TasksMax, DevicePolicy), the filter of memory that is both written and run, and
the details of /proc and /sys.
"""
import errno
import os
import pathlib
import socket
import subprocess
import tempfile


class Unit:
    """The directives of a unit file, by name; a name may stand repeatedly."""

    def __init__(self, path):
        self.values = {}
        for line in pathlib.Path(path).read_text().splitlines():
            if "=" in line and not line.startswith(("#", ";")):
                name, value = line.split("=", 1)
                self.values.setdefault(name, []).append(value)

    def has(self, name):
        return name in self.values

    def one(self, name):
        return self.values[name][-1]

    def words(self, name):
        return " ".join(self.values.get(name, [])).split()

    def yes(self, name):
        return self.has(name) and self.one(name) in ("yes", "true", "strict")

    def syscall_filter(self):
        """A descriptor of the system calls' filter for bwrap; None where the
        unit has none. What isn't named gets the error that the unit names."""
        if not self.has("SystemCallFilter"):
            return None
        import seccomp  # not there where no sandbox is tried
        allowed = set()
        for line in self.values["SystemCallFilter"]:
            calls = set().union(*map(calls_of, line.lstrip("~").split()))
            allowed = allowed - calls if line[0] == "~" else allowed | calls
        number = getattr(errno, self.one("SystemCallErrorNumber"))
        rules = seccomp.SyscallFilter(seccomp.ERRNO(number))
        for call in allowed:
            # Some are of other machines.
            if seccomp.resolve_syscall(seccomp.Arch(), call) < 0:
                continue
            for condition in self.conditions(call, seccomp):
                rules.add_rule(seccomp.ALLOW, call, *condition)
        with tempfile.TemporaryFile() as file:
            rules.export_bpf(file)
            copy = os.dup(file.fileno())
        os.lseek(copy, 0, os.SEEK_SET)
        return copy

    def conditions(self, call, seccomp):
        """Under which arguments a call is allowed, one of them suffices."""
        if call != "socket" or not self.has("RestrictAddressFamilies"):
            return [[]]
        return [[seccomp.Arg(0, seccomp.EQ, getattr(socket, family))]
                for family in self.words("RestrictAddressFamilies")]


def calls_of(name):
    """The system calls of a set such as @file-system, or the one so named."""
    if not name.startswith("@"):
        return {name}
    listed = subprocess.run(
        ["systemd-analyze", "--no-pager", "syscall-filter", name], text=True,
        check=True, stdout=subprocess.PIPE).stdout
    words = [line.strip() for line in listed.splitlines()[1:]]
    words = [word for word in words if word and not word.startswith("#")]
    return set().union(*map(calls_of, words))


def file_arguments(unit, world):
    """The file system: what the unit hides, and what it shows again."""
    hidden, shown, shut = [], [], []
    if unit.yes("ProtectHome"):
        hidden += ["/home", "/root"]
    if unit.yes("PrivateTmp"):
        hidden += ["/tmp", "/var/tmp"]
    for word in unit.words("TemporaryFileSystem"):
        path, _, options = word.partition(":")
        hidden.append(path)
        shut += ["--remount-ro", path] if options == "ro" else []
    for word in unit.words("BindReadOnlyPaths"):
        path = word.lstrip("-")
        # The machine's own raw data isn't touched.
        source = world.raw if path.endswith("/gen_certs") else path
        shown += ["--ro-bind-try", source, path]
    for word in unit.words("InaccessiblePaths"):
        path = word.lstrip("-")
        if os.path.isdir(path) and not os.path.islink(path) and \
                not path.startswith("/run"):
            shown += ["--perms", "000", "--tmpfs", path]
    return [word for path in hidden for word in ("--tmpfs", path)] + \
        shown + shut


def run_arguments(unit, world):
    """/run, where the runtime directory alone can be written, and beside it
    what the stand-in needs and the field doesn't have."""
    strict = unit.yes("ProtectSystem")
    arguments = ["--ro-bind" if strict else "--bind", world.run, "/run",
                 "--ro-bind", world.build, "/run/program",
                 "--bind", world.standin, "/run/standin"]
    if unit.has("RuntimeDirectory"):
        path = unit.one("RuntimeDirectory")
        arguments += ["--bind", world.run / path, f"/run/{path}"]
    for name, value in {
            "LD_LIBRARY_PATH": "/run/program/standin",
            "QDB_STANDIN_SCENARIO": "/run/standin/server.json",
            "QDB_STANDIN_SOCKET": "/run/standin/dm.sock",
            "QDB_STANDIN_STATE": "/run/standin/state.json",
            "QDB_STANDIN_LOG": "4"}.items():
        arguments += ["--setenv", name, value]
    return arguments


def bwrap_arguments(unit, world, filters, status):
    """The whole command up to the program; `filters` and `status` are
    descriptors or None."""
    strict = unit.yes("ProtectSystem")
    arguments = ["bwrap", "--die-with-parent", "--clearenv", "--unshare-pid",
                 "--as-pid-1", "--ro-bind" if strict else "--bind", "/", "/",
                 "--proc", "/proc"]
    arguments += ["--dev", "/dev"] if unit.yes("PrivateDevices") else []
    arguments += ["--unshare-net"] if unit.yes("PrivateNetwork") else []
    if unit.yes("PrivateUsers"):
        arguments += ["--unshare-user", "--uid", "0", "--gid", "0"]
    if unit.has("CapabilityBoundingSet") and \
            not unit.one("CapabilityBoundingSet"):
        arguments += ["--cap-drop", "ALL"]
    arguments += file_arguments(unit, world) + run_arguments(unit, world)
    arguments += ["--seccomp", str(filters)] if filters is not None else []
    arguments += ["--json-status-fd", str(status)] if status else []
    return arguments
