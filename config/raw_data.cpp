#include "config/raw_data.h"

#include "config/raw_file.h"
#include "config/raw_row.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/state.h"
#include "core/threads.h"
#include "db/execute.h"
#include "queues/event_record.h"

#include <dirent.h>

#include <cstdio>
#include <memory>

namespace qdb
{
namespace
{

// A longer path is cut, and then names nothing.
constexpr size_t kPathSize = 512;

struct CloseDirectory
{
    void operator()(DIR *directory) const
    {
        closedir(directory);
    }
};
using DirectoryPtr = std::unique_ptr<DIR, CloseDirectory>;

void ImportFile(const char *directory, const char *name)
{
    QDB_LOG(kLogTrace, "%s:  filename = %s\n", name);
    char path[kPathSize] = {};
    if (std::snprintf(path, sizeof(path), "%s%s", directory, name) < 0)
    {
        return;
    }
    const int status = RefreshObj_4052_RawData(path, name, 1);
    QDB_LOG(kLogTrace, "%s:  event update status = %d for key %s\n", status,
            name);
}

void UpdateObjectsForAllRawData()
{
    QDB_LOG(kLogTrace, "%s: UpdateObjectsForAllRawData: Entry\n");
    const FilePath path = RawDataDirectory();
    const DirectoryPtr directory(opendir(path.text));
    while (directory != nullptr && !StopRequested())
    {
        const dirent *entry = readdir(directory.get());
        if (entry == nullptr)
        {
            break;
        }
        if (entry->d_name[0] != '.')
        {
            ImportFile(path.text, entry->d_name);
        }
    }
    QDB_LOG(kLogTrace, "%s: UpdateObjectsForAllRawData: Exit\n");
}

// The text that the record's word at `wordAt` points to; NULL when either isn't
// wholly inside, or there is no record.
const char *TextOf(const DataEventHeader *record, uint32_t wordAt)
{
    if (record == nullptr)
    {
        return nullptr;
    }
    const auto offset = RecordWord(*record, wordAt);
    return offset ? RecordText(*record, *offset) : nullptr;
}

} // namespace

void OnLoadRawObjectsUpdate()
{
    QDB_LOG(kLogTrace, "%s: OnLoadRawObjectsUpdate: Entry\n");
    UpdateObjectsForAllRawData();
    QDB_LOG(kLogTrace, "%s: OnLoadRawObjectsUpdate: Exit\n");
}

int ObjectNotificationRawData(const DataEventHeader *record, uint16_t eventType)
{
    QDB_LOG(kLogTrace, "%s: ObjectNotificationRawData: Entry\n");
    const char *key = TextOf(record, kRawKeyOffsetAt);
    const char *filePath = TextOf(record, kRawPathOffsetAt);
    if (key == nullptr || filePath == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: ObjectNotificationRawData: Invalid Argument, "
                           "notification not processed\n");
        return kInvalidArgument;
    }
    QDB_LOG(kLogTrace, "%s: Received key %s for filepath %s", key, filePath);
    QDB_LOG(kLogTrace, "%s: Event received : %d", eventType);
    if (eventType != ZO_EVENT_RAW_DATA_UPDATE)
    {
        QDB_LOG(kLogTrace, "%s: Event received : %d is not supported",
                eventType);
        return SQLITE_OK;
    }
    const int status =
        RunStatusLoop({}, SQLITE_OK,
                      [&]
                      {
                          return RefreshObj_4052_RawData(filePath, key, 0);
                      });
    return IsSuccess(status) ? SQLITE_OK : kFailed;
}

int RefreshObj_4052_RawData(const char *filePath, const char *key, int onLoad)
{
    QDB_LOG(kLogTrace, "%s: RefreshObj_4052_RawData: Entry\n");
    LogEntry("RefreshObj_4052_RawData");
    QDB_LOG(kLogTrace, "%s: Received key %s for filepath %s", key, filePath);
    RawText value;
    if (!LoadRawValue(filePath, key, onLoad != 0, &value))
    {
        return SQLITE_OK;
    }
    if (QDVdbHandle == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: [4052]Error: DB handle not available");
        return SQLITE_OK;
    }
    const int status = ImportRawValue(key, value.get());
    QDB_LOG(kLogTrace,
            "%s: [4052]%d $-$-$-$-$-$-$-$-$-$-$-$-"
            "$-$-$-$-$-$-$-$-$-$-$-$-",
            status);
    return SQLITE_OK;
}

} // namespace qdb
