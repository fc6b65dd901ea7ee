/**
 * @file qmxutil_process.h
 */
#ifndef QMXUTIL_PROCESS_H
#define QMXUTIL_PROCESS_H

#include "qmxutil_export.h"

#endif
