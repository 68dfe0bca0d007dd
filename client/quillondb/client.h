/* Reading and following QuillonDB's mirror.
 *
 * A mirror handle gives the rows as they are, and tells of each difference
 * exactly once: whatever is lost, restarted or replaced meanwhile, who begins
 * with what it was told first, and applies what it is told since, has the
 * tables.
 *
 *     qdb_options options = QDB_OPTIONS_INIT;
 *     options.row_changed = print;
 *     qdb_mirror *mirror = NULL;
 *     if (qdb_mirror_open(&options, &mirror) == 0)
 *         qdb_mirror_run(mirror);
 *
 * All functions of one handle belong to one thread. Nothing here starts a
 * thread, writes to the database, or holds it for longer than one statement.
 * Functions that return int give 0, or more where they say so, or a negative
 * errno.
 */
#ifndef QUILLONDB_CLIENT_H
#define QUILLONDB_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

    typedef struct qdb_mirror qdb_mirror;

    /* --- Rows ---
     *
     * A row belongs to the library, and is valid until the callback that was
     * given it returns. Its columns are those of the table, in the table's
     * order; an array property is the column of its name, as a JSON text.
     */

    typedef struct qdb_row qdb_row;

    enum qdb_type
    {
        QDB_NULL = 0,
        QDB_INTEGER = 1,
        QDB_REAL = 2,
        QDB_TEXT = 3,
        QDB_JSON = 4, /* the elements of an array property */
    };

    const char *qdb_row_table(const qdb_row *row);
    int64_t qdb_row_oid(const qdb_row *row);

    /* The object's key or name; "" for a table without such a column. */
    const char *qdb_row_key(const qdb_row *row);

    size_t qdb_row_count(const qdb_row *row);

    /* By the place of a column, below qdb_row_count(). The text of any value
     * but NULL, for which it is NULL. */
    const char *qdb_row_name(const qdb_row *row, size_t column);
    enum qdb_type qdb_row_type(const qdb_row *row, size_t column);
    const char *qdb_row_text(const qdb_row *row, size_t column);
    int64_t qdb_row_integer(const qdb_row *row, size_t column);
    double qdb_row_real(const qdb_row *row, size_t column);

    /* The place of a column; qdb_row_count() when the table has none of the
     * name. */
    size_t qdb_row_find(const qdb_row *row, const char *name);

    /* --- Changes --- */

    typedef struct qdb_change qdb_change;

    /* The row as it now is. */
    const qdb_row *qdb_change_row(const qdb_change *change);

    /* How many columns differ from what was told of the row before; -1 when
     * that isn't known, as behind a loss: any may. */
    int qdb_change_count(const qdb_change *change);

    /* The place of the i-th of them in the row. */
    size_t qdb_change_column(const qdb_change *change, size_t i);

    /* What the i-th was, as a text, in *text; NULL for NULL. Returns 0 when the
     * old value isn't known. */
    int qdb_change_old(const qdb_change *change, size_t i, const char **text);

    enum qdb_reason
    {
        QDB_LOST_SIGNALS = 1,  /* the bus dropped some of the service's */
        QDB_NEW_SERVICE = 2,   /* the service has been started anew */
        QDB_NEW_DATABASE = 3,  /* another file is in the database's place */
        QDB_NEW_BUS = 4,       /* the bus was gone */
        QDB_SILENT_CHANGE = 5, /* rows came, changed or went without a signal */
    };

    /* --- Following --- */

    typedef struct qdb_options
    {
        size_t size;               /* sizeof(qdb_options) */
        const char *database;      /* path; NULL: where it is installed */
        const char *bus;           /* address; NULL: the system bus */
        const char *const *tables; /* up to a NULL; NULL: all object tables */
        int busy_ms;               /* a call waits no longer for the database */
        void *user;                /* is given to the callbacks */

        /* Any may be NULL. They may call all functions that read, and
         * qdb_mirror_stop(), and no other. */
        void (*row_added)(void *user, const qdb_row *row);
        void (*row_changed)(void *user, const qdb_change *change);
        /* `row` is the last that was told, as far as it is known; OID, table
         * and, mostly, key are. */
        void (*row_removed)(void *user, const qdb_row *row);
        /* 1: all rows that there are have been told, and changes follow; 0:
         * nothing is told until the next 1, since service, bus or database are
         * away. */
        void (*ready)(void *user, int is_ready);
        /* The tables were read again, and so many rows told of since it began.
         */
        void (*resynced)(void *user, enum qdb_reason reason, size_t added,
                         size_t changed, size_t removed);
    } qdb_options;

