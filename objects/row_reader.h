// A row of the database as a JSON object.
//
// What the service announces is always read back through here: a listener gets
// exactly what a reader of the table would see. A column's JSON type is its
// storage class.
//
// Most rows stay the text that SQLite made of them; see row_text.h. Whichever
// form a reading has, what is announced of it is the same to the byte.
#pragma once

#include "core/json.h"
#include "objects/catalogue.h"
#include "objects/row_text.h"

namespace qdb
{

// A row as it was read: nothing, a plain text, or a JSON object.
class RowReading
{
  public:
    RowReading() = default;
    explicit RowReading(JsonPtr row) : json_(std::move(row))
    {
    }

    // Takes a copy of the JSON text of a row of the table. False, with *pError
    // set and the reading as it was, when the text isn't JSON.
    bool Read(const Table &table, const char *text, json_error_t *pError);

    // Takes a copy of such a text if it is plain. False, with the reading as it
    // was, otherwise, or without memory.
    bool ReadPlain(const Table &table, std::string_view text);

    // Sets a property to an array, given as json_dumps prints it. The reading
    // isn't empty; without memory it is afterwards, since a row that lacks its
    // array must not be announced.
    void SetArray(const char *name, const std::string &elements);

    bool IsEmpty() const
    {
        return json_ == nullptr && text_ == nullptr;
    }

    // The plain text, the reading's own; NULL if there is none.
    const RowText *Plain() const
    {
        return text_.get();
    }

    // Gives the row away as an object, parsed if need be; NULL when empty or
    // without memory. The reading is empty afterwards.
    JsonPtr TakeJson();

  private:
    RowTextPtr text_;
    JsonPtr json_;
};

// Reads an object's row, by the reader that its table needs. Returns 0 and sets
// *pRow; 101 when there is no row; 11 for a corrupt database; any other value
// is a failure. *pRow stays untouched unless a row was read. Lets no exception
// out, since a create has more to do after it. Takes the row's SelectObjMutex.
int ReadRow(const ObjTypeRow &row, uint32_t oid, RowReading *pRow);

} // namespace qdb
