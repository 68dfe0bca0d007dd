// The reloads that compare whole objects with the last ones (the keyed object,
// the keyed attributes, the devices of two types) at their bounds and without
// memory. What they make of ordinary objects and of failures is recorded in the
// stream.

#include "config/key_reload.h"
#include "core/json.h"
#include "reconcile/key_reload.h"
#include "reconcile/type_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

constexpr uint16_t kSystem = 0x91;
constexpr uint16_t kBlt = 0xEB;
constexpr uint16_t kUsb = 0xEC;
constexpr uint32_t kSystemOid = 5;
constexpr char kFind[] = "Refresh Obj."; // before a copy is made

std::string SystemValues(const std::string &host)
{
    return R"({"Key": "91||System.Embedded.1", "HostName": ")" + host + R"("})";
}

void PutSystem(const std::string &host)
{
    standin::DeleteObjects(Words{kSystemOid}, false);
    const JsonPtr values(json_loads(SystemValues(host).c_str(), 0, nullptr));
    EXPECT_EQ(standin::CreateObject(
                  {kSystem, kSystemOid, {80}, values.get(), ""}, false),
              "");
}

// The copy that can't be made is made the next time.
TEST_F(NcReload, KeyedObjectOutlivesWantOfMemory)
{
    Clear();
    for (const char *host : {"one", "other"}) // one of them differs
    {
        PutSystem(host);
        const OutOfMemoryAt here(kFind);
        static_cast<void>(ReLoadKeyBasedNCObjects());
    }
    Restart();
    EXPECT_NE(ReLoadKeyBasedNCObjects(), 272);
    EXPECT_EQ(Calls(), Lines{"Refresh " + Text(kSystemOid)});
}

TEST_F(NcReload, KeyedAttributesEndWithoutMemory)
{
    const char *key = "Tarnu.Embedded.1#SerialCapture.1#SerialDataSize";
    for (const char *name : {"1", "other"}) // one of them differs
    {
        const JsonPtr values(json_pack("{s:s}", "Name", name));
        EXPECT_EQ(standin::PutAttribute(kIntInterface, key, values.get(), 0x11),
                  "");
        const OutOfMemoryAt here("Refresh Obj.");
        static_cast<void>(ReLoadCfgKeyBasedNCObjects());
    }
    const uint64_t before = standin::CallCount("CfgIntAttribute_get_object");
    {
        const OutOfMemoryAt here("No previous record");
        EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 272);
    }
    EXPECT_EQ(standin::CallCount("CfgIntAttribute_get_object") - before, 1U);
    ConfigObjectPtr none;
    for (ConfigObjectPtr *pointer :
         {&none, static_cast<decltype(&none)>(nullptr)})
    {
        EXPECT_EQ(CfgKeyBasedNCObjRefreshHandling(pointer, 0, RowWrite::Insert),
                  8216);
    }
}

class TypeReload : public NcReload
{
  protected:
    void SetUp() override
    {
        ForgetTypes();
    }
    void TearDown() override
    {
        ForgetTypes();
    }

    // Leaves the reload without copies: lists that can't be had take them.
    void ForgetTypes()
    {
        Clear();
        standin::SetFault("ZOILListChildOIDByType", 0, 2);
        EXPECT_EQ(ObjTypeBasedNCObjects(), 256);
        Restart();
    }

    static Bytes Device(uint16_t type, uint32_t oid, const std::string &name)
    {
        return MakeObject(type, oid, R"({"productName": ")" + name + R"("})");
    }
};

// Its size is kept in 16 bits, so that it differs from its own copy.
TEST_F(TypeReload, ReplacesHugeObjectsEachTime)
{
    Bytes huge = Device(kUsb, 5, "a");
    huge.resize(0x10000 + 40);
    Put(With(huge, kSizeWord, 0x10000 + 40));
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), (Lines{"Create 5", "Delete 5", "Create 5"}));
    EXPECT_EQ(CountLog("Data size mismatch. Recreate entry.\n"), 1);
}

TEST_F(TypeReload, GivesUp)
{
    Put(Device(kBlt, 5, "a"));
    Put(Device(kBlt, 7, "b"));
    Put(Device(kUsb, 6, "u"));
    const uint64_t lists = standin::CallCount("ZOILListChildOIDByType");
    {
        const OutOfMemoryAt here("No previous record");
        EXPECT_EQ(ObjTypeBasedNCObjects(), 272);
    }
    // Neither the second object nor the second type is reached.
    EXPECT_EQ(standin::CallCount("ZOILGetObjByOID"), 1U);
    EXPECT_EQ(standin::CallCount("ZOILListChildOIDByType") - lists, 1U);
    // An object that can't be read is tried again as it is.
    ForgetTypes();
    Put(Broken(Device(kUsb, 6, "u"), 0x18));
    EXPECT_EQ(ObjTypeBasedNCObjects(), -1);
    EXPECT_EQ(Calls(), Lines(100, "Create 6"));
    EXPECT_EQ(CountLog(kInvalid), 100);
    EXPECT_EQ(CountLog(kUsedUp), 1);
    EXPECT_EQ(SleepCount(), 0);
}

} // namespace
} // namespace qdb::test
