// How a column's value lies in an object.
//
// kForms has a row per form, and whoever needs to know something of a form
// looks there: the binder, the SQL of the tables, their reference, and the
// objects that the stand-in builds.
//
// To add a form: 1. its name in Form, 2. its row, 3. a function in column.h
// that columns are listed with, 4. a case in tools/audit/expected.cpp, which
// checks the readers of this table and so stands on its own.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qdb
{

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

} // namespace qdb
