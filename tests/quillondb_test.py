"""The Python module against the running service; tests/python_test.cpp starts
it with the path of a database of three memory modules. Status 1 and what failed,
or 0.
"""
import os
import select
import signal
import sys
import threading
import unittest
import unittest.mock

import quillondb

DATABASE = sys.argv.pop()
MODULES = [4096, 4097, 4098]
DEADLINE = 30  # seconds


def modules(**options):
    return quillondb.Mirror(tables=["TblMemoryInfo"], database=DATABASE, **options)


class Reading(unittest.TestCase):
    def test_gives_rows_by_oid_and_key(self):
        with modules() as mirror:
            row = mirror.get("TblMemoryInfo", 4097)
            self.assertEqual((row.table, row.oid, row.key), ("TblMemoryInfo", 4097, "DIMM1"))
            self.assertEqual(row["OID"], 4097)
            self.assertIsInstance(row["Speed"], int)
            self.assertEqual(mirror.get("TblMemoryInfo", "DIMM1"), row)
            self.assertIsNone(mirror.get("TblMemoryInfo", 1))
            self.assertIsNone(mirror.get("TblMemoryInfo", "DIMM9"))
            self.assertEqual([row.oid for row in mirror.each("TblMemoryInfo")], MODULES)
            self.assertIn("TblMemoryInfo", mirror.tables())
            self.assertEqual(mirror.count("TblMemoryInfo"), 3)
            self.assertEqual(mirror.columns("TblMemoryInfo")["Speed"], "INTEGER")
            with self.assertRaises(KeyError):
                row["Sped"]

    def test_selects(self):
        with modules() as mirror:
            rows = mirror.select("SELECT OID, 2 * count(*) AS n, NULL AS no FROM TblMemoryInfo")
            self.assertEqual(rows, [{"OID": 4096, "n": 6, "no": None}])
            self.assertEqual(rows[0].oid, 4096)
            self.assertEqual(mirror.select("SELECT 1 WHERE 0"), [])
            with self.assertRaisesRegex(ValueError, "no such table: TblNone"):
                mirror.select("SELECT * FROM TblNone")
            with self.assertRaises(PermissionError):
                mirror.select("DELETE FROM TblMemoryInfo")

    def test_says_why_not(self):
        with modules() as mirror:
            for call in (
                lambda: mirror.get("TblNone", 1),
                lambda: mirror.each("TblNone"),
                lambda: mirror.count("TblNone"),
                lambda: mirror.columns("TblNone"),
            ):
                self.assertRaises(KeyError, call)
        self.assertRaises(ValueError, mirror.process)
        self.assertRaises(ValueError, lambda: mirror.each("TblMemoryInfo"))
        with quillondb.Mirror(database="/nonexistent") as mirror:
            self.assertRaises(OSError, lambda: mirror.each("TblMemoryInfo"))
            self.assertRaises(OSError, mirror.tables)
            self.assertRaises(OSError, lambda: mirror.select("SELECT 1"))
            self.assertEqual(mirror.state, "no bus")  # or not asked yet

    def test_loses_no_exception(self):
        with modules() as mirror:
            with unittest.mock.patch("quillondb._copied", side_effect=MemoryError):
                self.assertRaises(MemoryError, lambda: mirror.each("TblMemoryInfo"))
            self.assertEqual(len(mirror.each("TblMemoryInfo")), 3)


class Following(unittest.TestCase):
    def test_tells_all_rows_and_then_readiness(self):
        mirror = modules()
        told = []
        for change in mirror:
            told.append((change.kind, change.oid, change.is_ready))
            if change.kind == "ready":
                break
        self.assertEqual(told, [("added", oid, None) for oid in MODULES] + [("ready", 0, True)])
        self.assertEqual(mirror.state, "ready")

    def test_goes_on_behind_a_break(self):
        mirror = modules()
        oids = []
        for _ in MODULES:
            for change in mirror:
                oids.append(change.oid)
                break
        self.assertEqual(oids, MODULES)

    def test_fits_into_a_loop(self):
        mirror = modules()
        poller = select.poll()
        poller.register(mirror, select.POLLIN)
        kinds = []
        while "ready" not in kinds:
            self.assertTrue(poller.poll(DEADLINE * 1000))
            kinds += [change.kind for change in mirror.process()]
        self.assertEqual(kinds, ["added"] * 3 + ["ready"])

    def test_raises_what_a_callback_met_behind_what_was_told(self):
        copied = quillondb._copied

        def fail_at_last(row):
            made = copied(row)
            if made.oid == MODULES[-1]:
                raise MemoryError
            return made

        mirror = modules()
        oids = []
        with unittest.mock.patch("quillondb._copied", fail_at_last):
            with self.assertRaises(MemoryError):
                for change in mirror:
                    oids.append(change.oid)
        self.assertEqual(oids, MODULES[:-1])
        self.assertRaises(MemoryError, mirror.process)

    def test_stops_when_another_thread_says_so(self):
        mirror = modules()
        stopper = threading.Thread(target=mirror.stop)
        kinds = []
        for change in mirror:
            kinds.append(change.kind)
            if change.kind == "ready":
                stopper.start()
        stopper.join()
        self.assertEqual(kinds[-1], "ready")

    def test_a_handler_of_a_signal_in_a_callback_is_heard(self):
        copied = quillondb._copied

        def interrupt(row):
            os.kill(os.getpid(), signal.SIGINT)
            return copied(row)

        mirror = modules()
        with unittest.mock.patch("quillondb._copied", interrupt):
            with self.assertRaises(KeyboardInterrupt):
                for _ in mirror:
                    pass
        # All rows had been told by then.
        self.assertEqual([change.oid for change in mirror.process()][:3], MODULES)


if __name__ == "__main__":
    unittest.main(verbosity=2)
