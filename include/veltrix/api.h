/* Export macro and common conventions of the VELTRIX C interface. */
#ifndef VELTRIX_API_H
#define VELTRIX_API_H

#if defined(VELTRIX_BUILDING)
#define VELTRIX_API __attribute__((visibility("default")))
#else
#define VELTRIX_API
#endif

#ifdef __cplusplus
#define VELTRIX_EXTERN_C_BEGIN extern "C" {
#define VELTRIX_EXTERN_C_END }
#define VELTRIX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define VELTRIX_EXTERN_C_BEGIN
#define VELTRIX_EXTERN_C_END
#define VELTRIX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#endif
