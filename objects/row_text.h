// The JSON text of a row, used as it stands.
//
// A row is read as a flat object without blanks, its keys the table's columns
// in their order, mostly written by SQLite. Almost always such a text holds
// nothing that Jansson would print differently: then it is *plain*, its values
// can be compared as bytes, and what is announced can be put together from its
// pieces. That saves parsing and printing each row.
//
// What a plain text promises:
// 1. json_loads takes it: its strings are valid UTF-8, without raw control
//    characters.
// 2. json_dumps prints each key and value as it stands here. So there are no
//    reals, no \u escapes, which the two write in different case, and no
//    integers that aren't written the one way.
// 3. Every value has one spelling, so that two values are equal exactly when
//    their bytes are.
// Any other text, also one that only might break these, is not plain, and is
// left to Jansson.
#pragma once

#include "objects/schema/table.h"

#include <array>
#include <bitset>
#include <memory>
#include <string>
#include <string_view>

namespace qdb
{

// The column behind those of the table's list, stamped at every writing.
inline constexpr char kTagColumn[] = "SingleRecordEtag";

// More than the widest table has, its tag included.
inline constexpr size_t kMaxRowFields = 192;

// Some of a row's fields: bit i stands for field i, in the table's order with
// the tag last.
using FieldSet = std::bitset<kMaxRowFields>;

class RowText
{
  public:
    // Takes a copy of a row's text and cuts it into its fields. False, with
    // the content lost, if the text isn't plain or without memory. The buffer
    // is used again.
    bool Split(const Table &table, std::string_view text);

    // The row's JSON.
    const std::string &Text() const
    {
        return text_;
    }

    // Gives a field another value: JSON as json_dumps prints it. False, with
    // the text as it was, without such a field or without memory.
    bool SetValue(std::string_view name, std::string_view value);

    FieldSet AllFields() const
    {
        return ~FieldSet() >> (kMaxRowFields - count_);
    }

    // The fields whose values differ from another row's of the same table.
    FieldSet DifferentFrom(const RowText &other) const;

    // Those of the fields that aren't the tag. Any column whose name begins
    // like the tag's counts as the tag.
    int CountWithoutTag(const FieldSet &fields) const;

    // An object of these fields as json_dumps prints it, without a NUL. Render
    // writes RenderedSize() bytes and returns their end.
    size_t RenderedSize(const FieldSet &fields) const;
    char *Render(const FieldSet &fields, char *to) const;

  private:
    // Offsets in the text. The key has its quotes; a colon is between.
    struct Field
    {
        uint32_t key;
        uint32_t value;
        uint32_t end;
    };

    std::string_view Key(const Field &field) const
    {
        return Slice(field.key, field.value - 1);
    }
    std::string_view Value(const Field &field) const
    {
        return Slice(field.value, field.end);
    }
    std::string_view Slice(size_t begin, size_t end) const
    {
        return std::string_view(text_).substr(begin, end - begin);
    }

    std::string text_;
    std::array<Field, kMaxRowFields> fields_ = {};
    size_t count_ = 0;
};

// Hands a text back, to be kept for the next rows of any thread. Allocates
// nothing.
struct KeepRowText
{
    void operator()(RowText *text) const;
};
using RowTextPtr = std::unique_ptr<RowText, KeepRowText>;

// A text to fill, mostly one that has been used before; NULL without memory.
RowTextPtr TakeRowText();

} // namespace qdb
