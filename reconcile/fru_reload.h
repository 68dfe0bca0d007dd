// The reload of the FRUs of PCIe SSDs, whose serial numbers may change without
// an event.
#pragma once

namespace qdb
{

// Reads all FRUs again and refreshes the rows of those that fru_cache.h says
// are new or changed. Returns 0; 256 when the list or an object was missing; -1
// when a refresh failed, even by a corrupt database. The caller holds
// gReLoadFRUNCMutex.
int ReLoadFRUNCObjects();

} // namespace qdb
