/* libdrix_services: a stand-in for the platform's log and memory services.
 *
 * Once the library is in the process's global symbol scope (linked, preloaded, or loaded with dlopen RTLD_GLOBAL),
 * libdrix_fib6 finds the four service functions by name:
 *
 *   PXR_OsalLogWrite       writes one line to standard error
 *   PXR_OsalMemUseFlagGet  says whether the platform allocator is to be used
 *   PXR_OsalMemCacheAlloc  allocates a block
 *   PXR_OsalMemFree        releases it
 *
 * What they did is counted. All functions may be called from any thread.
 */
#ifndef DRIX_SERVICES_H
#define DRIX_SERVICES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The first argument of PXR_OsalLogWrite. */
typedef struct drix_services_log_module {
  const char *tag;
  const char *name;
  uint32_t id;
} drix_services_log_module;

/* Writes one line with the time, what the arguments say of level, code and caller, and the formatted text, in which a
 * line break becomes a blank. module, file, function and format may be null; errno stays. */
void PXR_OsalLogWrite(const drix_services_log_module *module, uint32_t level, uint32_t code, const char *file,
                      uint32_t line, const char *function, const char *format, ...)
    __attribute__((format(printf, 7, 8)));

/* Returns 1: the platform allocator is to be used. Here and below, module and function name the caller and are not
 * looked at. */
uint32_t PXR_OsalMemUseFlagGet(uint32_t module);

/* A block of at least size bytes, aligned for any object, or null. Give it back with PXR_OsalMemFree, never free(). */
void *PXR_OsalMemCacheAlloc(uint32_t size, uint32_t module, const char *function);
void PXR_OsalMemFree(void *block, uint32_t module, const char *function);

typedef struct drix_services_counters {
  uint64_t blocks_live; /* allocated and not yet released */
  uint64_t log_lines;
} drix_services_counters;

/* Copies the counters. They count modulo the machine's word, and are a snapshot only while the services are idle. */
void drix_services_get_counters(drix_services_counters *counters);

#ifdef __cplusplus
}
#endif

#endif
