/**
 * @file qmxutil_export.h
 * @brief Linkage of the exported functions and tables, and the version of the interface.
 */
#ifndef QMXUTIL_EXPORT_H
#define QMXUTIL_EXPORT_H

#define QMXUTIL_VERSION_MAJOR 1 /**< changes when a program must be rebuilt; the number in the SONAME */
#define QMXUTIL_VERSION_MINOR 0 /**< changes when something is added */
#define QMXUTIL_VERSION_PATCH 0 /**< changes when something is mended */

/** Gives a declaration C linkage and exports it from the shared library. */
#ifdef __cplusplus
#define QMX_API extern "C" __attribute__((visibility("default")))
#else
#define QMX_API extern __attribute__((visibility("default")))
#endif

#endif
