#include "tests/support/stream_recorder.h"

#include "objects/catalogue.h"
#include "tests/support/handler_fixture.h"

#include <algorithm>
#include <functional>
#include <set>
#include <thread>
#include <utility>

namespace qdb::test
{
namespace
{

// Control characters and bytes beyond ASCII as "\n" or "\xNN".
std::string Escape(const std::string &text)
{
    std::string escaped;
    for (const char c : text)
    {
        if (c >= ' ' && c <= '~')
        {
            escaped += c;
            continue;
        }
        char code[5] = "\\n";
        if (c != '\n')
        {
            std::snprintf(code, sizeof(code), "\\x%02X",
                          static_cast<uint8_t>(c));
        }
        escaped += code;
    }
    return escaped;
}

using Names = std::vector<std::pair<std::string, std::string>>;

// Puts each name's second text in the place of its first.
void ReplaceAll(Lines *pLines, const Names &names)
{
    for (const auto &[from, to] : names)
    {
        for (std::string &line : *pLines)
        {
            for (size_t at = line.find(from); at != std::string::npos;
                 at = line.find(from, at + to.size()))
            {
                line.replace(at, from.size(), to);
            }
        }
    }
}

// Addresses, durations and places in the source, which differ from run to run.
void HideChance(std::string *pLine)
{
    static const std::string kMarks[] = {
        " pDOH: ",      "*pPDOH = ", "addr of DOH_p ",
        "Timestamp: [", "]line=",    "]LINE:"};
    for (const std::string &mark : kMarks)
    {
        const size_t at = pLine->find(mark);
        if (at != std::string::npos)
        {
            const size_t begin = at + mark.size();
            const size_t end =
                pLine->find_first_not_of("0123456789abcdefx.", begin);
            pLine->replace(begin, std::min(end, pLine->size()) - begin, "?");
        }
    }
}

std::string Hex(uint32_t number, bool upper)
{
    char text[9];
    std::snprintf(text, sizeof(text), upper ? "%X" : "%x", number);
    return text;
}

// What is the subject's alone, with the name that takes its place.
Names NamesOf(const Subject &subject)
{
    const std::string type = subject.row->suffix;
    const uint32_t number = subject.row->objType;
    Names names = {
        {subject.row->table->name, "<table>"},
        {"[" + type + "]", "[<T>]"},
        {"[" + Hex(number, false) + "]", "[<t>]"},
        {"Column: " + std::to_string(number) + ",", "Column: <t>,"},
        {std::to_string(StoredOid(subject.oid)), "<oid>"},
        {Hex(subject.oid, true), "<OID>"},
        {Hex(subject.oid, false), "<0id>"},
    };
    for (const std::string head :
         {"CreateObj_", "RefreshObj_", "DeleteObj_", "GetRowData_",
          "GetArrTblRowData_", "bind_values_to_statement_",
          "insert_array_data_", "Create_[", "Refresh_[", "Delete_["})
    {
        names.emplace_back(head + type, head + "<T>");
    }
    return names;
}

// This thread's lines, then those of the other one that there may be.
Lines LinesByThread(std::vector<LogRecord> records)
{
    const auto isForeign = [](const LogRecord &record)
    {
        return record.thread != std::this_thread::get_id();
    };
    std::stable_partition(records.begin(), records.end(),
                          std::not_fn(isForeign));
    Lines lines;
    bool foreign = false;
    for (const LogRecord &record : records)
    {
        if (isForeign(record) && !std::exchange(foreign, true))
        {
            lines.emplace_back("another thread");
        }
        lines.push_back(std::to_string(record.level) + " " +
                        Escape(record.line));
        HideChance(&lines.back());
    }
    return lines;
}

std::string SideTableSql(const SideTable &side)
{
    std::string cells;
    for (const Column &column : side.columns)
    {
        cells += std::string(" || '/' || quote(\"") + column.name + "\")";
    }
    return std::string("SELECT 'elements ") + side.name +
           "', OID, PROP, group_concat(cells, ' ') FROM (SELECT OID, PROP, "
           "ARR_INDEX" +
           cells + " AS cells FROM " + side.name +
           " ORDER BY OID, PROP, ARR_INDEX) GROUP BY OID, PROP;";
}

constexpr char kBookkeepingSql[] =
    "SELECT 'mapped', OID, ObjType FROM ActiveOIDMapping ORDER BY OID;"
    "SELECT 'parent', OID, POID FROM ParentChildMapping ORDER BY OID, POID;"
    "SELECT 'tag', TableName, MultiRecordEtag FROM TblEtag WHERE "
    "MultiRecordEtag IS NOT NULL ORDER BY TableName;";

} // namespace

void StreamRecorder::Forget()
{
    listener_.TakeAll();
    pipe_.Take();
}

// All columns that the table has, also those that no object fills.
const std::string &StreamRecorder::TableSql(const Table &table)
{
    std::string &sql = tableSql_[table.name];
    if (!sql.empty())
    {
        return sql;
    }
    const std::string name = table.name;
    sql = "SELECT 'row " + name + "'";
    for (const std::string &column :
         Query(root_.Database(),
               "SELECT name FROM pragma_table_info('" + name + "')"))
    {
        sql += ", '" + column + "=' || quote(\"" + column + "\")";
    }
    sql += " FROM " + name + " ORDER BY OID;";
    std::set<const SideTable *> sides;
    for (const ArrayProperty &property : table.arrays)
    {
        if (sides.insert(property.table).second)
        {
            sql += SideTableSql(*property.table);
        }
    }
    return sql;
}

// What came of an operation, but for the rows.
Operation StreamRecorder::Watch(const std::string &name,
                                const std::function<int()> &act)
{
    constexpr int kEveryLevel = 9;
    CountSleeps();
    CaptureLog(kEveryLevel);
    Operation operation = {
        name, {"result " + std::to_string(act())}, {}, whole_};
    operation.log = LinesByThread(LogRecords());
    CaptureLog(0);
    if (SleepCount() != 0)
    {
        operation.data.push_back("sleeps " + std::to_string(SleepCount()) +
                                 ", " + std::to_string(SleptMicroseconds()) +
                                 " us");
    }
    const uint8_t enabled = DbusEventsEnabled.exchange(1);
    for (const Change &change : listener_.TakeAll())
    {
        const std::string json = Escape(change.json);
        operation.data.push_back("signal " +
                                 change.member.substr(kMemberPrefix.size()) +
                                 " " + json);
        ReplaceAll(&operation.log, {{json, "<signal>"}});
    }
    DbusEventsEnabled = enabled;
    for (const std::string &record : pipe_.Take())
    {
        operation.data.push_back("record " + Escape(record));
    }
    for (const std::string &failure : Kept())
    {
        operation.data.push_back("kept " + failure);
    }
    return operation;
}

void StreamRecorder::Keep(Operation operation, const std::string &tableSql)
{
    for (const std::string &row :
         Query(root_.Database(), tableSql + kBookkeepingSql))
    {
        operation.data.push_back(Escape(row));
    }
    stream_.push_back(std::move(operation));
}

void StreamRecorder::Record(const std::string &name, const Subject &subject,
                            const std::function<int()> &act)
{
    Operation operation =
        Watch(std::string(subject.row->suffix) + " " + name, act);
    ReplaceAll(&operation.log, NamesOf(subject));
    Keep(std::move(operation), TableSql(*subject.row->table));
}

void StreamRecorder::RecordAll(const std::string &name,
                               const std::function<int()> &act,
                               const std::set<uint32_t> &types)
{
    Operation operation = Watch(name, act);
    if (!whole_)
    {
        operation.log = CutLog(std::move(operation.log));
    }
    std::set<const Table *> tables;
    std::string sql;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if ((types.empty() || types.contains(row.objType)) &&
            tables.insert(row.table).second)
        {
            sql += TableSql(*row.table);
        }
    }
    Keep(std::move(operation), sql);
}

} // namespace qdb::test
