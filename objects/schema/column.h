// Where a column's value comes from.
//
// A table of the database is described once, as an array of Columns in the
// order of its INSERT (objects/schema/). Everything that has to agree on a
// layout is derived from that array: the SQL texts, the binder, the database
// file that qdb-schema makes, and the objects that the stand-in builds.
//
// Offsets are bytes from the first byte of an object. Objects are packed and
// little-endian; no field is aligned.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qdb
{

// How a column's value lies in an object. kForms has a row per form, and
// whoever needs to know something of a form looks there: the binder, the SQL of
// the tables, their reference, and the objects that the stand-in builds.
//
// To add a form: 1. its name here, 2. its row, 3. a function below that columns
// are listed with, 4. a case in tools/audit/expected.cpp, which checks the
// readers of this table and so stands on its own.
enum class Form : uint8_t
{
    U8,
    U16,
    U32,
    U64,
    I8,
    I16,
    I32,
    F32,
    F64,
    Bits,         // `width` bits from bit `bit` of the integer at the offset
    Text,         // NUL-terminated, inline
    TextOrNull,   // the same, NULL when empty
    OffsetText,   // a 32-bit word: offset of a text, 0 for none
    OffsetText16, // the same in a 16-bit word
    OffsetTextIf, // OffsetText, NULL while the word at `aux` is 0
    BodyText,     // a 32-bit word: offset of a text from kBodyBase, 0 for none
    Joined,       // several texts of the object joined into one
    ParentKey,    // key of the parent object
    Null,         // array properties, and fields that are never stored
};

// What is read and written in the same way.
enum class FormKind : uint8_t
{
    Integer,
    Real,
    Text,     // at the offset itself
    WordText, // where the word at the offset leads
    List,     // several texts where the word at the offset leads
    None,     // nothing of the object's own
};

// Offset of the structure that the words of BodyText, of the joined address
// lists and of ArrayProperty::offsetAt count from.
inline constexpr uint16_t kBodyBase = 0x1C;

// What holds for all columns of a form.
struct FormFacts
{
    Form form;
    FormKind kind;
    uint8_t size;        // bytes of the field; FieldSize() has the exceptions
    bool isSigned;       // of integers
    uint16_t textBase;   // what the word of a WordText counts from
    const char *sqlType; // leaves every value as the service binds it
    const char *words;   // of the reference, up to what the column adds
};

// In the order of Form, which ends with Null.
// clang-format off
inline constexpr FormFacts kForms[] = {
    {Form::U8,           FormKind::Integer,  1, false, 0,         "INTEGER", "unsigned, 8 bits"},
    {Form::U16,          FormKind::Integer,  2, false, 0,         "INTEGER", "unsigned, 16 bits"},
    {Form::U32,          FormKind::Integer,  4, false, 0,         "INTEGER", "unsigned, 32 bits"},
    {Form::U64,          FormKind::Integer,  8, false, 0,         "INTEGER", "64 bits"},
    {Form::I8,           FormKind::Integer,  1, true,  0,         "INTEGER", "signed, 8 bits"},
    {Form::I16,          FormKind::Integer,  2, true,  0,         "INTEGER", "signed, 16 bits"},
    {Form::I32,          FormKind::Integer,  4, true,  0,         "INTEGER", "signed, 32 bits"},
    {Form::F32,          FormKind::Real,     4, false, 0,         "REAL",    "float, 32 bits"},
    {Form::F64,          FormKind::Real,     8, false, 0,         "REAL",    "float, 64 bits"},
    {Form::Bits,         FormKind::Integer,  0, false, 0,         "INTEGER", ""},
    {Form::Text,         FormKind::Text,     1, false, 0,         "TEXT",    "text"},
    {Form::TextOrNull,   FormKind::Text,     1, false, 0,         "TEXT",    "text, NULL when empty"},
    {Form::OffsetText,   FormKind::WordText, 4, false, 0,         "TEXT",    "offset of a text, 32 bits"},
    {Form::OffsetText16, FormKind::WordText, 2, false, 0,         "TEXT",    "offset of a text, 16 bits"},
    {Form::OffsetTextIf, FormKind::WordText, 4, false, 0,         "TEXT",    "offset of a text, 32 bits; NULL while the word at "},
    {Form::BodyText,     FormKind::WordText, 4, false, kBodyBase, "TEXT",    "offset of a text, counted from byte "},
    {Form::Joined,       FormKind::List,     4, false, 0,         "TEXT",    ""},
    {Form::ParentKey,    FormKind::None,     0, false, 0,         "TEXT",    "key of the parent"},
    {Form::Null,         FormKind::None,     0, false, 0,         "TEXT",    "always NULL"},
};
// clang-format on

constexpr const FormFacts &FactsOf(Form form)
{
    return kForms[static_cast<size_t>(form)];
}

constexpr FormKind KindOf(Form form)
{
    return FactsOf(form).kind;
}

// The lists that Form::Joined makes one text of.
enum class Join : uint8_t
{
    None,
    PossibleValues,
    DisplayValues,
    DnsServers,
    Gateways,
    PhysicalFqdds,
};

struct Source
{
    Form form;
    uint16_t offset = 0;
    uint16_t aux = 0;
    uint8_t bit = 0;
    uint8_t width = 0;
    Join join = Join::None;
    bool insertOnly = false; // the UPDATE leaves the column alone
    bool placed = false;     // position chosen here; see Placed()
};

struct Column
{
    const char *name;
    Source source;
};

// One line of a column list reads {"Speed", U32(0x20)}.
consteval Source At(Form form, uint16_t offset)
{
    return {.form = form, .offset = offset};
}
// clang-format off
consteval Source U8(uint16_t offset) { return At(Form::U8, offset); }
consteval Source U16(uint16_t offset) { return At(Form::U16, offset); }
consteval Source U32(uint16_t offset) { return At(Form::U32, offset); }
consteval Source U64(uint16_t offset) { return At(Form::U64, offset); }
consteval Source I8(uint16_t offset) { return At(Form::I8, offset); }
consteval Source I16(uint16_t offset) { return At(Form::I16, offset); }
consteval Source I32(uint16_t offset) { return At(Form::I32, offset); }
consteval Source F32(uint16_t offset) { return At(Form::F32, offset); }
consteval Source F64(uint16_t offset) { return At(Form::F64, offset); }
consteval Source Text(uint16_t offset) { return At(Form::Text, offset); }
consteval Source TextOrNull(uint16_t offset) { return At(Form::TextOrNull, offset); }
consteval Source OffsetText(uint16_t offset) { return At(Form::OffsetText, offset); }
consteval Source OffsetText16(uint16_t offset) { return At(Form::OffsetText16, offset); }
consteval Source BodyText(uint16_t offset) { return At(Form::BodyText, offset); }
consteval Source Null() { return At(Form::Null, 0); }
// clang-format on

// Bits `bit` to `bit + width - 1` of the integer whose first byte is at
// `offset`.
consteval Source Bits(uint8_t bit, uint8_t width, uint16_t offset)
{
    return {.form = Form::Bits, .offset = offset, .bit = bit, .width = width};
}

// The text whose offset stands at `offset`, if the 32-bit word at `present`
// is not 0.
consteval Source OffsetTextIf(uint16_t offset, uint16_t present)
{
    return {.form = Form::OffsetTextIf, .offset = offset, .aux = present};
}

// A list joined into one text; the word with the list's offset is at `offset`.
consteval Source Joined(Join join, uint16_t offset)
{
    return {.form = Form::Joined, .offset = offset, .join = join};
}

// Written once, by the INSERT.
consteval Source InsertOnly(Source source)
{
    source.insertOnly = true;
    return source;
}

// The object's own OID, signed, and the key of its parent.
consteval Source ObjectId()
{
    return InsertOnly(I32(4));
}
consteval Source ParentKey()
{
    return InsertOnly(At(Form::ParentKey, 0));
}

// A field whose place the object library does not document. Such fields fill
// the room that the documented ones leave, and never overlap them.
consteval Source Placed(Source source)
{
    source.placed = true;
    return source;
}

// A list of cells of one size, and not of addresses.
constexpr bool IsCellList(const Source &source)
{
    return source.join == Join::PossibleValues ||
           source.join == Join::DisplayValues;
}

// Bytes that the source's field occupies; 0 for forms without a field of their
// own and 1 for texts, whose length only the object knows.
constexpr size_t FieldSize(const Source &source)
{
    return source.form == Form::Bits ? (source.bit + source.width + 7u) / 8u
           : IsCellList(source)      ? 2
                                     : FactsOf(source.form).size;
}

// Whether the source reads a field at its offset.
constexpr bool HasField(const Source &source)
{
    return FieldSize(source) != 0;
}

// Whether the fields have a byte in common.
constexpr bool Overlap(const Source &a, const Source &b)
{
    return HasField(a) && HasField(b) && a.offset < b.offset + FieldSize(b) &&
           b.offset < a.offset + FieldSize(a);
}

// The integers that a field can hold.
struct IntegerRange
{
    unsigned bits; // 0: none
    bool isSigned;

    constexpr int64_t Least() const
    {
        return isSigned ? -static_cast<int64_t>(Greatest()) - 1 : 0;
    }
    constexpr uint64_t Greatest() const
    {
        return bits == 0 ? 0 : UINT64_MAX >> (64 - bits + (isSigned ? 1 : 0));
    }
};

constexpr IntegerRange RangeOf(const Source &source)
{
    const FormFacts &facts = FactsOf(source.form);
    return {source.form == Form::Bits         ? source.width
            : facts.kind == FormKind::Integer ? facts.size * 8u
                                              : 0u,
            facts.isSigned};
}

// Bytes from `offset` to the first field that begins behind it, and at most
// `most`.
constexpr size_t RoomBehind(std::span<const Column> columns, size_t offset,
                            size_t most)
{
    size_t room = most;
    for (const Column &column : columns)
    {
        const size_t begin = column.source.offset;
        room = begin > offset ? std::min(room, begin - offset) : room;
    }
    return room;
}

// Marks, in `aux`, an offset word whose width Layout() cut down.
inline constexpr uint16_t kNarrowed = 0xFFFF;

// A column list with the widths of its offset words settled. A word is 32
// bits wide; where the next field begins two bytes on only 16 bits belong to
// it, and where it begins one byte on the field is a plain unsigned byte.
// Reading more would take the neighbour in and refuse every such object.
template <size_t N>
consteval std::array<Column, N> Layout(const Column (&listed)[N])
{
    std::array<Column, N> columns = std::to_array(listed);
    std::array<Column, N> documented = columns;
    for (Column &column : documented)
    {
        column.source = column.source.placed ? Null() : column.source;
    }
    for (Column &column : columns)
    {
        Source &source = column.source;
        if (source.form != Form::OffsetText || source.placed)
        {
            continue;
        }
        const size_t room = RoomBehind(documented, source.offset, 4);
        source.form = room == 1   ? Form::U8
                      : room == 2 ? Form::OffsetText16
                                  : Form::OffsetText;
        source.aux = room < 4 ? kNarrowed : 0;
    }
    return columns;
}

} // namespace qdb
