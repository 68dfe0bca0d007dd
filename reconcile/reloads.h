// The reloads as their callers run them, the NC thread and the workers: under
// their mutex, with their failures logged.
//
// The mutexes are taken one at a time and outside of all database locks; a
// caller waits while another one runs the same reload.
#pragma once

namespace qdb
{

// Memory devices and host power, under gReLoadNCMutex.
int RunMemoryReload();

// FRUs, under gReLoadFRUNCMutex.
int RunFRUReload();

// The keyed object and then the keyed attributes, under
// gReLoadKeyBasedNCMutex.
void RunKeyReloads();

// The keyed object alone, under the same mutex; its failure is the caller's to
// log.
int RunKeyReload();

// Devices of types 0xEB and 0xEC, under gObjTypeBasedNCMutex. Logs its status
// in any case.
int RunTypeReload();

} // namespace qdb
