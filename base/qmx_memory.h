/**
 * @file qmx_memory.h
 * @brief Base library: memory blocks.
 *
 * Any thread may call these functions at any time; none may be called from a signal handler.
 */
#ifndef QMX_MEMORY_H
#define QMX_MEMORY_H

#include <stdint.h>

#include "qmx_api.h"

#define QMX_FILL_ZERO 0  /**< clear the whole block */
#define QMX_FILL_NONE -1 /**< leave the block as it is; the caller fills what it uses */

/**
 * Allocates a block.
 *
 * @param size        bytes; of 0 there is a block too
 * @param reserved    0
 * @param fill        QMX_FILL_ZERO or QMX_FILL_NONE
 * @param sourceFile  name of the calling source file
 * @param line        line of the call
 * @param function    name of the calling function
 * @return the block, aligned for any type, or null when there is none to be had. The caller owns it and
 *         returns it with QMX_Free().
 */
QMX_BASE_API void* QMX_Malloc(uint32_t size, int reserved, int fill, const char* sourceFile, int line,
                              const char* function);

/**
 * Allocates a cleared array.
 *
 * @param count       elements; of 0 there is an array too
 * @param size        bytes of one element
 * @param fill        0; the array is cleared whatever it says
 * @param sourceFile  name of the calling source file
 * @param line        line of the call
 * @param function    name of the calling function
 * @return the array, or null when it cannot be had (also for a negative argument, or when count x size does
 *         not fit). The caller owns it and returns it with QMX_Free().
 */
QMX_BASE_API void* QMX_Calloc(int count, int size, int fill, const char* sourceFile, int line,
                              const char* function);

/**
 * Releases a block of QMX_Malloc() or QMX_Calloc().
 *
 * @param block     the block; libqmxutil never passes null
 * @param reserved  0
 */
QMX_BASE_API void QMX_Free(void* block, int reserved);

#endif
