"""Reading and following QuillonDB's mirror.

    for change in Mirror(tables=["TblFanExtObj"]):
        print(change.kind, change.table, change.row["VariableSpeed"])

Each difference is told exactly once, whatever is lost, restarted or replaced
meanwhile: who applies what is told has the tables.
"""
import collections
import ctypes
import errno
import json
import os
import select
import signal
import weakref

__all__ = ["REASONS", "STATES", "Change", "Mirror", "Row"]

# Why tables were read again.
REASONS = {
    1: "lost signals",
    2: "new service",
    3: "new database",
    4: "new bus",
    5: "silent change",
}

# Why rows are told, or aren't.
STATES = ("ready", "no bus", "no database", "no service", "filling", "busy")


class Row(dict):
    """The columns of a row by name: None, int, float, str, or list for arrays.

    What isn't known of a row (of one that was removed, mostly nothing or all)
    reads None. table, oid and key are known always; key is "" for a table whose
    objects have none.
    """

    def __init__(self, table="", oid=0, key="", columns=()):
        super().__init__(columns)
        self.table = table
        self.oid = oid
        self.key = key

    def __missing__(self, column):
        if self:
            raise KeyError(column)
        return None


class Change:
    """What was told.

    kind     "added", "changed", "removed": of a row; "ready": from here on, or
             not any more, the tables are followed; "resynced": they were read
             again
    table, oid, key, row
             of a row
    changed  names of the columns that differ; None when they aren't known
    old      of these, what is known of the old values: column to text or None
    is_ready of "ready"
    reason, added_rows, changed_rows, removed_rows
             of "resynced": a text of REASONS, and what was told of it
    """

    changed = None
    old = {}
    is_ready = None
    reason = None
    added_rows = changed_rows = removed_rows = 0

    def __init__(self, kind, row=None, **members):
        self.kind = kind
        self.row = Row() if row is None else row
        self.table = self.row.table
        self.oid = self.row.oid
        self.key = self.row.key
        self.__dict__.update(members)

    def __repr__(self):
        return f"<{self.kind} {self.table} {self.oid} {self.key}>"


_ON_ROW = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p)
_ON_READY = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int)
_ON_RESYNCED = ctypes.CFUNCTYPE(
    None,
    ctypes.c_void_p,
    ctypes.c_int,
    ctypes.c_size_t,
    ctypes.c_size_t,
    ctypes.c_size_t,
)
_ON_READ = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)


class _Options(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("database", ctypes.c_char_p),
        ("bus", ctypes.c_char_p),
        ("tables", ctypes.POINTER(ctypes.c_char_p)),
        ("busy_ms", ctypes.c_int),
        ("user", ctypes.c_void_p),
        ("row_added", _ON_ROW),
        ("row_changed", _ON_ROW),
        ("row_removed", _ON_ROW),
        ("ready", _ON_READY),
        ("resynced", _ON_RESYNCED),
    ]


class _Column(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("type", ctypes.c_char_p)]


def _load():
    """The library, with the types of what is called."""
    lib = ctypes.CDLL("libquillondb-client.so.0")
    handle, text = ctypes.c_void_p, ctypes.c_char_p
    size, oid = ctypes.c_size_t, ctypes.c_int64
    for name, result, arguments in (
        ("row_table", text, [handle]),
        ("row_oid", oid, [handle]),
        ("row_key", text, [handle]),
        ("row_count", size, [handle]),
        ("row_name", text, [handle, size]),
        ("row_type", ctypes.c_int, [handle, size]),
        ("row_text", text, [handle, size]),
        ("row_integer", oid, [handle, size]),
        ("row_real", ctypes.c_double, [handle, size]),
        ("change_row", handle, [handle]),
        ("change_count", ctypes.c_int, [handle]),
        ("change_column", size, [handle, size]),
        ("change_old", ctypes.c_int, [handle, size, ctypes.POINTER(text)]),
        ("mirror_open", ctypes.c_int, [ctypes.POINTER(_Options), ctypes.POINTER(handle)]),
        ("mirror_close", None, [handle]),
        ("mirror_fd", ctypes.c_int, [handle]),
        ("mirror_process", ctypes.c_int, [handle]),
        ("mirror_run", ctypes.c_int, [handle]),
        ("mirror_stop", None, [handle]),
        ("mirror_state", ctypes.c_int, [handle]),
        ("tables", ctypes.POINTER(text), [handle]),
        (
            "mirror_columns",
            ctypes.c_int,
            [handle, text, ctypes.POINTER(ctypes.POINTER(_Column))],
        ),
        ("mirror_count", oid, [handle, text]),
        ("mirror_get", ctypes.c_int, [handle, text, oid, _ON_READ, handle]),
        ("mirror_get_by_key", ctypes.c_int, [handle, text, text, _ON_READ, handle]),
        ("mirror_each", ctypes.c_int, [handle, text, _ON_READ, handle]),
        ("mirror_select", ctypes.c_int, [handle, text, ctypes.POINTER(handle)]),
        ("mirror_error", text, [handle]),
        ("result_count", size, [handle]),
        ("result_row", handle, [handle, size]),
        ("result_free", None, [handle]),
    ):
        function = getattr(lib, "qdb_" + name)
        function.restype = result
        function.argtypes = arguments
    return lib


