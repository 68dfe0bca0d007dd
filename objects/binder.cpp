#include "objects/binder.h"

#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "db/mapping.h"
#include "objects/joiners.h"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace qdb
{
namespace
{

int BindText(sqlite3_stmt *statement, int parameter,
             std::optional<std::string_view> text)
{
    return text ? sqlite3_bind_text(statement, parameter, text->data(),
                                    static_cast<int>(text->size()),
                                    SQLITE_TRANSIENT)
                : sqlite3_bind_null(statement, parameter);
}

template <typename T>
int BindInteger(sqlite3_stmt *statement, int parameter,
                const ObjectView &object, size_t offset)
{
    const std::optional<T> value = object.Read<T>(offset);
    return value ? sqlite3_bind_int64(statement, parameter,
                                      static_cast<sqlite3_int64>(*value))
                 : sqlite3_bind_null(statement, parameter);
}

// A real that isn't finite could never be read back as JSON.
template <typename T>
int BindReal(sqlite3_stmt *statement, int parameter, const ObjectView &object,
             size_t offset)
{
    const std::optional<T> value = object.Read<T>(offset);
    return value && std::isfinite(*value)
               ? sqlite3_bind_double(statement, parameter, *value)
               : sqlite3_bind_null(statement, parameter);
}

int BindBits(sqlite3_stmt *statement, int parameter, const Source &source,
             const ObjectView &object, size_t offset)
{
    const auto bytes = object.Bytes(offset, FieldSize(source));
    if (!bytes)
    {
        return sqlite3_bind_null(statement, parameter);
    }
    uint64_t value = 0;
    for (size_t i = 0; i < bytes->size(); ++i)
    {
        value |= uint64_t{static_cast<uint8_t>((*bytes)[i])} << (8 * i);
    }
    value = (value >> source.bit) & ((uint64_t{1} << source.width) - 1);
    return sqlite3_bind_int64(statement, parameter,
                              static_cast<sqlite3_int64>(value));
}

// The word of an offset text; nothing when it isn't inside the object.
std::optional<uint32_t> OffsetWord(const Source &source,
                                   const ObjectView &object, size_t offset)
{
    if (FieldSize(source) == 2)
    {
        return object.Read<uint16_t>(offset);
    }
    return object.Read<uint32_t>(offset);
}

// The text that a word leads to, counted from `origin`.
int BindOffsetText(sqlite3_stmt *statement, int parameter,
                   std::optional<uint32_t> word, const ObjectView &object,
                   size_t origin)
{
    if (word.value_or(0) == 0)
    {
        return sqlite3_bind_null(statement, parameter);
    }
    const auto text = *word > kMaxTextOffset
                          ? std::nullopt
                          : object.TextInside(origin + *word);
    return text ? BindText(statement, parameter, text)
                : ZO_STATUS_INVALID_VALUE;
}

int BindJoined(sqlite3_stmt *statement, int parameter, const Source &source,
               const ObjectView &object)
{
    const uint32_t word = OffsetWord(source, object, source.offset).value_or(0);
    if (word == 0)
    {
        return sqlite3_bind_null(statement, parameter);
    }
    if (word > kMaxTextOffset)
    {
        return ZO_STATUS_INVALID_VALUE;
    }
    return BindText(statement, parameter, JoinList(object, source.join, word));
}

// The columns that the rows of one type never fill, though its objects have
// them. The message speaks of the opposite of its test, and consumers of the
// log know it so.
bool IsNeverStored(const ObjTypeRow &row, const Column &column,
                   const ObjectView &object)
{
    static constexpr std::string_view kNames[] = {
        "CurrentReleaseDate",
        "PreviousReleaseDate",
        "PreviousVersionHash",
        "Sha256String",
    };
    if (!row.Has(Trait::WithholdsReleases) ||
        std::ranges::find(kNames, column.name) == std::end(kNames))
    {
        return false;
    }
    if (object.Read<uint32_t>(column.source.offset).value_or(0) != 0)
    {
        QDB_LOG(kLogTrace,
                "%s: p_basesoftwareinventoryobject->Offset%s for HVX object "
                "is not set. Binding with NULL.",
                column.name);
    }
    return true;
}

int BindColumn(sqlite3_stmt *statement, int parameter, const ObjTypeRow &row,
               const Column &column, const ObjectView &object, const char *key)
{
    if (column.source.form == Form::ParentKey)
    {
        return key == nullptr ? sqlite3_bind_null(statement, parameter)
                              : sqlite3_bind_text(statement, parameter, key, -1,
                                                  SQLITE_TRANSIENT);
    }
    if (IsNeverStored(row, column, object))
    {
        return sqlite3_bind_null(statement, parameter);
    }
    return BindField(statement, parameter, column.source, object);
}

int BindColumns(sqlite3_stmt *statement, const ObjTypeRow &row,
                const DataObjHeader *pDOH, const char *key, BindMode mode,
                bool rawGuard)
{
    if (pDOH->objSize < kMinObjectSize)
    {
        return ZO_STATUS_INVALID_VALUE;
    }
    const ObjectView object(pDOH);
    int result = SQLITE_OK;
    int parameter = 1;
    for (const Column &column : row.table->columns)
    {
        if (mode == BindMode::Update && column.source.insertOnly)
        {
            continue;
        }
        const int status =
            BindColumn(statement, parameter, row, column, object, key);
        if (status == ZO_STATUS_INVALID_VALUE)
        {
            return status;
        }
        result |= status;
        ++parameter;
    }
    if (mode == BindMode::Update)
    {
        result |=
            sqlite3_bind_int(statement, parameter++, StoredOid(pDOH->objID));
    }
    if (rawGuard)
    {
        result |= sqlite3_bind_int(statement, parameter, 0);
    }
    return result;
}

} // namespace

int BindField(sqlite3_stmt *statement, int parameter, const Source &source,
              const ObjectView &object, size_t base)
{
    const size_t offset = base + source.offset;
    switch (source.form)
    {
    case Form::U8:
        return BindInteger<uint8_t>(statement, parameter, object, offset);
    case Form::U16:
        return BindInteger<uint16_t>(statement, parameter, object, offset);
    case Form::U32:
        return BindInteger<uint32_t>(statement, parameter, object, offset);
    case Form::U64:
        return BindInteger<uint64_t>(statement, parameter, object, offset);
    case Form::I8:
        return BindInteger<int8_t>(statement, parameter, object, offset);
    case Form::I16:
        return BindInteger<int16_t>(statement, parameter, object, offset);
    case Form::I32:
        return BindInteger<int32_t>(statement, parameter, object, offset);
    case Form::F32:
        return BindReal<float>(statement, parameter, object, offset);
    case Form::F64:
        return BindReal<double>(statement, parameter, object, offset);
    case Form::Bits:
        return BindBits(statement, parameter, source, object, offset);
    case Form::Text:
        return BindText(statement, parameter, object.TextToEnd(offset));
    case Form::TextOrNull:
    {
        const auto text = object.TextToEnd(offset);
        return BindText(statement, parameter,
                        text && !text->empty() ? text : std::nullopt);
    }
    case Form::OffsetText:
    case Form::OffsetText16:
        return BindOffsetText(statement, parameter,
                              OffsetWord(source, object, offset), object, 0);
    case Form::OffsetTextIf:
        return object.Read<uint32_t>(source.aux).value_or(0) == 0
                   ? sqlite3_bind_null(statement, parameter)
                   : BindOffsetText(statement, parameter,
                                    OffsetWord(source, object, offset), object,
                                    0);
    case Form::BodyText:
        return BindOffsetText(statement, parameter,
                              OffsetWord(source, object, offset), object,
                              kBodyBase);
    case Form::Joined:
        return BindJoined(statement, parameter, source, object);
    case Form::ParentKey:
    case Form::Null:
        break;
    }
    return sqlite3_bind_null(statement, parameter);
}

KeyOfParent FetchParentKey(const DataObjHeader *pParentDOH)
{
    KeyOfParent key;
    if (pParentDOH != nullptr)
    {
        const Wait wait;
        char *text = nullptr;
        key.asked = true;
        key.status = ZOILDOGetObjKeyUTF8(pParentDOH, &text);
        key.text.reset(text);
    }
    return key;
}

int bind_values_to_statement(sqlite3_stmt *statement, const ObjTypeRow &row,
                             const DataObjHeader *pDOH, const KeyOfParent &key,
                             BindMode mode, bool rawGuard)
{
    QDB_LOG(kLogTrace, "%s: [%s] bind_values_to_statement_%s Entry for OID: %d",
            row.suffix, row.suffix, StoredOid(pDOH->objID));
    if (key.asked)
    {
        QDB_LOG(kLogTrace, "%s: [%s]ZOILDOGetObjKeyUTF8 returned %d",
                row.suffix, key.status);
    }
    const int result =
        BindColumns(statement, row, pDOH, key.text.get(), mode, rawGuard);
    QDB_LOG(kLogTrace,
            "%s: [%s] bind_values_to_statement_%s Exit for OID: %d,status:%d",
            row.suffix, row.suffix, StoredOid(pDOH->objID), result);
    return result;
}

} // namespace qdb
