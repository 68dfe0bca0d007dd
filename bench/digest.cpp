#include "bench/digest.h"

#include "db/statement.h"

#include <sqlite3.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace qdb::bench
{
namespace
{

constexpr std::string_view kTag = "SingleRecordEtag";
constexpr std::string_view kTagMember = ", \"SingleRecordEtag\": \"";

struct Connection
{
    explicit Connection(const std::string &path)
    {
        if (sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY,
                            nullptr) != SQLITE_OK)
        {
            sqlite3_close(handle);
            throw std::runtime_error("can't read " + path);
        }
        sqlite3_busy_timeout(handle, 10000);
    }
    ~Connection()
    {
        sqlite3_close(handle);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    StatementPtr Prepare(const std::string &sql) const
    {
        sqlite3_stmt *made = nullptr;
        if (sqlite3_prepare_v2(handle, sql.c_str(), -1, &made, nullptr) !=
            SQLITE_OK)
        {
            throw std::runtime_error(sqlite3_errmsg(handle));
        }
        return StatementPtr(made);
    }

    sqlite3 *handle = nullptr;
};

// False at the end.
bool NextRow(const StatementPtr &statement)
{
    const int status = sqlite3_step(statement.get());
    if (status != SQLITE_ROW && status != SQLITE_DONE)
    {
        throw std::runtime_error(
            sqlite3_errmsg(sqlite3_db_handle(statement.get())));
    }
    return status == SQLITE_ROW;
}

std::string_view TextOf(const StatementPtr &statement, int column)
{
    const auto *text = reinterpret_cast<const char *>(
        sqlite3_column_text(statement.get(), column));
    return {text == nullptr ? "" : text,
            static_cast<size_t>(sqlite3_column_bytes(statement.get(), column))};
}

uint64_t RowDigest(const StatementPtr &row, uint64_t seed)
{
    const int columns = sqlite3_column_count(row.get());
    for (int i = 0; i < columns; ++i)
    {
        if (sqlite3_column_name(row.get(), i) != kTag)
        {
            const auto type =
                static_cast<uint64_t>(sqlite3_column_type(row.get(), i));
            seed = Digest(TextOf(row, i), seed * 31 + type);
        }
    }
    return seed;
}

std::vector<std::string> TableNames(const Connection &connection)
{
    const StatementPtr names = connection.Prepare(
        "SELECT name FROM sqlite_schema WHERE type = 'table'");
    std::vector<std::string> tables;
    while (NextRow(names))
    {
        tables.emplace_back(TextOf(names, 0));
    }
    return tables;
}

bool HasTag(const StatementPtr &rows)
{
    const int columns = sqlite3_column_count(rows.get());
    return sqlite3_column_name(rows.get(), columns - 1) == kTag;
}

void AddTable(const Connection &connection, const std::string &table,
              RowsDigest *pSum)
{
    const StatementPtr rows = connection.Prepare("SELECT * FROM " + table);
    const uint64_t seed = Digest(table, 0);
    while (NextRow(rows))
    {
        pSum->digest += RowDigest(rows, seed);
        pSum->objects += HasTag(rows);
        pSum->mapped += table == "ActiveOIDMapping";
    }
}

} // namespace

uint64_t Digest(std::string_view text, uint64_t seed)
{
    constexpr uint64_t kFactor = 0x9E3779B97F4A7C15;
    const auto mix = [&](uint64_t word)
    {
        seed = (seed ^ word) * kFactor;
        seed ^= seed >> 29;
    };
    mix(text.size());
    uint64_t word = 0;
    while (text.size() >= sizeof(word))
    {
        std::memcpy(&word, text.data(), sizeof(word));
        mix(word);
        text.remove_prefix(sizeof(word));
    }
    word = 0;
    std::memcpy(&word, text.data(), text.size());
    mix(word);
    return seed;
}

// The whole member goes, since whether a change lists the tag depends on the
// time between two writings of the row.
uint64_t SignalDigest(std::string_view member, std::string_view text)
{
    std::string rest;
    rest.reserve(text.size());
    size_t tag = text.find(kTagMember);
    while (tag != std::string_view::npos)
    {
        rest += text.substr(0, tag);
        text.remove_prefix(text.find('"', tag + kTagMember.size()) + 1);
        tag = text.find(kTagMember);
    }
    rest += text;
    return Digest(rest, Digest(member, 0));
}

RowsDigest DigestRows(const std::string &database)
{
    const Connection connection(database);
    RowsDigest sum = {};
    for (const std::string &table : TableNames(connection))
    {
        if (table != "TblEtag")
        {
            AddTable(connection, table, &sum);
        }
    }
    return sum;
}

} // namespace qdb::bench
