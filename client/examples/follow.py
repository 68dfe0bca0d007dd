import sys
from quillondb import Mirror

for change in Mirror(tables=["TblMemoryInfo"], database=(sys.argv[1:] or [None])[0]):
    print(change.kind, change.oid, change.row["Speed"], flush=True)
