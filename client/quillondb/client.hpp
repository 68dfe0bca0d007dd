// client.h for C++20: a handle that closes itself, rows that are asked by the
// names of their columns, and callbacks that may be anything.
//
//     quillondb::Mirror mirror({.changed = print});
//     mirror.Run();
//
// Failures are std::system_error with the number that client.h tells of. An
// exception that a callback throws doesn't pass through the library: nothing is
// told any more, and the call that was under way throws it.
//
// What client.h says of threads and of callbacks holds here, too.
#pragma once

#include "quillondb/rows.hpp"

#include <cerrno>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace quillondb
{

class Mirror
{
  public:
    explicit Mirror(Handlers handlers = {}, const Options &options = {})
        : told_(std::make_unique<Told>())
    {
        std::vector<const char *> tables;
        for (const std::string &table : options.tables)
        {
            tables.push_back(table.c_str());
        }
        tables.push_back(nullptr);
        qdb_options given = QDB_OPTIONS_INIT;
        given.database =
            options.database.empty() ? nullptr : options.database.c_str();
        given.bus = options.bus.empty() ? nullptr : options.bus.c_str();
        given.tables = options.tables.empty() ? nullptr : tables.data();
        given.busy_ms = static_cast<int>(options.busy.count());
        given.user = told_.get();
        given.row_added = OnAdded;
        given.row_changed = OnChanged;
        given.row_removed = OnRemoved;
        given.ready = OnReady;
        given.resynced = OnResynced;
        told_->handlers = std::move(handlers);
        qdb_mirror *made = nullptr;
        Check(qdb_mirror_open(&given, &made), "qdb_mirror_open");
        told_->mirror.reset(made);
    }

    // For poll(): readable when Process() has something to do.
    int Fd() const
    {
        return qdb_mirror_fd(Handle());
    }

    // Does what there is to do. True when it should be called again before the
    // descriptor is waited for. Throws what a callback threw, and does so for
    // ever after: differences that weren't taken in are not told again.
    bool Process()
    {
        Rethrow();
        const int result = qdb_mirror_process(Handle());
        Rethrow();
        return Check(result, "qdb_mirror_process") > 0;
    }

    // Processes and waits until Stop(). Throws as Process().
    void Run()
    {
        Rethrow();
        const int result = qdb_mirror_run(Handle());
        Rethrow();
        Check(result, "qdb_mirror_run");
    }

    // From callbacks, signal handlers and other threads, too.
    void Stop() noexcept
    {
        qdb_mirror_stop(Handle());
    }

    // Why rows are told, or aren't.
    qdb_state State() const
    {
        return qdb_mirror_state(Handle());
    }

    // The names of the object tables. ENODATA without a database.
    std::vector<std::string> Tables()
    {
        const char *const *name = qdb_tables(Handle());
        Check(name == nullptr ? -ENODATA : 0, "qdb_tables");
        std::vector<std::string> names;
        for (; *name != nullptr; ++name)
        {
            names.emplace_back(*name);
        }
        return names;
    }

    // The columns of a table, in its order.
    std::vector<Column> Columns(const char *table)
    {
        const qdb_column *column = nullptr;
        const int count = Check(qdb_mirror_columns(Handle(), table, &column),
                                "qdb_mirror_columns");
        std::vector<Column> columns;
        for (int i = 0; i < count; ++i)
        {
            columns.push_back({column[i].name, column[i].type});
        }
        return columns;
    }

    // How many rows a table has.
    size_t Count(const char *table)
    {
        return static_cast<size_t>(
            Check(qdb_mirror_count(Handle(), table), "qdb_mirror_count"));
    }

    // These give rows of the database as it is now, and return how many there
    // were. They throw what the reader throws, which ends them.
    using Reader = std::function<void(const Row &)>;

    size_t Get(const char *table, int64_t oid, const Reader &reader)
    {
        Reading reading{reader};
        return reading.End(
            qdb_mirror_get(Handle(), table, oid, OnRow, &reading));
    }

    size_t GetByKey(const char *table, const char *key, const Reader &reader)
    {
        Reading reading{reader};
        return reading.End(
            qdb_mirror_get_by_key(Handle(), table, key, OnRow, &reading));
    }

    size_t Each(const char *table, const Reader &reader)
    {
        Reading reading{reader};
        return reading.End(qdb_mirror_each(Handle(), table, OnRow, &reading));
    }

    // The rows that one statement selects; what is wrong with one is in the
    // text of the failure.
    size_t Select(const char *sql, const Reader &reader)
    {
        qdb_result *made = nullptr;
        const int failure = qdb_mirror_select(Handle(), sql, &made);
        const std::unique_ptr<qdb_result, Close> result(made);
        Check(failure, qdb_mirror_error(Handle()));
        for (size_t i = 0; i < qdb_result_count(made); ++i)
        {
            reader(Row(qdb_result_row(made, i)));
        }
        return qdb_result_count(made);
    }

  private:
    struct Close
    {
        void operator()(qdb_mirror *mirror) const
        {
            qdb_mirror_close(mirror);
        }
        void operator()(qdb_result *result) const
        {
            qdb_result_free(result);
        }
    };

    // What the callbacks are given; it stays where it is.
    struct Told
    {
        Handlers handlers = {};
        std::exception_ptr thrown = {};
        std::unique_ptr<qdb_mirror, Close> mirror = {};

        template <typename Handler, typename... Arguments>
        void Call(const Handler &handler,
                  const Arguments &...arguments) noexcept
        {
            if (!handler || thrown)
            {
                return;
            }
            try
            {
                handler(arguments...);
            }
            catch (...)
            {
                thrown = std::current_exception();
                qdb_mirror_stop(mirror.get());
            }
        }
    };

    struct Reading
    {
        const Reader &reader;
        std::exception_ptr thrown = {};

        size_t End(int result) const
        {
            if (thrown)
            {
                std::rethrow_exception(thrown);
            }
            return static_cast<size_t>(Check(result, "reading a table"));
        }
    };

    template <typename Number>
    static Number Check(Number result, const char *what)
    {
        if (result < 0)
        {
            throw std::system_error(static_cast<int>(-result),
                                    std::generic_category(), what);
        }
        return result;
    }

    static Told &At(void *user)
    {
        return *static_cast<Told *>(user);
    }

    static void OnAdded(void *user, const qdb_row *row) noexcept
    {
        At(user).Call(At(user).handlers.added, Row(row));
    }

    static void OnChanged(void *user, const qdb_change *change) noexcept
    {
        At(user).Call(At(user).handlers.changed, Change(change));
    }

    static void OnRemoved(void *user, const qdb_row *row) noexcept
    {
        At(user).Call(At(user).handlers.removed, Row(row));
    }

    static void OnReady(void *user, int isReady) noexcept
    {
        At(user).Call(At(user).handlers.ready, isReady != 0);
    }

    static void OnResynced(void *user, qdb_reason reason, size_t added,
                           size_t changed, size_t removed) noexcept
    {
        At(user).Call(At(user).handlers.resynced,
                      Resync{reason, added, changed, removed});
    }

    static int OnRow(void *user, const qdb_row *row) noexcept
    {
        auto *reading = static_cast<Reading *>(user);
        try
        {
            reading->reader(Row(row));
            return 0;
        }
        catch (...)
        {
            reading->thrown = std::current_exception();
            return 1;
        }
    }

    qdb_mirror *Handle() const
    {
        return told_->mirror.get();
    }

    void Rethrow() const
    {
        if (told_->thrown)
        {
            std::rethrow_exception(told_->thrown);
        }
    }

    std::unique_ptr<Told> told_;
};

} // namespace quillondb
