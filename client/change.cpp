#include "client/follower.h"

extern "C"
{

    const qdb_row *qdb_change_row(const qdb_change *change)
    {
        return change->row;
    }

    int qdb_change_count(const qdb_change *change)
    {
        return change->isKnown ? static_cast<int>(change->columns.size()) : -1;
    }

    size_t qdb_change_column(const qdb_change *change, size_t i)
    {
        return change->columns[i];
    }

    int qdb_change_old(const qdb_change *change, size_t i, const char **text)
    {
        if (!change->old[i])
        {
            return 0;
        }
        const qdb::client::Value &old = *change->old[i];
        *text = old.type == QDB_NULL ? nullptr : old.text.c_str();
        return 1;
    }
}
