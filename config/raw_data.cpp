#include "config/raw_data.h"

#include "core/log.h"

namespace qdb
{

void OnLoadRawObjectsUpdate()
{
    QDB_LOG(kLogTrace, "%s: OnLoadRawObjectsUpdate: Entry\n");
    QDB_LOG(kLogTrace, "%s: UpdateObjectsForAllRawData: Entry\n");
    QDB_LOG(kLogTrace, "%s: UpdateObjectsForAllRawData: Exit\n");
    QDB_LOG(kLogTrace, "%s: OnLoadRawObjectsUpdate: Exit\n");
}

} // namespace qdb
