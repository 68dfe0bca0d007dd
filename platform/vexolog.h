/*
 * Logging library of the platform.
 *
 * A closed interface: only what stands here may be relied on. The library
 * alone knows which levels are written.
 */
#ifndef PLATFORM_VEXOLOG_H
#define PLATFORM_VEXOLOG_H

#ifdef __cplusplus
extern "C"
{
#endif

    void vexoprintf(int level, int category, const char *format, ...)
        __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
