/* Prints what changes in a row, and what was there before, from sd-event's
 * loop; ends in order by SIGTERM. */
#include "quillondb/client.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>

static void OnAdded(void *user, const qdb_row *row)
{
    (void)user;
    printf("added %lld\n", (long long)qdb_row_oid(row));
}

static void OnChanged(void *user, const qdb_change *change)
{
    (void)user;
    const qdb_row *row = qdb_change_row(change);
    printf("changed %lld", (long long)qdb_row_oid(row));
    for (int i = 0; i < qdb_change_count(change); ++i)
    {
        const size_t column = qdb_change_column(change, (size_t)i);
        const char *now = qdb_row_text(row, column);
        const char *old = NULL;
        const int is_known = qdb_change_old(change, (size_t)i, &old);
        printf(" %s %s->%s", qdb_row_name(row, column),
               !is_known     ? "?"
               : old == NULL ? "NULL"
                             : old,
               now == NULL ? "NULL" : now);
    }
    printf("\n");
}

static void OnRemoved(void *user, const qdb_row *row)
{
    (void)user;
    printf("removed %lld\n", (long long)qdb_row_oid(row));
}

static int OnReadable(sd_event_source *source, int fd, uint32_t events,
                      void *mirror)
{
    (void)fd;
    (void)events;
    int result = 1;
    while (result > 0)
    {
        result = qdb_mirror_process(mirror);
    }
    fflush(stdout);
    return result == 0 ? 0
                       : sd_event_exit(sd_event_source_get_event(source), 1);
}

/* A blocked SIGTERM without a handler ends the loop. */
static int Follow(qdb_mirror *mirror)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    sd_event *event = NULL;
    int result = sd_event_default(&event);
    if (result >= 0)
    {
        result = sd_event_add_signal(event, NULL, SIGTERM, NULL, NULL);
    }
    if (result >= 0)
    {
        result = sd_event_add_io(event, NULL, qdb_mirror_fd(mirror), EPOLLIN,
                                 OnReadable, mirror);
    }
    if (result >= 0)
    {
        result = sd_event_loop(event);
    }
    sd_event_unref(event);
    return result;
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
    if (result == 0)
    {
        result = Follow(mirror);
    }
    qdb_mirror_close(mirror);
    if (result < 0)
    {
        fprintf(stderr, "%s\n", strerror(-result));
    }
    return result == 0 ? 0 : 1;
}
