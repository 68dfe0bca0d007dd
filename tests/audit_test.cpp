// The auditor: silent about what the service writes, and exact about anything
// else.

#include "events/dispatch.h"
#include "objects/catalogue.h"
#include "platform/standin/commands.h"
#include "reconcile/population.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/row_values.h"
#include "tools/audit/audit.h"
#include "tools/audit/expected.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace qdb::test
{
namespace
{

using audit::Content;

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kDirtyList = 3;
constexpr uint32_t kParent = 0x500;
constexpr uint32_t kOtherParent = 0x501;
constexpr uint32_t kGoneParent = 0x502;      // never exists
constexpr uint32_t kFirstOfAll = 0x7FFFFFF0; // some are stored negative
constexpr uint32_t kFirstDamaged = 0xA0000000;

Content Managers()
{
    const JsonPtr request(json_pack("{s:s}", "op", "dump"));
    return audit::ParseContent(standin::Execute(request.get()).get());
}

struct CloseConnection
{
    void operator()(sqlite3 *connection) const
    {
        sqlite3_close(connection);
    }
};

// What an audit of a database prints, its summary included.
Lines Audit(const std::string &database, const Content &content,
            const std::string &damage = "")
{
    sqlite3 *opened = nullptr;
    EXPECT_EQ(sqlite3_open(database.c_str(), &opened), SQLITE_OK);
    const std::unique_ptr<sqlite3, CloseConnection> connection(opened);
    EXPECT_EQ(sqlite3_exec(opened, damage.c_str(), nullptr, nullptr, nullptr),
              SQLITE_OK)
        << sqlite3_errmsg(opened);
    const audit::Report report =
        audit::Compare(content, audit::ReadSnapshot(opened));
    Lines lines;
    for (const auto &object : report.unstorable)
    {
        lines.push_back(Print(object));
    }
    for (const auto &difference : report.differences)
    {
        lines.push_back(Print(difference));
    }
    lines.push_back(Summary(report));
    return lines;
}

void PutChild(uint16_t type, uint32_t oid, json_t *values,
              std::vector<uint32_t> parents)
{
    standin::ObjectSpec spec;
    spec.type = type;
    spec.oid = oid;
    spec.values = values;
    spec.parents = std::move(parents);
    EXPECT_EQ(standin::CreateObject(spec, false), "");
}

class AuditTest : public DbTest
{
  protected:
    AuditTest()
    {
        standin::SetLog(0, nullptr);
    }

    // An object, or attribute, for each row of the catalogue.
    static void FillAll()
    {
        PutObject(kStatus, kParent);
        PutObject(kStatus, kOtherParent);
        uint32_t oid = kFirstOfAll;
        for (const RowData &row : kRowData)
        {
            const JsonPtr values = ValuesFor(row, ValueSet::First);
            if (!IsConfigType(row.objType))
            {
                PutChild(row.objType, oid++, values.get(),
                         {kParent, kGoneParent, kOtherParent});
                continue;
            }
            constexpr const char *kInterfaces[] = {
                "CfgIntAttribute", "CfgStrAttribute", "CfgEnumAttribute",
                "CfgPasswdAttribute"};
            json_object_del(values.get(), "Key");
            EXPECT_EQ(
                standin::PutAttribute(kInterfaces[row.objType - 0x4051],
                                      std::string("A.1#B.1#") + row.suffix,
                                      values.get(), oid++),
                "");
        }
    }

    // Copies of all objects, cut short or with some bytes replaced.
    static void FillDamaged()
    {
        std::mt19937 random(1);
        uint32_t oid = kFirstDamaged;
        const std::vector<uint32_t> whole = standin::ObjectIds();
        for (int i = 0; i < 8; ++i)
        {
            for (const uint32_t from : whole)
            {
                Bytes bytes = standin::ObjectBytes(from);
                const auto size = static_cast<uint32_t>(bytes.size());
                const auto claimed = static_cast<uint32_t>(
                    i < 2 ? random() % (size + 1) : size + random() % 2);
                std::memcpy(bytes.data(), &claimed, sizeof(claimed));
                std::memcpy(bytes.data() + 4, &oid, sizeof(oid));
                for (int n = 0; i >= 2 && n < 12; ++n)
                {
                    constexpr uint8_t kBytes[] = {
                        0, 1, 2, 7, '/', '4', 0x10, 127, 128, 0xF0, 0xFF, 0x7F};
                    bytes[16 + random() % (size - 16)] =
                        kBytes[random() % std::size(kBytes)];
                }
                EXPECT_EQ(standin::PutRawObject(bytes, {}), "");
                ++oid;
            }
        }
    }

    Lines Audit(const Content &content, const std::string &damage = "")
    {
        const std::string copy = mirror_.Root().Path() + "/copy.db";
        std::filesystem::copy_file(
            mirror_.Root().Database(), copy,
            std::filesystem::copy_options::overwrite_existing);
        return test::Audit(copy, content, damage);
    }
};

TEST_F(AuditTest, FindsNothingInWhatTheServiceWrites)
{
    FillAll();
    EXPECT_EQ(OnLoadObjectsCreation(), 0);
    EXPECT_EQ(Audit(Managers()), (Lines{"0 differences in 163 objects"}));

    uint32_t oid = kFirstOfAll;
    Words changed;
    for (const RowData &row : kRowData)
    {
        if (!IsConfigType(row.objType))
        {
            const JsonPtr values = ValuesFor(row, ValueSet::Second);
            EXPECT_EQ(standin::SetObject(oid, values.get(), false), "");
            changed.push_back(oid);
        }
        ++oid;
    }
    EXPECT_EQ(ObjectNotification(EventOf(test::List(kDirtyList, changed)),
                                 kDirtyList),
              0);
    EXPECT_EQ(Audit(Managers()),
              (Lines{"0x7FFFFFF2 (0x1200) creation column "
                     "TblOSLogicalNetworkIntfObj.RootObjectKey: expected "
                     "\"b26\", found \"a26\"",
                     "1 difference in 163 objects"}));
}

TEST_F(AuditTest, AgreesWithTheServiceAboutDamagedObjects)
{
    FillAll();
    FillDamaged();
    OnLoadObjectsCreation();
    const Content content = Managers();
    const Lines lines = Audit(content);
    EXPECT_EQ(lines.back().substr(0, 14), "0 differences ");
    size_t unstorable = 0;
    for (const audit::Object &object : content.objects)
    {
        const audit::ObjectBytes bytes(object);
        const RowData *row = RowOf(object, bytes);
        const bool isStorable =
            row == nullptr ||
            std::ranges::all_of(
                row->table->columns,
                [&](const Column &column)
                {
                    return ColumnOf(bytes, *row, column).has_value();
                });
        if (!isStorable)
        {
            ++unstorable;
            EXPECT_EQ(mirror_.Value(
                          "SELECT count(*) FROM ActiveOIDMapping WHERE OID = " +
                          std::to_string(audit::StoredOid(object.oid))),
                      "0");
        }
    }
    EXPECT_EQ(lines.size(), unstorable + 1);
    EXPECT_GT(unstorable, 100u); // of 1,288 damaged ones
}

} // namespace
} // namespace qdb::test
