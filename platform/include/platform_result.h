// For services whose callers have to look at the result.
#ifndef FOTA_PLATFORM_RESULT_H
#define FOTA_PLATFORM_RESULT_H

#ifdef __cplusplus
#define PLATFORM_RESULT [[nodiscard]]
#else
#define PLATFORM_RESULT
#endif

#endif
