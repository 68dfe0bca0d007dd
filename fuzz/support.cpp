#include "fuzz/support.h"

#include "core/paths.h"
#include "core/sleep.h"
#include "core/state.h"
#include "db/statement_ptr.h"
#include "db/turn.h"
#include "queues/event_queue.h"
#include "queues/fail_queue.h"
#include "standin/standin.h"
#include "tools/schema_sql.h"

#include <sqlite3.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace qdb::fuzz
{
namespace
{

// All that ask for it have the same one.
sqlite3 *Connect()
{
    sqlite3 *handle = nullptr;
    Require(sqlite3_open_v2("file:/mirror?vfs=memdb", &handle,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                                SQLITE_OPEN_URI,
                            nullptr) == SQLITE_OK,
            "a database");
    return handle;
}

void Run(const std::string &sql)
{
    char *error = nullptr;
    const int status =
        sqlite3_exec(QDVdbHandle, sql.c_str(), nullptr, nullptr, &error);
    Require(status == SQLITE_OK, error == nullptr ? sql : error);
}

StatementPtr Prepare(sqlite3 *handle, const std::string &sql)
{
    sqlite3_stmt *prepared = nullptr;
    Require(sqlite3_prepare_v2(handle, sql.c_str(), -1, &prepared, nullptr) ==
                SQLITE_OK,
            sql);
    return StatementPtr(prepared);
}

// Empties the tables that objects have rows in. Without foreign keys, and so on
// a connection of its own: SQLite drops a table's rows at once then, where a
// cascade looks for each of them in every table.
class Clearing
{
  public:
    Clearing()
    {
        statements_.push_back(Prepare(handle_, "BEGIN"));
        const StatementPtr tables = Prepare(
            handle_, "SELECT name FROM sqlite_schema WHERE type = 'table' AND "
                     "(name = 'ActiveOIDMapping' OR EXISTS (SELECT 1 FROM "
                     "pragma_foreign_key_list(name)))");
        while (sqlite3_step(tables.get()) == SQLITE_ROW)
        {
            const void *name = sqlite3_column_text(tables.get(), 0);
            statements_.push_back(
                Prepare(handle_, std::string("DELETE FROM ") +
                                     static_cast<const char *>(name)));
        }
        statements_.push_back(Prepare(handle_, "COMMIT"));
    }

    void Run()
    {
        for (const StatementPtr &statement : statements_)
        {
            sqlite3_step(statement.get());
            Require(sqlite3_reset(statement.get()) == SQLITE_OK,
                    sqlite3_sql(statement.get()));
        }
    }

  private:
    sqlite3 *handle_ = Connect(); // for the life of the process
    std::vector<StatementPtr> statements_;
};

// Pages come of one block: a sanitizer's allocations are slow, and each input
// takes hundreds.
void KeepPages()
{
    constexpr int kCount = 4096;
    constexpr int kPageSize = 4096;
    int headSize = 0;
    sqlite3_config(SQLITE_CONFIG_PCACHE_HDRSZ, &headSize);
    static std::vector<char> pages(size_t{kCount} *
                                   static_cast<size_t>(kPageSize + headSize));
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, pages.data(), kPageSize + headSize,
                   kCount);
}

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
    KeepPages();
    QDVdbHandle = Connect();
    Run(SchemaSql());
    Run("PRAGMA foreign_keys = ON");
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
        static Clearing clearing;
        GiveUpRead();
        clearing.Run();
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
    const StatementPtr statement = Prepare(QDVdbHandle, sql);
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
    {
        return "";
    }
    const void *text = sqlite3_column_text(statement.get(), 0);
    return text == nullptr ? "" : static_cast<const char *>(text);
}

} // namespace qdb::fuzz
