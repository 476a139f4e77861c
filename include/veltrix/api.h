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
#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define VELTRIX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#else
/* C99 has no static assertion: a negative array size stops the build instead. The
 * counter keeps the typedef names unique across all headers of one translation unit. */
#define VELTRIX_ASSERT_CAT2(a, b) a##b
#define VELTRIX_ASSERT_CAT(a, b) VELTRIX_ASSERT_CAT2(a, b)
#define VELTRIX_STATIC_ASSERT(cond, msg) \
  typedef char VELTRIX_ASSERT_CAT(veltrix_static_assert_, __COUNTER__)[(cond) ? 1 : -1]
#endif
#endif

#endif
