// The SQL texts: one table's in full, and what is particular to the tables that
// are unlike the others.

#include "objects/catalogue.h"
#include "objects/sql_text.h"
#include "tests/support/mirror.h"
#include "tests/support/sqlite_faults.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr char kInsert[] =
    "INSERT OR REPLACE INTO TblMemoryInfo ('BankLabel', 'CacheSize', "
    "'CanBeFRUed', 'Capacity', 'CPU', 'currentSpeed', 'DataWidth', "
    "'DOH_ObjStatus', 'ExtendedSize', 'FirmwareVersion', 'fqdd', "
    "'friendlyFQDD', 'Handle', 'Key', 'LogicalSize', 'ManufactureDate', "
    "'Manufacturer', 'MemOpModeCap', 'MemoryType', 'MemoryTypeExtended', "
    "'MemSubMID', 'MemSubPID', 'MemTechnology', 'ModuleMID', 'ModulePID', "
    "'NonVolatizeSize', 'objExtFlags', 'OID', 'ParentObjectKey', "
    "'PartNumber', 'PrimaryStatus', 'ProductName', 'Rank', "
    "'RemainingRatedWriteEndurance', 'SerialNumber', 'Speed', 'TotalWidth', "
    "'TypeDetail', 'UpdateTime', 'VolatizeSize') VALUES (?, ?, ?, ?, ?, ?, "
    "?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
    "?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr char kUpdate[] =
    "UPDATE TblMemoryInfo SET 'SingleRecordEtag' = strftime('%s'), "
    "'BankLabel' = ?, 'CacheSize' = ?, 'CanBeFRUed' = ?, 'Capacity' = ?, "
    "'CPU' = ?, 'currentSpeed' = ?, 'DataWidth' = ?, 'DOH_ObjStatus' = ?, "
    "'ExtendedSize' = ?, 'FirmwareVersion' = ?, 'fqdd' = ?, 'friendlyFQDD' = "
    "?, 'Handle' = ?, 'Key' = ?, 'LogicalSize' = ?, 'ManufactureDate' = ?, "
    "'Manufacturer' = ?, 'MemOpModeCap' = ?, 'MemoryType' = ?, "
    "'MemoryTypeExtended' = ?, 'MemSubMID' = ?, 'MemSubPID' = ?, "
    "'MemTechnology' = ?, 'ModuleMID' = ?, 'ModulePID' = ?, "
    "'NonVolatizeSize' = ?, 'objExtFlags' = ?, 'PartNumber' = ?, "
    "'PrimaryStatus' = ?, 'ProductName' = ?, 'Rank' = ?, "
    "'RemainingRatedWriteEndurance' = ?, 'SerialNumber' = ?, 'Speed' = ?, "
    "'TotalWidth' = ?, 'TypeDetail' = ?, 'UpdateTime' = ?, 'VolatizeSize' = "
    "? WHERE OID = ?";

constexpr char kSelect[] =
    "SELECT json_object('BankLabel', \"BankLabel\", 'CacheSize', "
    "\"CacheSize\", 'CanBeFRUed', \"CanBeFRUed\", 'Capacity', \"Capacity\", "
    "'CPU', \"CPU\", 'currentSpeed', \"currentSpeed\", 'DataWidth', "
    "\"DataWidth\", 'DOH_ObjStatus', \"DOH_ObjStatus\", 'ExtendedSize', "
    "\"ExtendedSize\", 'FirmwareVersion', \"FirmwareVersion\", 'fqdd', "
    "\"fqdd\", 'friendlyFQDD', \"friendlyFQDD\", 'Handle', \"Handle\", "
    "'Key', \"Key\", 'LogicalSize', \"LogicalSize\", 'ManufactureDate', "
    "\"ManufactureDate\", 'Manufacturer', \"Manufacturer\", 'MemOpModeCap', "
    "\"MemOpModeCap\", 'MemoryType', \"MemoryType\", 'MemoryTypeExtended', "
    "\"MemoryTypeExtended\", 'MemSubMID', \"MemSubMID\", 'MemSubPID', "
    "\"MemSubPID\", 'MemTechnology', \"MemTechnology\", 'ModuleMID', "
    "\"ModuleMID\", 'ModulePID', \"ModulePID\", 'NonVolatizeSize', "
    "\"NonVolatizeSize\", 'objExtFlags', \"objExtFlags\", 'OID', \"OID\", "
    "'ParentObjectKey', \"ParentObjectKey\", 'PartNumber', \"PartNumber\", "
    "'PrimaryStatus', \"PrimaryStatus\", 'ProductName', \"ProductName\", "
    "'Rank', \"Rank\", 'RemainingRatedWriteEndurance', "
    "\"RemainingRatedWriteEndurance\", 'SerialNumber', \"SerialNumber\", "
    "'Speed', \"Speed\", 'TotalWidth', \"TotalWidth\", 'TypeDetail', "
    "\"TypeDetail\", 'UpdateTime', \"UpdateTime\", 'VolatizeSize', "
    "\"VolatizeSize\", 'SingleRecordEtag', SingleRecordEtag) AS json_result "
    "FROM (SELECT * FROM TblMemoryInfo WHERE OID = ?)";

TEST(SqlText, OfOneTable)
{
    const Table &table = *FindRow(0xE1)->table;
    EXPECT_EQ(InsertSql(table), kInsert);
    EXPECT_EQ(UpdateSql(table, false), kUpdate);
    EXPECT_EQ(SelectJsonSql(table, false), kSelect);
}

// What the handlers prepare for the tables that are unlike the others.
TEST(SqlText, OfSpecialTables)
{
    struct Case
    {
        uint16_t type;
        const char *sql;
        int prepared;
    };
    const Case cases[] = {
        {0x4052, "'writePrivilege' = ? WHERE OID = ? AND isRawData = ?", 1},
        {0x4052, "'Name', Name, 'objectFlags', objectFlags, ", 1},
        {0x4052, "isRawData'", 0},
        {0x4051, "'writePrivilege' = ? WHERE OID = ?", 1},
        {0x4051, "isRawData", 0},
        {0x1200, "'reserved' = ? WHERE OID = ?", 1},
        {0x1200, "'PhysicalNetworkFQDDs', 'reserved', 'RootObjectKey') ", 1},
        {0x1200, "'RootObjectKey' = ?", 0},
        {0xE1, kInsert, 1},
        {0xE1, kUpdate, 1},
        {0xE1, kSelect, 1},
        {0x15, "SELECT * from TblPowerSupplyObj WHERE OID = ?", 3},
        {0x15, "SELECT json_object", 0},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.sql);
        const Mirror mirror;
        ClearSqliteFaults();
        const auto object = MakeObject(test.type, 0x1234);
        const ObjTypeRow &row = *FindRow(test.type);
        EXPECT_EQ(row.CreateObjFP(HeaderOf(object), nullptr), 0);
        EXPECT_EQ(row.RefreshObjFP(HeaderOf(object), nullptr), 0);
        EXPECT_EQ(PrepareCount(test.sql), test.prepared);
    }
}

} // namespace
} // namespace qdb::test
