/**
 * @file qmxutil_usage.h
 */
#ifndef QMXUTIL_USAGE_H
#define QMXUTIL_USAGE_H

#include "qmxutil_export.h"

#endif
