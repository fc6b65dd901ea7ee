/**
 * @file qmxbase.h
 * @brief The base library: everything that libqmxutil asks of the platform it runs on.
 */
#ifndef QMXBASE_H
#define QMXBASE_H

#include "qmx_bits.h"
#include "qmx_bytes.h"
#include "qmx_file.h"
#include "qmx_format.h"
#include "qmx_list.h"
#include "qmx_memory.h"
#include "qmx_reader.h"
#include "qmx_trace.h"

#endif
