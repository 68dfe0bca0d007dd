// Commands that print rows: tables, get and sql.
#include "tools/qdb/command.h"
#include "tools/qdb/grid.h"
#include "tools/qdb/select.h"
#include "tools/qdb/value.h"

#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <optional>
#include <vector>

namespace qdb::tool
{
namespace
{

struct ReadOptions
{
    std::string database;
    bool isJson = false;
    bool isCsv = false;
    std::string sql;
    std::string table;
    std::string object; // OID or key; "": all
    std::vector<std::string> columns;
};

Style StyleOf(const ReadOptions &options)
{
    Style style;
    style.form = options.isJson  ? Form::Json
                 : options.isCsv ? Form::Csv
                                 : Form::People;
    style.isTerminal = IsTerminal();
    style.isColoured = IsColoured();
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
    {
        style.width = size.ws_col;
    }
    return style;
}

MirrorPtr OpenDatabase(const ReadOptions &options)
{
    qdb_options given = QDB_OPTIONS_INIT;
    given.database = options.database.c_str();
    given.busy_ms = 5000;
    return OpenMirror(given);
}

int Tables(const ReadOptions &options)
{
    const MirrorPtr mirror = OpenDatabase(options);
    const char *const *name = qdb_tables(mirror.get());
    if (name == nullptr)
    {
        throw Failure("no database with tables at " + options.database);
    }
    // All tables of one moment.
    std::string sql;
    for (; *name != nullptr; ++name)
    {
        sql += sql.empty() ? "SELECT '" : " UNION ALL SELECT '";
        sql += *name;
        sql += "' AS \"table\", count(*) AS \"rows\" FROM " + QuotedName(*name);
    }
    Print(GridText(MustSelect(mirror.get(), options.database, sql),
                   StyleOf(options)));
    return kFine;
}

int Sql(const ReadOptions &options)
{
    const MirrorPtr mirror = OpenDatabase(options);
    Print(GridText(MustSelect(mirror.get(), options.database, options.sql),
                   StyleOf(options)));
    return kFine;
}

// --- get -------------------------------------------------------------------

// Decimal, or hexadecimal with 0x; OIDs above 0x7FFFFFFF are negative in the
// database.
std::optional<int64_t> OidOf(const std::string &text)
{
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char *end = text.data() + text.size();
    int64_t number = 0;
    const auto result = std::from_chars(text.data() + (isHex ? 2 : 0), end,
                                        number, isHex ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end)
    {
        return std::nullopt;
    }
    return number > INT32_MAX && number <= UINT32_MAX
               ? static_cast<int32_t>(static_cast<uint32_t>(number))
               : number;
}

// What is to be had of each row, and what has been had.
struct Taking
{
    Grid grid;
    std::vector<size_t> places; // of the columns
};

int Take(void *user, const qdb_row *row)
{
    auto &taking = *static_cast<Taking *>(user);
    auto &values = taking.grid.rows.emplace_back();
    for (const size_t place : taking.places)
    {
        values.push_back(ColumnValue(row, place));
    }
    return 0;
}

// Rows needn't be there for a table to have columns.
std::vector<std::string> ColumnsOf(qdb_mirror *mirror,
                                   const ReadOptions &options)
{
    const qdb_column *columns = nullptr;
    const int count =
        qdb_mirror_columns(mirror, options.table.c_str(), &columns);
    if (count < 0)
    {
        throw FailureOf(count, options.table, options.database);
    }
    std::vector<std::string> names;
    std::transform(columns, columns + count, std::back_inserter(names),
                   [](const qdb_column &column)
                   {
                       return column.name;
                   });
    return names;
}

Taking TakingOf(qdb_mirror *mirror, const ReadOptions &options)
{
    const std::vector<std::string> all = ColumnsOf(mirror, options);
    Taking taking;
    for (const std::string &name :
         options.columns.empty() ? all : options.columns)
    {
        // As in SQL, where case doesn't matter.
        const auto found = std::ranges::find_if(
            all,
            [&](const std::string &column)
            {
                return strcasecmp(column.c_str(), name.c_str()) == 0;
            });
        if (found == all.end())
        {
            throw Failure("no column " + name + " in " + options.table);
        }
        taking.grid.columns.push_back(*found);
        taking.places.push_back(static_cast<size_t>(found - all.begin()));
    }
    return taking;
}

int Get(const ReadOptions &options)
{
    const MirrorPtr mirror = OpenDatabase(options);
    Taking taking = TakingOf(mirror.get(), options);
    const char *table = options.table.c_str();
    int count = 0;
    if (options.object.empty())
    {
        count = qdb_mirror_each(mirror.get(), table, Take, &taking);
    }
    else if (const auto oid = OidOf(options.object))
    {
        count = qdb_mirror_get(mirror.get(), table, *oid, Take, &taking);
    }
    // A number may be a key, too.
    if (!options.object.empty() && count == 0)
    {
        count = qdb_mirror_get_by_key(mirror.get(), table,
                                      options.object.c_str(), Take, &taking);
    }
    if (count < 0)
    {
        throw FailureOf(count, options.table, options.database);
    }
    if (!options.object.empty() && count == 0)
    {
        throw Failure("no " + options.object + " in " + options.table);
    }
    Print(GridText(taking.grid, StyleOf(options)));
    return kFine;
}

// --- The command line ------------------------------------------------------

CLI::App *AddCommand(CLI::App &app, const char *name, const char *what,
                     int (*work)(const ReadOptions &),
                     const std::shared_ptr<ReadOptions> &options, Work *pWork)
{
    CLI::App *command = app.add_subcommand(name, what);
    AddDatabaseOption(*command, &options->database);
    CLI::Option *json =
        command->add_flag("--json", options->isJson, "a JSON object per line");
    command->add_flag("--csv", options->isCsv, "comma-separated, with names")
        ->excludes(json);
    command->callback(
        [work, options, pWork]
        {
            *pWork = [work, options]
            {
                return work(*options);
            };
        });
    return command;
}

} // namespace

void AddReadCommands(CLI::App &app, Work *pWork)
{
    const auto options = std::make_shared<ReadOptions>();
    AddCommand(app, "tables", "the object tables, and how many rows they have",
               Tables, options, pWork);

    CLI::App *get = AddCommand(app, "get", "rows of a table, arrays included",
                               Get, options, pWork);
    get->add_option("TABLE", options->table, "as qdb tables names it")
        ->required();
    get->add_option("OBJECT", options->object,
                    "OID, also as 0x..., or key of a row; otherwise all rows");
    get->add_option("--column", options->columns,
                    "only this column; may be given repeatedly")
        ->type_name("NAME")
        ->allow_extra_args(false);

    CLI::App *sql = AddCommand(app, "sql", "what a SELECT of yours gives", Sql,
                               options, pWork);
    sql->add_option("STATEMENT", options->sql, "one that only reads")
        ->required();
}

} // namespace qdb::tool
