/* Prints each change of a table, from a loop of the program's own. */
#include "quillondb/client.h"

#include <poll.h>
#include <stdio.h>
#include <string.h>

static void Print(const char *what, const qdb_row *row)
{
    const size_t speed = qdb_row_find(row, "Speed");
    const char *text =
        speed < qdb_row_count(row) ? qdb_row_text(row, speed) : NULL;
    printf("%s %lld %s\n", what, (long long)qdb_row_oid(row),
           text == NULL ? "NULL" : text);
    fflush(stdout);
}

static void OnAdded(void *user, const qdb_row *row)
{
    (void)user;
    Print("added", row);
}

static void OnChanged(void *user, const qdb_change *change)
{
    (void)user;
    Print("changed", qdb_change_row(change));
}

static void OnRemoved(void *user, const qdb_row *row)
{
    (void)user;
    Print("removed", row);
}

int main(int argc, char **argv)
{
    const char *tables[] = {"TblMemoryInfo", NULL};
    qdb_options options = QDB_OPTIONS_INIT;
    options.database = argc > 1 ? argv[1] : NULL;
    options.tables = tables;
    options.row_added = OnAdded;
    options.row_changed = OnChanged;
    options.row_removed = OnRemoved;
    qdb_mirror *mirror = NULL;
    int result = qdb_mirror_open(&options, &mirror);
    while (result >= 0)
    {
        /* The program's other descriptors belong here, too. */
        struct pollfd entry = {qdb_mirror_fd(mirror), POLLIN, 0};
        poll(&entry, 1, result == 0 ? -1 : 0);
        result = qdb_mirror_process(mirror);
    }
    fprintf(stderr, "%s\n", strerror(-result));
    qdb_mirror_close(mirror);
    return 1;
}
