/* Export macro and calling conventions shared by every public header. */
#ifndef KESTREL_EXPORT_H
#define KESTREL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define KESTREL_API __attribute__((visibility("default")))
#else
#define KESTREL_API
#endif

#ifdef __cplusplus
#define KESTREL_EXTERN_C_BEGIN extern "C" {
#define KESTREL_EXTERN_C_END }
#else
#define KESTREL_EXTERN_C_BEGIN
#define KESTREL_EXTERN_C_END
#endif

#endif
