#include "db/busy_wait.h"

#include "core/state.h"
#include "core/threads.h"

#include <sqlite3.h>

#include <iterator>

namespace qdb
{
namespace
{

// As SQLite's own waits grow: about a second in all.
constexpr int kPausesMs[] = {1,  2,   5,   10,  15,  20,  25,  25,  25, 50,
                             50, 100, 100, 100, 100, 100, 100, 100, 100};

// SQLite's own wait, and so allowed with the turn in hand. 0: give up.
int PauseWhileBusy(void * /*argument*/, int count)
{
    if (count >= static_cast<int>(std::size(kPausesMs)) || StopPatienceIsOver())
    {
        return 0;
    }
    sqlite3_sleep(kPausesMs[count]);
    return 1;
}

} // namespace

void ShortenBusyWaits()
{
    if (sqlite3 *handle = QDVdbHandle)
    {
        sqlite3_busy_handler(handle, PauseWhileBusy, nullptr);
    }
}

} // namespace qdb
