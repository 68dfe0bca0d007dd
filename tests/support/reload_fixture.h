// Objects and rows that come without a word, for tests of what notices them.
#pragma once

#include "reconcile/type_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/event_records.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/no_memory.h"

namespace qdb::test
{

inline void MakeRow(const Bytes &object)
{
    EXPECT_EQ(Create(object), 0);
}

inline void Put(const Bytes &object, const Words &parents = {})
{
    EXPECT_EQ(standin::PutRawObject(object, parents), "");
}

// One that says it is shorter, and is.
inline void PutShort(Bytes object, uint32_t size, const Words &parents = {})
{
    object.resize(size);
    Put(With(object, kSizeWord, size), parents);
}

// An object whose text at 0x18 can't be read as it stands.
inline Bytes Broken(Bytes object)
{
    object[0x19] = 0x20;
    return object;
}

class NcReload : public Handler
{
  protected:
    NcReload()
    {
        Clear();
    }
    ~NcReload() override
    {
        Clear();
    }

    // Leaves nothing, and the reload of devices without copies: lists that
    // can't be had take them.
    void Clear()
    {
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        ForgetStatements();
        standin::SetFault("ZOILListChildOIDByType", 0, 2);
        EXPECT_EQ(ObjTypeBasedNCObjects(), 256);
        Restart();
    }
};

} // namespace qdb::test