_lib = _load()


def _decoded(text):
    # Bytes that are no UTF-8 stay what they are, as in file names.
    return None if text is None else text.decode(errors="surrogateescape")


def _encoded(text):
    return None if text is None else text.encode(errors="surrogateescape")


def _value(row, column):
    kind = _lib.qdb_row_type(row, column)
    if kind == 0:
        return None
    if kind == 1:
        return _lib.qdb_row_integer(row, column)
    if kind == 2:
        return _lib.qdb_row_real(row, column)
    text = _decoded(_lib.qdb_row_text(row, column))
    return json.loads(text) if kind == 4 else text


def _name(row, column):
    return _decoded(_lib.qdb_row_name(row, column))


def _copied(row):
    """A Row of what ends with the callback."""
    return Row(
        _decoded(_lib.qdb_row_table(row)),
        _lib.qdb_row_oid(row),
        _decoded(_lib.qdb_row_key(row)),
        [(_name(row, i), _value(row, i)) for i in range(_lib.qdb_row_count(row))],
    )


def _differences(change):
    """The names of the columns, and their known old values."""
    count = _lib.qdb_change_count(change)
    if count < 0:
        return {}
    row = _lib.qdb_change_row(change)
    changed, old = [], {}
    for i in range(count):
        changed.append(_name(row, _lib.qdb_change_column(change, i)))
        text = ctypes.c_char_p()
        if _lib.qdb_change_old(change, i, ctypes.byref(text)):
            old[changed[-1]] = _decoded(text.value)
    return {"changed": tuple(changed), "old": old}


class _Told:
    """What the callbacks leave for the mirror; it knows nothing of that, so that
    a mirror that nobody uses any more is closed at once."""

    def __init__(self):
        self.changes = collections.deque()
        self.error = None

    def note(self, make):
        # An exception would end in the library's frames, and be lost.
        if self.error is None:
            try:
                self.changes.append(make())
            except BaseException as error:
                self.error = error

    def options(self, database, bus, tables, busy_ms):
        names = None
        if tables is not None:
            encoded = [_encoded(name) for name in tables]
            names = (ctypes.c_char_p * (len(encoded) + 1))(*encoded)
        return _Options(
            ctypes.sizeof(_Options),
            _encoded(database),
            _encoded(bus),
            names,
            busy_ms,
            None,
            _ON_ROW(lambda _, row: self.note(lambda: Change("added", _copied(row)))),
            _ON_ROW(lambda _, change: self.note(lambda: self.changed(change))),
            _ON_ROW(lambda _, row: self.note(lambda: Change("removed", _copied(row)))),
            _ON_READY(
                lambda _, is_ready: self.note(lambda: Change("ready", is_ready=bool(is_ready)))
            ),
            _ON_RESYNCED(lambda _, *counts: self.note(lambda: self.resynced(*counts))),
        )

    @staticmethod
    def changed(change):
        row = _copied(_lib.qdb_change_row(change))
        return Change("changed", row, **_differences(change))

    @staticmethod
    def resynced(reason, added, changed, removed):
        return Change(
            "resynced",
            reason=REASONS.get(reason, str(reason)),
            added_rows=added,
            changed_rows=changed,
            removed_rows=removed,
        )


def _call(function, *arguments):
    """Calls what calls back. This thread's signals come afterwards: an exception
    of their handlers would come up in a callback, before that could catch it."""
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, [])
    try:
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
        return function(*arguments)
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)


def _check(result, what):
    if result == -errno.ENOENT:
        raise KeyError(what)
    if result < 0:
        raise OSError(-result, os.strerror(-result), what)
    return result


