/**
 * @file qmxutil_string.h
 */
#ifndef QMXUTIL_STRING_H
#define QMXUTIL_STRING_H

#include "qmxutil_export.h"

#endif
