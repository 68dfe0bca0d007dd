/*
 * Configuration client library of the platform: groups and attributes of the
 * configuration manager as objects.
 *
 * A closed interface: only what stands here may be relied on. Every call that
 * returns an int gives 0 on success and any other value on failure.
 */
#ifndef PLATFORM_CFGCLIENT_H
#define PLATFORM_CFGCLIENT_H

#include "zoil.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

    /* Fetch the object at path; the caller frees it with free(). */
    int CfgGroup_get_object(const char *service, const char *path,
                            DataObjHeader **ppDOH);
    int CfgIntAttribute_get_object(const char *service, const char *path,
                                   DataObjHeader **ppDOH);
    int CfgStrAttribute_get_object(const char *service, const char *path,
                                   DataObjHeader **ppDOH);
    int CfgEnumAttribute_get_object(const char *service, const char *path,
                                    DataObjHeader **ppDOH);
    int CfgPasswdAttribute_get_object(const char *service, const char *path,
                                      DataObjHeader **ppDOH);

    /* All objects of an interface, or of "CfgGroup". Word 0 of the list is the
       count, then that many object pointers; list and objects are released by
       FreeObjectList. The list may be set on failure, too. */
    int client_get_objects(const char *interfaceName, const char *filter,
                           uintptr_t **ppList);

    /* The words behind byte 16: flags, then the byte offset of the key text. */
    int client_get_obj_body_ptr(const DataObjHeader *object, uint32_t **ppBody);

    void FreeObjectList(uintptr_t *list);

    int CfgSetAttributeInt(const char *key, int value, int reserved1,
                           int reserved2);

#ifdef __cplusplus
}
#endif

#endif
