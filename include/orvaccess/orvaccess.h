/*
 * liborvaccess: the C interface.
 *
 * Every function takes the handle returned by OrvAccess_create() as its first
 * argument. No function lets an exception through: status results become 0,
 * text results the text "<exception>", and OrvAccess_create() returns NULL.
 * Text results are copied into the caller's buffer with at most len bytes,
 * always zero-terminated at buf[len - 1]; len must be at least 1.
 *
 * Plain C99; usable from C++.
 */
#ifndef ORVACCESS_ORVACCESS_H
#define ORVACCESS_ORVACCESS_H

#include <stddef.h>

#include "orvaccess/orvaccess_export.h"

/* Opaque handle to an access object (the C++ class OrvAccess). */
#ifdef __cplusplus
class OrvAccess;
extern "C" {
#else
typedef struct OrvAccess OrvAccess;
#endif

/* Creates an access object (not yet opened); NULL on failure. */
ORVACCESS_EXPORT OrvAccess* OrvAccess_create(void);
/* Closes and destroys the object. */
ORVACCESS_EXPORT void OrvAccess_destroy(OrvAccess* handle);

/* Library version, "1.23.00". */
ORVACCESS_EXPORT char* OrvAccess_getVersion(OrvAccess* handle, char* buf, size_t len);
/* Build date of the interface, "Sep 25 2017". */
ORVACCESS_EXPORT char* OrvAccess_getBuildDate(OrvAccess* handle, char* buf, size_t len);

/* Sleeps ms milliseconds. */
ORVACCESS_EXPORT void OrvosiUtil_snoozeMs(int ms);
/* The library clock in milliseconds with a fractional part (wall clock). */
ORVACCESS_EXPORT double OrvosiUtil_getTimeMs(void);

#ifdef __cplusplus
}
#endif

#endif /* ORVACCESS_ORVACCESS_H */
