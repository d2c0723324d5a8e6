/* Symbol export and calling convention of the Quorvendale binary interface.
 *
 * Every operation table entry and exported function uses QV_CALL, so a caller
 * built by another compiler agrees with the library on how arguments travel. */
#ifndef QUORVENDALE_EXPORT_H
#define QUORVENDALE_EXPORT_H

#if defined(_WIN32) && !defined(_WIN64)
#define QV_CALL __stdcall
#else
#define QV_CALL
#endif

#if defined(_WIN32)
#define QV_EXPORT __declspec(dllexport)
#else
#define QV_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define QV_EXTERN_C extern "C"
#else
#define QV_EXTERN_C
#endif

/* Definitions a header may repeat in every translation unit: one inline
 * entity in C++, a private copy per unit in C. */
#ifdef __cplusplus
#define QV_HEADER_CONSTANT inline constexpr
#define QV_HEADER_FUNCTION inline
#else
#define QV_HEADER_CONSTANT static const
#define QV_HEADER_FUNCTION static inline
#endif

/* Layout checks that hold for C and C++ callers alike. */
#ifdef __cplusplus
#define QV_STATIC_ASSERT(condition, message) static_assert(condition, message)
#else
#define QV_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

#endif /* QUORVENDALE_EXPORT_H */
