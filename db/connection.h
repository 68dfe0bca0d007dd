// The one connection to the database file.
//
// Opened once, shared by all threads, closed in the closing order. The tables
// are made elsewhere; nothing here knows them.
#pragma once

#include "db/statement.h"

#include <cstdio>

namespace qdb
{

// Opens the database into QDVdbHandle and sets its options. Returns 0, also
// when it is open already; -1 when it cannot be opened, and the handle that
// SQLite gave stays for closing; otherwise the status of the last option
// statement, that which turns foreign keys on.
int QDVDBInit();

// Whether there is a connection; logs a line when there is none.
bool HasDatabase();

// A text of SQLite's about an error, cut to its buffer: failures are told
// where there may be no memory.
class ErrorText
{
  public:
    explicit ErrorText(const char *text)
    {
        std::snprintf(text_, sizeof(text_), "%s", text);
    }

    const char *c_str() const
    {
        return text_;
    }

  private:
    char text_[512];
};

// SQLite's text for the connection's last error, copied while no other thread
// can change it. Without a connection SQLite's text for that.
ErrorText SqliteErrorMessage();

// "%s:  %s sqlite errormsg: %s" with the name of the function that failed.
void LogErrorMessage(int level, const char *function);

// Prepares a statement for one use. *pStatus gets the result; NULL unless it
// is 0, 100 or 101.
StatementPtr PrepareOnce(const char *sql, int *pStatus);

// Closes the connection, with up to 100 attempts while statements or other
// users keep it busy. Returns 0, or the last status.
int CloseDatabase();

// Puts into the statistics how many rows an earlier life has left in each
// table. Ends at the first table that can't be counted.
void CountRows();

} // namespace qdb
