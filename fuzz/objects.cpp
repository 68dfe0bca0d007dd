// Objects of every row, through the handlers. An input is the row, how its two
// objects are made, and their bytes.
#include "core/state.h"
#include "core/status.h"
#include "db/statement_ptr.h"
#include "fuzz/support.h"
#include "objects/array_tables.h"
#include "objects/change_json.h"
#include "objects/handlers.h"
#include "objects/json_text.h"
#include "objects/predicates.h"
#include "objects/row_reader.h"
#include "standin/generator.h"
#include "standin/object_builder.h"

#include <sqlite3.h>

#include <map>
#include <optional>
#include <utility>

namespace qdb::fuzz
{
namespace
{

constexpr uint32_t kOid = 0x1234;
constexpr uint32_t kMostClaimed = 0x2000; // offsets end before that

enum : uint8_t
{
    kGenerated = 1,     // like those of a server; else of the input's bytes
    kFirstLies = 2,     // its size isn't that of its bytes
    kSecondLies = 4,    // likewise
    kSecondDiffers = 8, // from the first, in single bytes
};

using Object = std::vector<uint8_t>;

// A plausible object of the row, one of two.
const Object &Generated(const ObjTypeRow &row, uint32_t which)
{
    static std::map<std::pair<const ObjTypeRow *, uint32_t>, Object> made;
    Object &object = made[{&row, which}];
    if (object.empty())
    {
        const bool isFirst = FindRow(row.objType) == &row;
        const standin::Json values =
            standin::GenerateValues(row.objType, kOid + which, isFirst);
        std::string error;
        object = standin::BuildObject({.type = row.objType, .oid = kOid},
                                      values.get(), &error);
        Require(error.empty(), error);
    }
    return object;
}

Object TakeObject(const ObjTypeRow &row, uint8_t how, uint32_t which,
                  Input *pInput)
{
    if ((how & kGenerated) != 0)
    {
        return Generated(row, which);
    }
    const Bytes bytes = pInput->Take(pInput->Word());
    return {bytes.begin(), bytes.end()};
}

// Changes what the input says, and completes the head.
Object Finish(const ObjTypeRow &row, Object object, bool lies, Input *pInput)
{
    ChangeBytes(&object, Input(pInput->Take(pInput->Byte())));
    const size_t claimed = lies ? pInput->Word() % kMostClaimed : object.size();
    object = Block(object, static_cast<uint32_t>(claimed));
    auto *head = HeadOf<DataObjHeader>(object);
    head->objID = kOid;
    head->objType = row.objType;
    return object;
}

// A column as the reader of wide tables tells it.
JsonPtr ColumnValue(sqlite3_stmt *statement, int column)
{
    switch (sqlite3_column_type(statement, column))
    {
    case SQLITE_INTEGER:
        return JsonPtr(json_integer(sqlite3_column_int(statement, column)));
    case SQLITE_FLOAT:
        return JsonPtr(json_real(sqlite3_column_double(statement, column)));
    case SQLITE_TEXT:
        return JsonPtr(json_string(reinterpret_cast<const char *>(
            sqlite3_column_text(statement, column))));
    default:
        return JsonPtr(json_null());
    }
}

JsonPtr RowOfColumns(sqlite3_stmt *statement)
{
    JsonPtr row(json_object());
    for (int i = 0; i < sqlite3_column_count(statement); ++i)
    {
        if (json_object_set_new(row.get(), sqlite3_column_name(statement, i),
                                ColumnValue(statement, i).release()) != 0)
        {
            return nullptr;
        }
    }
    return row;
}

// The row without its arrays, by Jansson; NULL if it isn't there or can't be
// told.
JsonPtr ReadByJansson(const ObjTypeRow &row)
{
    static std::array<StatementPtr, std::size(ObjectTypeTable)> statements;
    const bool byColumns = ReadsWithSelectStar(*row.table);
    StatementPtr &kept =
        statements[static_cast<size_t>(&row - std::begin(ObjectTypeTable))];
    if (kept == nullptr)
    {
        const SqlText sql = byColumns ? SelectStarSql(row) : SelectJsonSql(row);
        sqlite3_stmt *prepared = nullptr;
        sqlite3_prepare_v2(QDVdbHandle, sql.c_str(), -1, &prepared, nullptr);
        kept.reset(prepared);
    }
    sqlite3_stmt *statement = kept.get();
    sqlite3_reset(statement);
    sqlite3_bind_int(statement, 1, kOid);
    JsonPtr result;
    if (sqlite3_step(statement) == SQLITE_ROW)
    {
        const auto *text =
            reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
        result.reset(byColumns ? RowOfColumns(statement).release()
                               : json_loads(text, 0, nullptr));
    }
    sqlite3_reset(statement);
    return result;
}

// One row, read as the service does and by Jansson alone.
struct Readings
{
    RowReading own;
    RowReading jansson;
};

std::optional<Readings> ReadRows(const ObjTypeRow &row)
{
    Readings readings;
    const int read = ReadRow(row, kOid, &readings.own);
    readings.jansson = RowReading(ReadByJansson(row));
    Require((read == SQLITE_OK) == !readings.jansson.IsEmpty(),
            "a row that Jansson reads, too");
    // A row is told with its arrays or not at all.
    const int status = AddArrays(row, kOid, read, &readings.own);
    Require(status == AddArrays(row, kOid, read, &readings.jansson),
            "arrays that either reading takes");
    if (status != SQLITE_OK)
    {
        return std::nullopt;
    }
    return readings;
}

std::string TextOf(const JsonText &text)
{
    return text == nullptr ? "(none)" : text.get();
}

void CompareWhole(const ObjTypeRow &row)
{
    if (std::optional<Readings> rows = ReadRows(row))
    {
        const std::string own =
            TextOf(RenderWholeRow(row, std::move(rows->own)));
        const std::string other =
            TextOf(RenderWholeRow(row, std::move(rows->jansson)));
        Require(own == other, own + "\nisn't\n" + other);
    }
}

// Returns how many columns differ.
int CompareDifference(const ObjTypeRow &row, Readings before, Readings after)
{
    int ownCount = -1;
    int count = -1;
    const std::string own = TextOf(RenderDifference(
        row, std::move(before.own), std::move(after.own), &ownCount));
    const std::string other = TextOf(RenderDifference(
        row, std::move(before.jansson), std::move(after.jansson), &count));
    Require(own == other && ownCount == count, own + "\nisn't\n" + other);
    return count;
}

bool IsExpected(int status)
{
    return status == SQLITE_OK || status == kFailed ||
           status == ZO_STATUS_INVALID_VALUE;
}

void Refresh(const ObjTypeRow &row, const DataObjHeader *pDOH)
{
    std::optional<Readings> before = ReadRows(row);
    const bool isThere = before.has_value();
    const int status = RefreshObject(row, pDOH, nullptr);
    Require(status == SQLITE_DONE || IsExpected(status), "a refresh's status");
    std::optional<Readings> after = ReadRows(row);
    Require(status != SQLITE_OK || (isThere && after), "a refreshed row");
    if (isThere && after)
    {
        const int changes =
            CompareDifference(row, std::move(*before), std::move(*after));
        Require(status == SQLITE_OK ||
                    (status == ZO_STATUS_INVALID_VALUE && changes == 0),
                "no failure but for what can't be read, and no change by it");
    }
}

} // namespace

void RunObjects(Bytes bytes)
{
    const MirrorInMemory mirror;
    Input input(bytes);
    const ObjTypeRow &row = input.OneOf(ObjectTypeTable);
    const uint8_t how = input.Byte();
    Object first = TakeObject(row, how, 0, &input);
    first = Finish(row, std::move(first), (how & kFirstLies) != 0, &input);
    Object second =
        (how & kSecondDiffers) != 0 ? first : TakeObject(row, how, 1, &input);
    second = Finish(row, std::move(second), (how & kSecondLies) != 0, &input);
    auto *pDOH = HeadOf<DataObjHeader>(first);
    if (!Applies(row, pDOH, nullptr))
    {
        return;
    }
    const int created = CreateObject(row, pDOH, pDOH);
    Require(IsExpected(created), "a create's status");
    Require(created != kFailed ||
                QueryValue("SELECT count(*) FROM ActiveOIDMapping") == "1",
            "a row, though one that can't be told");
    Require((created == SQLITE_OK) == ReadRows(row).has_value(),
            "a row if it was created");
    CompareWhole(row);
    auto *pNewDOH = HeadOf<DataObjHeader>(second);
    if (Applies(row, pNewDOH, nullptr))
    {
        Refresh(row, pNewDOH);
    }
    if (DeleteObject(row, pNewDOH) == SQLITE_OK)
    {
        Require(QueryValue("SELECT count(*) FROM ActiveOIDMapping") == "0",
                "no mapping of a deleted object");
    }
}

} // namespace qdb::fuzz
