#include "db/busy_wait.h"

#include "core/sleep.h"
#include "core/state.h"
#include "core/threads.h"

#include <sqlite3.h>

#include <iterator>

namespace qdb
{
namespace
{

// As SQLite's own waits grow: about a second in all.
constexpr unsigned kPausesMs[] = {1,  2,   5,   10,  15,  20,  25,  25,  25, 50,
                                  50, 100, 100, 100, 100, 100, 100, 100, 100};

// 0: give up.
int PauseWhileBusy(void * /*argument*/, int count)
{
    constexpr unsigned kMicrosecondsPerMs = 1000;
    if (count >= static_cast<int>(std::size(kPausesMs)) || StopPatienceIsOver())
    {
        return 0;
    }
    SleepMicroseconds(kPausesMs[count] * kMicrosecondsPerMs);
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