class Mirror:
    """A handle of the library; it belongs to one thread.

    tables    names of those that are followed; None: all object tables
    database  path; None: where it is installed
    bus       address; None: the system bus
    busy_ms   no call waits longer for the database

    Neither bus nor database need be there. close() ends it, and so does a with
    statement, or the last use.

    Iteration gives each Change, as it
    comes, until stop(), or raises what came up. Where break left it, another one
    goes on; behind a KeyboardInterrupt it takes a new mirror, since a change may
    have been on its way.
    """

    def __init__(self, tables=None, database=None, bus=None, busy_ms=1000):
        self._told = _Told()
        self._is_stopped = False
        self._options = self._told.options(database, bus, tables, busy_ms)
        handle = ctypes.c_void_p()
        _check(_lib.qdb_mirror_open(self._options, ctypes.byref(handle)), "mirror")
        self._open = handle
        self.close = weakref.finalize(self, _lib.qdb_mirror_close, handle)

    @property
    def _handle(self):
        if not self.close.alive:
            raise ValueError("the mirror is closed")
        return self._open

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def fileno(self):
        """A descriptor that is readable when process() has something to do."""
        return _lib.qdb_mirror_fd(self._handle)

    def process(self):
        """Does what there is to do, without waiting; returns the changes."""
        while self._step():
            pass
        changes = list(self._told.changes)
        self._told.changes.clear()
        if not changes:
            self._raise()
        return changes

    def stop(self):
        """Ends the iteration; for signal handlers and other threads, too."""
        self._is_stopped = True
        _lib.qdb_mirror_stop(self._handle)

    def __iter__(self):
        poller = select.poll()
        poller.register(self.fileno(), select.POLLIN)
        while not self._is_stopped:
            is_more = self._step()
            while self._told.changes:
                yield self._told.changes.popleft()
            self._raise()
            if not is_more and not self._is_stopped:
                poller.poll()
        self._is_stopped = False
        _lib.qdb_mirror_run(self._handle)  # takes the stop, and ends by it

    def _step(self):
        """Whether there is more to do."""
        if not self._told.changes:
            self._raise()
        return self._told.error is None and (
            _check(_call(_lib.qdb_mirror_process, self._handle), "mirror") > 0
        )

    def _raise(self):
        """What a callback met: behind all changes before it, and ever after, since
        one is missing."""
        if self._told.error is not None:
            raise self._told.error

    @property
    def state(self):
        """Why rows are told, or aren't: a text of STATES."""
        return STATES[_lib.qdb_mirror_state(self._handle)]

    def tables(self):
        """The names of the object tables, of the database as it is now."""
        names = _lib.qdb_tables(self._handle)
        if not names:
            raise OSError(errno.ENODATA, os.strerror(errno.ENODATA), "mirror")
        found = []
        while names[len(found)] is not None:
            found.append(names[len(found)])
        return [_decoded(name) for name in found]

    def columns(self, table):
        """The columns of a table: name to the type that it declares. KeyError for
        a table that isn't there."""
        columns = ctypes.POINTER(_Column)()
        count = _check(
            _lib.qdb_mirror_columns(self._handle, _encoded(table), ctypes.byref(columns)), table
        )
        return {_decoded(columns[i].name): _decoded(columns[i].type) for i in range(count)}

    def count(self, table):
        """How many rows a table has. KeyError as of columns()."""
        return _check(_lib.qdb_mirror_count(self._handle, _encoded(table)), table)

    def get(self, table, key):
        """The row of an OID (int) or of a key (str), that of the lowest OID;
        None when there is none. KeyError for a table that isn't there."""
        if isinstance(key, int):
            rows = self._read(_lib.qdb_mirror_get, table, key)
        else:
            rows = self._read(_lib.qdb_mirror_get_by_key, table, _encoded(key))
        return rows[0] if rows else None

    def each(self, table):
        """All rows of a table, as a list. KeyError as of get()."""
        return self._read(_lib.qdb_mirror_each, table)

    def select(self, sql):
        """What a statement selects, as a list of rows. They have no table and no
        key, and an oid if there is such a column. PermissionError for a statement
        that would do more than read, ValueError for a wrong one."""
        result = ctypes.c_void_p()
        status = _lib.qdb_mirror_select(self._handle, _encoded(sql), ctypes.byref(result))
        if status == -errno.EINVAL:
            raise ValueError(_decoded(_lib.qdb_mirror_error(self._handle)))
        _check(status, sql)
        try:
            count = _lib.qdb_result_count(result)
            return [_copied(_lib.qdb_result_row(result, i)) for i in range(count)]
        finally:
            _lib.qdb_result_free(result)

    def _read(self, function, table, *arguments):
        rows, errors = [], []

        def on_row(_, row):
            try:
                rows.append(_copied(row))
            except BaseException as error:
                errors.append(error)
            return len(errors)

        reader = _ON_READ(on_row)
        result = _call(function, self._handle, _encoded(table), *arguments, reader, None)
        if errors:
            raise errors[0]
        _check(result, table)
        return rows
