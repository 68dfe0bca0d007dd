// Objects of every row of the catalogue, whole and with a damage at random:
// each has the row that the auditor works out from its bytes.

#include "config/config_objects.h"
#include "events/dispatch.h"
#include "objects/catalogue.h"
#include "reconcile/population.h"
#include "tests/support/audited.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/row_values.h"
#include "tests/support/stream_driver.h"

#include <random>

namespace qdb::test
{
namespace
{

const Words kParents = {kParentOid, 0x5FF, kOtherParentOid}; // one never is
constexpr uint32_t kFirstOfAll = 0x7FFFFFF0; // some are stored negative
constexpr int kRounds = 4;                   // each with other damages

// clang-format off
using namespace std::string_literals;
const std::string kDamages[] = {
    "\0"s, "\1", "\2", "\7", "/4", "/6:", "\x10", "\x80", "\xF0", "\xFF", "\"", "\\",
    "\xE6\xBC\xA2", "\0\0\x80\x7F"s, "\0\0\0\0"s, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"};
// clang-format on

bool HasTwoRows(const ObjTypeRow &row)
{
    return row.match != Match::Every && row.match != Match::SetupEnum;
}

class EveryRow : public DbTest
{
  protected:
    EveryRow()
    {
        Restart(0);
        PutParents();
        uint32_t oid = kFirstOfAll;
        for (const ObjTypeRow &row : ObjectTypeTable)
        {
            if (IsConfigType(row.objType))
            {
                PutAttributeOf(row);
                continue;
            }
            subjects_.push_back({&row, oid});
            oids_.push_back(oid++);
        }
    }

    static void PutAttributeOf(const ObjTypeRow &row)
    {
        constexpr const char *kInterfaces[] = {
            "CfgIntAttribute", "CfgStrAttribute", "CfgEnumAttribute",
            "CfgPasswdAttribute"};
        const JsonPtr values = ValuesFor(row, ValueSet::First);
        json_object_del(values.get(), "Key");
        EXPECT_EQ(standin::PutAttribute(kInterfaces[row.objType - TYPE_CFGINT],
                                        std::string("A.1#B.1#") + row.suffix,
                                        values.get()),
                  "");
    }

    void PutAll(ValueSet set)
    {
        for (const Subject &subject : subjects_)
        {
            Put(subject, ValuesFor(*subject.row, set).get(), kParents);
        }
    }

    // Cuts objects short, or writes over some of their bytes. What may take
    // another row of its type then is left as it is.
    void DamageAll()
    {
        for (const Subject &subject : subjects_)
        {
            if (HasTwoRows(*subject.row))
            {
                continue;
            }
            Bytes object = standin::ObjectBytes(subject.oid);
            const auto size = static_cast<uint32_t>(object.size());
            const bool isCut = Below(6) == 0;
            const uint32_t claimed = isCut ? Below(size + 1) : size + Below(2);
            std::memcpy(object.data(), &claimed, sizeof(claimed));
            for (int left = isCut ? 0 : 2; left > 0; --left)
            {
                const std::string &damage =
                    kDamages[Below(std::size(kDamages))];
                const size_t at = 16 + Below(size - 16);
                std::copy_n(damage.begin(), std::min(damage.size(), size - at),
                            object.begin() + static_cast<ptrdiff_t>(at));
            }
            EXPECT_EQ(standin::PutRawObject(object, kParents), "");
        }
    }

    void CreateAll()
    {
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        OnLoadObjectsCreation();
    }

    void RefreshAll() const
    {
        ObjectNotification(EventOf(List(kDirty, oids_)), kDirty);
    }

    // Expects no difference; returns how many objects can't be stored. A
    // refresh leaves alone what is written at the creation, and elements behind
    // the end of an array.
    size_t CountRefused(bool isRefreshed)
    {
        const audit::Report report = Audit(mirror_.Root().Database());
        for (const audit::Difference &difference : report.differences)
        {
            EXPECT_TRUE(isRefreshed &&
                        (difference.kind == audit::Kind::CreationColumn ||
                         difference.kind == audit::Kind::ExtraElement))
                << Print(difference);
        }
        constexpr size_t kOthers = 3 + 4; // parents, attributes
        EXPECT_EQ(report.compared + report.unstorable.size(),
                  subjects_.size() + kOthers);
        return report.unstorable.size();
    }

  private:
    uint32_t Below(uint32_t limit)
    {
        return static_cast<uint32_t>(random_() % limit);
    }

    std::vector<Subject> subjects_;
    Words oids_;
    std::mt19937 random_{1};
};

TEST_F(EveryRow, IsWhatItsObjectHolds)
{
    size_t refused = 0;
    for (int round = 0; round < kRounds; ++round)
    {
        SCOPED_TRACE(round);
        PutAll(ValueSet::First);
        CreateAll();
        EXPECT_EQ(CountRefused(false), 0u);
        PutAll(ValueSet::Second);
        RefreshAll();
        EXPECT_EQ(CountRefused(true), 0u);
        DamageAll();
        RefreshAll();
        refused += CountRefused(true);
        CreateAll();
        EXPECT_GT(CountRefused(false), 0u);
    }
    // Some, but most can be stored.
    EXPECT_GT(refused, 10u * kRounds);
    EXPECT_LT(refused, 100u * kRounds);
}

} // namespace
} // namespace qdb::test
