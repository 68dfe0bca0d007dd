/*
 * Base library of the platform: memory and mutexes.
 *
 * A closed interface: only what stands here may be relied on.
 */
#ifndef PLATFORM_ZO_BASE_H
#define PLATFORM_ZO_BASE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

    typedef struct ZOMutex ZOMutex;

    /* size bytes of zeroed memory, compatible with free(); NULL on failure. */
    void *ZOAllocMem(uint32_t size);

    /* Frees what ZOAllocMem or a key call gave; NULL is a no-op. */
    void ZOFreeMem(void *memory);

    /* A new, unlocked mutex for initialState 0; NULL on failure. */
    ZOMutex *ZOMutexCreate(int initialState);

    /* Waits at most timeoutMs milliseconds, -1: no limit. NULL: no-op. */
    int ZOMutexLock(ZOMutex *mutex, int timeoutMs);

    /* NULL: no-op. */
    int ZOMutexUnLock(ZOMutex *mutex);

    /* Frees an unlocked mutex. NULL: no-op. */
    int ZOMutexDestroy(ZOMutex *mutex);

#ifdef __cplusplus
}
#endif

#endif
