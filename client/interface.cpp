// The C interface of a handle.
#include "client/mirror.h"
#include "client/select.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

using qdb::client::Stamp;
using qdb::client::Table;

extern "C"
{

    int qdb_mirror_open(const qdb_options *options, qdb_mirror **mirror)
    {
        qdb_options copy = QDB_OPTIONS_INIT;
        if (options == nullptr || options->size < offsetof(qdb_options, user) ||
            options->size > sizeof(copy))
        {
            return -EINVAL;
        }
        std::memcpy(&copy, options, options->size);
        copy.size = sizeof(copy);
        auto *made = new (std::nothrow) qdb_mirror(copy);
        if (made == nullptr)
        {
            return -ENOMEM;
        }
        if (made->epoll < 0 || made->timer < 0 || made->wake < 0)
        {
            delete made;
            return -EMFILE;
        }
        *mirror = made;
        return 0;
    }

    void qdb_mirror_close(qdb_mirror *mirror)
    {
        delete mirror;
    }

    int qdb_mirror_fd(const qdb_mirror *mirror)
    {
        return mirror->epoll;
    }

    int qdb_mirror_process(qdb_mirror *mirror)
    {
        return mirror->Process();
    }

    int qdb_mirror_run(qdb_mirror *mirror)
    {
        while (!mirror->isStopped)
        {
            if (mirror->Process() == 0 && !mirror->isStopped)
            {
                pollfd entry = {mirror->epoll, POLLIN, 0};
                if (poll(&entry, 1, -1) < 0 && errno != EINTR)
                {
                    return -errno;
                }
            }
        }
        mirror->isStopped = false;
        return 0;
    }

    const char *const *qdb_tables(qdb_mirror *mirror)
    {
        if (!mirror->OpenDatabase())
        {
            return nullptr;
        }
        mirror->tables.clear();
        for (const Table &table : mirror->database.Tables())
        {
            mirror->tables.push_back(table.name.c_str());
        }
        mirror->tables.push_back(nullptr);
        return mirror->tables.data();
    }

    int qdb_mirror_get(qdb_mirror *mirror, const char *table, int64_t oid,
                       qdb_row_callback callback, void *user)
    {
        const Table *found = nullptr;
        const int result = mirror->FindTable(table, &found);
        return result != 0 ? result
                           : mirror->Give(*found, {oid}, callback, user);
    }

    int qdb_mirror_get_by_key(qdb_mirror *mirror, const char *table,
                              const char *key, qdb_row_callback callback,
                              void *user)
    {
        const Table *found = nullptr;
        std::vector<int64_t> oids;
        int result = mirror->FindTable(table, &found);
        result =
            result != 0 ? result : mirror->database.FindKey(*found, key, &oids);
        return result != 0 ? result
                           : mirror->Give(*found, oids, callback, user);
    }

    int qdb_mirror_each(qdb_mirror *mirror, const char *table,
                        qdb_row_callback callback, void *user)
    {
        const Table *found = nullptr;
        std::vector<Stamp> stamps;
        int result = mirror->FindTable(table, &found);
        result =
            result != 0 ? result : mirror->database.Stamps(*found, &stamps);
        std::vector<int64_t> oids;
        std::ranges::transform(stamps, std::back_inserter(oids), &Stamp::oid);
        return result != 0 ? result
                           : mirror->Give(*found, oids, callback, user);
    }

    qdb_state qdb_mirror_state(const qdb_mirror *mirror)
    {
        return mirror->state;
    }

    int64_t qdb_mirror_count(qdb_mirror *mirror, const char *table)
    {
        const Table *found = nullptr;
        int64_t count = 0;
        int result = mirror->FindTable(table, &found);
        result = result != 0 ? result : mirror->database.Count(*found, &count);
        return result != 0 ? result : count;
    }

    int qdb_mirror_columns(qdb_mirror *mirror, const char *table,
                           const qdb_column **columns)
    {
        const Table *found = nullptr;
        if (const int result = mirror->FindTable(table, &found))
        {
            return result;
        }
        mirror->columns.clear();
        for (size_t i = 0; i < found->columns.size(); ++i)
        {
            mirror->columns.push_back(
                {found->columns[i].c_str(), found->types[i].c_str()});
        }
        *columns = mirror->columns.data();
        return static_cast<int>(mirror->columns.size());
    }

    int qdb_mirror_select(qdb_mirror *mirror, const char *sql,
                          qdb_result **result)
    {
        auto made = std::make_unique<qdb_result>();
        const int status = qdb::client::Select(mirror->database.Path(),
                                               mirror->database.BusyMs(), sql,
                                               made.get(), &mirror->error);
        *result = status == 0 ? made.release() : *result;
        return status;
    }

    const char *qdb_mirror_error(const qdb_mirror *mirror)
    {
        return mirror->error.c_str();
    }

    void qdb_mirror_stop(qdb_mirror *mirror)
    {
        const uint64_t one = 1;
        mirror->isStopped = true;
        static_cast<void>(!write(mirror->wake, &one, sizeof(one)));
    }
}
