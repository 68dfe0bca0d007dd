#include "bench/workload.h"

#include "core/json.h"
#include "platform/standin/generator.h"
#include "platform/standin/standin.h"
#include "tests/support/wait.h"

#include <chrono>
#include <numeric>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

constexpr uint16_t kType = 0xE1;
constexpr uint16_t kParentType = 0x91;
constexpr uint32_t kFirstOid = 0x10000;

// The column that a refresh finds changed, and its new value: one that the
// stand-in's generator never gives.
constexpr char kChangedColumn[] = "currentSpeed";
constexpr json_int_t kChangedValue = 99999;

void Check(const standin::Error &error)
{
    if (!error.empty())
    {
        throw std::runtime_error("the stand-in refused: " + error);
    }
}

void PutObject(uint32_t oid)
{
    const standin::Json values = standin::GenerateValues(kType, oid, true);
    Check(standin::CreateObject({kType, oid, {kParentOid}, values.get(), ""},
                                false));
}

// A row's tag is the second of its last writing. In a later second every
// refresh changes it, so that the texts don't depend on the speed.
void WaitForNextSecond()
{
    const auto second = []
    {
        return std::chrono::floor<std::chrono::seconds>(
            std::chrono::system_clock::now());
    };
    const auto begin = second();
    test::WaitUntil(
        [&]
        {
            return second() != begin;
        });
}

} // namespace

const char *NameOf(Operation operation)
{
    static constexpr const char *kNames[] = {
        "create",
        "refresh, one column changed",
        "refresh, nothing changed",
        "delete",
    };
    return kNames[static_cast<size_t>(operation)];
}

const ObjTypeRow &MeasuredRow()
{
    return *FindRow(kType);
}

Workload::Workload(size_t count) : oids_(count)
{
    std::iota(oids_.begin(), oids_.end(), kFirstOid);
    standin::Reset();
    Check(standin::CreateObject(
        {kParentType, kParentOid, {}, nullptr, kParentKey}, false));
}

void Workload::Prepare(Operation operation) const
{
    const JsonPtr change(json_pack("{s:I}", kChangedColumn, kChangedValue));
    switch (operation)
    {
    case Operation::Create:
        for (const uint32_t oid : oids_)
        {
            PutObject(oid);
        }
        break;
    case Operation::RefreshChanged:
        for (const uint32_t oid : oids_)
        {
            Check(standin::SetObject(oid, change.get(), false));
        }
        WaitForNextSecond();
        break;
    case Operation::RefreshSame:
        WaitForNextSecond();
        break;
    case Operation::Delete:
        Check(standin::DeleteObjects(oids_, false));
        break;
    }
}

} // namespace qdb::bench
