#include "objects/binder.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "db/mapping.h"
#include "objects/joiners.h"

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

int BindInteger(sqlite3_stmt *statement, int parameter, const Source &source,
                const ObjectView &object, uint64_t offset)
{
    const auto field = object.Number(offset, FieldSize(source));
    if (!field)
    {
        return sqlite3_bind_null(statement, parameter);
    }
    // Its bits go up to the top, and down again with their sign.
    const auto [bits, isSigned] = RangeOf(source);
    const uint64_t top = *field >> source.bit << (64 - bits);
    return sqlite3_bind_int64(
        statement, parameter,
        isSigned ? static_cast<sqlite3_int64>(top) >> (64 - bits)
                 : static_cast<sqlite3_int64>(top >> (64 - bits)));
}

// A real that isn't finite could never be read back as JSON.
template <typename T>
int BindReal(sqlite3_stmt *statement, int parameter, const ObjectView &object,
             uint64_t offset)
{
    const std::optional<T> value = object.Read<T>(offset);
    return value && std::isfinite(*value)
               ? sqlite3_bind_double(statement, parameter, *value)
               : sqlite3_bind_null(statement, parameter);
}

int BindInlineText(sqlite3_stmt *statement, int parameter, Form form,
                   const ObjectView &object, uint64_t offset)
{
    const auto text = object.TextToEnd(offset);
    const bool isNull = text && text->empty() && form == Form::TextOrNull;
    return BindText(statement, parameter, isNull ? std::nullopt : text);
}

// A text or a list that the word at `offset` leads to; NULL when the word is 0
// or isn't inside the object.
int BindBehindWord(sqlite3_stmt *statement, int parameter, const Source &source,
                   const ObjectView &object, uint64_t offset)
{
    const uint64_t word = object.Number(offset, FieldSize(source)).value_or(0);
    if (word == 0)
    {
        return sqlite3_bind_null(statement, parameter);
    }
    if (word > kMaxTextOffset)
    {
        return ZO_STATUS_INVALID_VALUE;
    }
    if (source.form == Form::Joined)
    {
        return BindText(
            statement, parameter,
            JoinList(object, source.join, static_cast<uint32_t>(word)));
    }
    const auto text = object.TextInside(FactsOf(source.form).textBase + word);
    return text ? BindText(statement, parameter, text)
                : ZO_STATUS_INVALID_VALUE;
}

// The message speaks of the opposite of its test, and consumers of the log know
// it so.
void LogNeverStored(const Column &column, const ObjectView &object)
{
    if (object.Read<uint32_t>(column.source.offset).value_or(0) != 0)
    {
        QDB_LOG(kLogTrace,
                "%s: p_basesoftwareinventoryobject->Offset%s for HVX object "
                "is not set. Binding with NULL.",
                column.name);
    }
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
    if (IsNeverStored(row, column))
    {
        LogNeverStored(column, object);
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
              const ObjectView &object, uint64_t base)
{
    const uint64_t offset = base + source.offset;
    switch (KindOf(source.form))
    {
    case FormKind::Integer:
        return BindInteger(statement, parameter, source, object, offset);
    case FormKind::Real:
        return source.form == Form::F32
                   ? BindReal<float>(statement, parameter, object, offset)
                   : BindReal<double>(statement, parameter, object, offset);
    case FormKind::Text:
        return BindInlineText(statement, parameter, source.form, object,
                              offset);
    case FormKind::WordText:
        if (source.form == Form::OffsetTextIf &&
            object.Read<uint32_t>(source.aux).value_or(0) == 0)
        {
            break;
        }
        [[fallthrough]];
    case FormKind::List:
        return BindBehindWord(statement, parameter, source, object, offset);
    case FormKind::None:
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
        if (key.status != 0)
        {
            NoteLack();
        }
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
