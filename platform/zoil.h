/*
 * Object-access library of the platform: the Data Manager's objects and
 * events.
 *
 * A closed interface: only what stands here may be relied on. The two
 * structures are the library's own formats, little-endian and packed.
 */
#ifndef PLATFORM_ZOIL_H
#define PLATFORM_ZOIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

#pragma pack(push, 1)

    /* Head of every object; the type's own fields follow. */
    typedef struct DataObjHeader
    {
        uint32_t objSize; /* whole object in bytes, this header included */
        uint32_t objID;   /* OID, unique among live objects */
        uint16_t objType;
        uint8_t objStatus;
        uint8_t objFlags;
        uint8_t refreshInterval;
        uint8_t reserved[3];
        uint32_t objExtFlags; /* first word of the body */
    } DataObjHeader;

    /* Head of every event record; the type's own body follows. */
    typedef struct DataEventHeader
    {
        uint32_t evtSize; /* whole record in bytes, this header included */
        uint16_t evtType;
        uint8_t evtFlags;
        uint8_t reserved[9];
    } DataEventHeader;

#pragma pack(pop)

    /* Called on a thread of the library; the record stays the library's. */
    typedef int (*ZOILEventListener)(DataEventHeader *record);

    /* 0, or the status of the refusal. */
    int ZOILAddEventListener(ZOILEventListener listener);
    int ZOILRemoveEventListener(ZOILEventListener listener);

    /* 1 when the Data Manager is up. */
    int ZOILIsDataManagerReady(void);

    /* A private copy of a live object, for ZOILFreeGeneric; NULL: none. */
    DataObjHeader *ZOILGetObjByOID(const uint32_t *pOID);
    DataObjHeader *ZOILGetObjByKey(const char *key);

    /* Word 0 is the count, then that many OIDs; for ZOILFreeGeneric. NULL:
     * none. */
    uint32_t *ZOILListChildOIDByType(const uint32_t *pParentOID,
                                     uint16_t objType);
    uint32_t *ZOILListParentOID(const uint32_t *pOID);

    /* Stores the object's key, for ZOFreeMem; leaves *ppKey when there is none.
     */
    int ZOILDOGetObjKeyUTF8(const DataObjHeader *pDOH, char **ppKey);

    /* Accepts anything from calloc, and NULL. */
    void ZOILFreeGeneric(void *memory);

#ifdef __cplusplus
}
#endif

#endif
