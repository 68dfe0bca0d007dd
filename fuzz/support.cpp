#include "fuzz/support.h"

#include "core/paths.h"
#include "core/sleep.h"
#include "core/state.h"
#include "db/statement_ptr.h"
#include "queues/event_queue.h"
#include "queues/fail_queue.h"
#include "standin/standin.h"
#include "tools/schema_sql.h"

#include <sqlite3.h>

#include <cstdlib>
#include <stdexcept>

namespace qdb::fuzz
{
namespace
{

void Run(const std::string &sql)
{
    char *error = nullptr;
    const int status =
        sqlite3_exec(QDVdbHandle, sql.c_str(), nullptr, nullptr, &error);
    Require(status == SQLITE_OK, error == nullptr ? sql : error);
}

StatementPtr Prepare(const std::string &sql)
{
    sqlite3_stmt *prepared = nullptr;
    Require(sqlite3_prepare_v2(QDVdbHandle, sql.c_str(), -1, &prepared,
                               nullptr) == SQLITE_OK,
            sql);
    return StatementPtr(prepared);
}

// The mapping takes all rows along. Made once: its compiling visits all tables.
StatementPtr gClear;

// As start-up leaves them. The process keeps all of it.
bool Open()
{
    standin::Reset();
    standin::SetLog(0, nullptr);
    SetSleepFunction([](unsigned /*microseconds*/) {});
    gRuntimeRoot = "/nonexistent";
    gQdbEventQueue =
        static_cast<QdbEventQueue *>(std::calloc(1, sizeof(QdbEventQueue)));
    gFailQueue = static_cast<FailQueue *>(std::calloc(1, sizeof(FailQueue)));
    sem_init(&gQdbEventSem, 0, 0);
    sem_init(&gSqliteCorruptSem, 0, 0);
    gQdbDBMutex = ZOMutexCreate(0);
    gNamedPipeMutex = ZOMutexCreate(0);
    DbusEventsEnabled = 1;
    sqlite3 *handle = nullptr;
    Require(sqlite3_open(":memory:", &handle) == SQLITE_OK, "a database");
    // A cascade allocates for each of the tables, and a sanitizer's are slow.
    QDVdbHandle = handle;
    Run(SchemaSql());
    Run("PRAGMA foreign_keys = ON");
    gClear = Prepare("DELETE FROM ActiveOIDMapping");
    return true;
}

} // namespace

void Require(bool holds, const std::string &what)
{
    if (!holds)
    {
        throw std::logic_error(what);
    }
}

std::vector<uint8_t> Block(Bytes bytes, uint32_t claimed, size_t least)
{
    std::vector<uint8_t> block(std::max<size_t>(claimed, least));
    std::copy_n(bytes.begin(), std::min(bytes.size(), block.size()),
                block.begin());
    std::memcpy(block.data(), &claimed, sizeof(claimed));
    return block;
}

void ChangeBytes(std::vector<uint8_t> *pBytes, Input input)
{
    // With a meaning in JSON, UTF-8, or the address lists.
    static constexpr uint8_t kSpecial[] = {0,    1,    '"',  '\\', '/',  '\n',
                                           0x1F, 0x7F, 0x80, 0xC2, 0xE2, 0xED,
                                           0xF0, 0xFF, '4',  '6'};
    while (!input.IsEmpty() && !pBytes->empty())
    {
        const uint16_t place = input.Word();
        const uint8_t byte = input.Byte();
        (*pBytes)[place % 0x8000 % pBytes->size()] =
            place < 0x8000 ? byte : kSpecial[byte % std::size(kSpecial)];
    }
}

MirrorInMemory::MirrorInMemory(bool clearsRows) : clearsRows_(clearsRows)
{
    static const bool isOpen = Open();
    (void)isOpen;
}

MirrorInMemory::~MirrorInMemory()
{
    if (clearsRows_)
    {
        sqlite3_step(gClear.get());
        sqlite3_reset(gClear.get());
    }
    while (QdbEventQSize > 0)
    {
        EventNodePtr(QdbdeQueue(gQdbEventQueue)).reset();
    }
    while (QdbFailQNode *node = QdbFaildeQueue(gFailQueue))
    {
        std::free(node);
    }
}

std::string QueryValue(const std::string &sql)
{
    const StatementPtr statement = Prepare(sql);
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
    {
        return "";
    }
    const void *text = sqlite3_column_text(statement.get(), 0);
    return text == nullptr ? "" : static_cast<const char *>(text);
}

} // namespace qdb::fuzz