#define QDB_OPTIONS_INIT                                                       \
    {                                                                          \
        sizeof(qdb_options), NULL, NULL, NULL, 1000, NULL, NULL, NULL, NULL,   \
            NULL, NULL                                                         \
    }

    /* Makes a handle; nothing is told before the first process(). Neither bus
     * nor database need be there. -EINVAL for options of no known size; *mirror
     * stays as it is on failure. The options are copied, with what they point
     * to. */
    int qdb_mirror_open(const qdb_options *options, qdb_mirror **mirror);

    /* NULL is fine. Not in a callback. */
    void qdb_mirror_close(qdb_mirror *mirror);

    /* A descriptor that is readable (POLLIN) when qdb_mirror_process() has
     * something to do; the same for the handle's life. */
    int qdb_mirror_fd(const qdb_mirror *mirror);

    /* Does what there is to do, with callbacks. Returns 1 when there is more to
     * do, so that it should be called again before the descriptor is waited
     * for. */
    int qdb_mirror_process(qdb_mirror *mirror);

    /* Why rows are told, or aren't. */
    enum qdb_state
    {
        QDB_READY = 0,       /* changes are told as they come */
        QDB_NO_BUS = 1,      /* the bus can't be reached, or hasn't answered */
        QDB_NO_DATABASE = 2, /* there is no file, or none with tables */
        QDB_NO_SERVICE = 3,  /* the service has left the bus */
        QDB_FILLING = 4,     /* nothing tells yet that the tables are filled */
        QDB_BUSY = 5,        /* others hold the database */
    };
    enum qdb_state qdb_mirror_state(const qdb_mirror *mirror);

    /* Processes and waits until qdb_mirror_stop(), which a callback, a signal
     * handler or another thread may call; at once, if that came before. */
    int qdb_mirror_run(qdb_mirror *mirror);
    void qdb_mirror_stop(qdb_mirror *mirror);

    /* --- Reading ---
     *
     * The database as it is now, whatever has been told. -ENOENT for a table
     * that isn't there, -EBUSY when the database stayed busy, -ENODATA when the
     * file isn't there or holds no tables.
     */

    /* The names of the object tables, up to a NULL; NULL when there is no
     * database. They are the handle's, until its next call from outside a
     * callback. */
    const char *const *qdb_tables(qdb_mirror *mirror);

    typedef struct qdb_column
    {
        const char *name;
        const char *type; /* as the table declares it, such as "INTEGER" */
    } qdb_column;

    /* The columns of a table, in its order, in *columns. Returns how many. They
     * are the handle's, as the names of the tables are. */
    int qdb_mirror_columns(qdb_mirror *mirror, const char *table,
                           const qdb_column **columns);

    /* How many rows a table has. */
    int64_t qdb_mirror_count(qdb_mirror *mirror, const char *table);

    typedef int (*qdb_row_callback)(void *user, const qdb_row *row);

    /* Gives the row of the OID, or each of the key. Returns how many there
     * were. A callback that returns another value than 0 ends it. */
    int qdb_mirror_get(qdb_mirror *mirror, const char *table, int64_t oid,
                       qdb_row_callback callback, void *user);
    int qdb_mirror_get_by_key(qdb_mirror *mirror, const char *table,
                              const char *key, qdb_row_callback callback,
                              void *user);

    /* Gives all rows of a table, some at a time: between callbacks the database
     * is free. Returns how many there were. */
    int qdb_mirror_each(qdb_mirror *mirror, const char *table,
                        qdb_row_callback callback, void *user);

    /* --- Statements of one's own ---
     *
     * All rows are in memory, and the database is free, before the first is
     * looked at. A row of them has no key, and an OID if there is such a
     * column; a BLOB is a text as SQL writes it, x'0a'.
     */

    typedef struct qdb_result qdb_result;

    /* Gives what one statement selects in *result, which ends with
     * qdb_result_free() and may outlive the handle. -EPERM when it would do
     * more than read, -EINVAL when it is wrong, -EIO when the file is,
     * otherwise as above; *result stays as it is then. */
    int qdb_mirror_select(qdb_mirror *mirror, const char *sql,
                          qdb_result **result);

    /* What was wrong with the last statement, for people; "" for one that
     * wasn't. The handle's until the next one. */
    const char *qdb_mirror_error(const qdb_mirror *mirror);

    size_t qdb_result_columns(const qdb_result *result);
    const char *qdb_result_name(const qdb_result *result, size_t column);
    size_t qdb_result_count(const qdb_result *result);
    const qdb_row *qdb_result_row(const qdb_result *result, size_t i);
    void qdb_result_free(qdb_result *result); /* NULL is fine */

#ifdef __cplusplus
}
#endif

#endif
