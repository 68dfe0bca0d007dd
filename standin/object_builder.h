// Objects from column values.
//
// The layouts come from the same column lists that the service binds from; the
// texts of OffsetText columns, joined lists and address arrays stand behind the
// fixed part, one behind the other.
#pragma once

#include "objects/schema/table.h"

#include <jansson.h>

#include <cstdint>
#include <string>
#include <vector>

namespace standin
{

struct ObjectHead
{
    uint16_t type;
    uint32_t oid;
    uint8_t status = 0;
    uint8_t flags = 0;
    uint8_t refreshInterval = 0;
};

// The table that an object of this type and these values belongs to; NULL when
// the type has none. Types 0x45 and 0x31B have two: a "slotType" of 7 chooses
// TblRAID_EmptySlot, a "protocol" of 0x40 or 0x100 the NVMe table.
const qdb::Table *TableFor(uint16_t type, json_t *values);

// The object's bytes. An unknown column, a value of the wrong kind or a text
// that does not fit its field gives an empty vector and says why in *pError.
std::vector<uint8_t> BuildObject(const ObjectHead &head, json_t *values,
                                 std::string *pError);

} // namespace standin
