#!/bin/sh
# Prints what differs in a table from one second to the next, by sqlite3 alone.
# Changes in between are not seen.
#
#   watch.sh [DATABASE]
set -eu
database=${1-/var/run/quillondatabase/DMLiveObjectDatabase.db}
folder=$(mktemp -d)
trap 'rm -r "$folder"' EXIT
trap 'exit 0' INT TERM
: >"$folder/old"
while sleep 1; do
    # A database that is away or busy is looked at again.
    sqlite3 -readonly -cmd '.timeout 5000' "$database" \
        'SELECT OID, Speed FROM TblMemoryInfo ORDER BY OID' \
        >"$folder/new" 2>/dev/null || continue
    diff "$folder/old" "$folder/new" | grep '^[<>]' || true
    mv "$folder/new" "$folder/old"
done
