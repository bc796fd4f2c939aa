// XML data access: one document at a time, read by element path such as "/Config/version/platformPrefix".
// Main thread only.
#ifndef FOTA_PLATFORM_XMLDATA_H
#define FOTA_PLATFORM_XMLDATA_H

#include <stdint.h>

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

// Opens a document; the daemon gives the same path twice. Returns 0 on success.
PLATFORM_RESULT int xmldata_initialize(const char* path, const char* schema_path);

// Reads an element as a number, held at 4294967295. An element that is missing or holds no number stores
// `default_value`. Returns 0 when the element gave the number.
PLATFORM_RESULT int xmldata_getuint32_default(const char* key, uint32_t* value, uint32_t default_value);

// Reads an element's text, less the white space around it, cut to `max_length` bytes; `text` holds one byte
// more, for the NUL. A missing element stores `default_text`. Returns 0 when the element was there.
PLATFORM_RESULT int xmldata_getstring_default(const char* key, char* text, int max_length,
                                              const char* default_text);

// Counts the elements at `key`. Returns 0 on success.
PLATFORM_RESULT int xmldata_getcount(const char* key, int* count);

// Closes the document.
void xmldata_shutdown(void);

#ifdef __cplusplus
}
#endif

#endif
