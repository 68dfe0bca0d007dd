// What can be checked about the column lists while they compile.
#include "objects/schema/rows.h"

#include <algorithm>
#include <string_view>

namespace qdb
{
namespace
{

consteval bool FormsAreInOrder()
{
    for (size_t i = 0; i < std::size(kForms); ++i)
    {
        if (kForms[i].form != static_cast<Form>(i))
        {
            return false;
        }
    }
    return kForms[std::size(kForms) - 1].form == Form::Null;
}

// A value of up to eight bytes, of which some count.
constexpr bool IsReadable(const Source &source)
{
    return KindOf(source.form) != FormKind::Integer ||
           (RangeOf(source).bits != 0 && FieldSize(source) <= 8);
}

consteval bool IntegersAreReadable()
{
    return std::ranges::all_of(ObjectTypeTable,
                               [](const ObjTypeRow &row)
                               {
                                   return std::ranges::all_of(
                                       row.table->columns,
                                       [](const Column &column)
                                       {
                                           return IsReadable(column.source);
                                       });
                               });
}

consteval bool RowsAreInOrder()
{
    // The order of the lower-case hexadecimal texts: digits come before
    // letters in either case, so the suffix up to its `_` serves.
    for (size_t i = 1; i < std::size(ObjectTypeTable); ++i)
    {
        const std::string_view before = ObjectTypeTable[i - 1].suffix;
        const std::string_view after = ObjectTypeTable[i].suffix;
        const auto a = before.substr(0, before.find('_'));
        const auto b = after.substr(0, after.find('_'));
        if (b < a)
        {
            return false;
        }
    }
    return true;
}

consteval bool PlacedFieldsOverlapNoDocumentedOne()
{
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        for (const Column &column : row.table->columns)
        {
            if (column.source.placed &&
                std::ranges::any_of(row.table->columns,
                                    [&](const Column &other)
                                    {
                                        return !other.source.placed &&
                                               Overlap(column.source,
                                                       other.source);
                                    }))
            {
                return false;
            }
        }
    }
    return true;
}

consteval bool NamesAreUnique()
{
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        const auto columns = row.table->columns;
        for (size_t i = 0; i < columns.size(); ++i)
        {
            for (size_t j = 0; j < i; ++j)
            {
                if (std::string_view(columns[i].name) == columns[j].name)
                {
                    return false;
                }
            }
        }
    }
    return true;
}

static_assert(FormsAreInOrder());
static_assert(IntegersAreReadable());
static_assert(RowsAreInOrder());
static_assert(NamesAreUnique());
static_assert(PlacedFieldsOverlapNoDocumentedOne());

} // namespace
} // namespace qdb
