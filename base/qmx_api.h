/**
 * @file qmx_api.h
 * @brief Linkage of the base library's functions.
 *
 * The base library is supplied by the device's platform, or by the stand-in under platform/. libqmxutil
 * only declares these functions: it holds none of them, and whichever base library the process has loaded
 * is the one that is called.
 */
#ifndef QMX_API_H
#define QMX_API_H

/** Gives a declaration C linkage and makes it visible outside the shared library that defines it. */
#ifdef __cplusplus
#define QMX_BASE_API extern "C" __attribute__((visibility("default")))
#else
#define QMX_BASE_API extern __attribute__((visibility("default")))
#endif

#endif
