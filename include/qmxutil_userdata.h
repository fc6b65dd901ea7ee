/**
 * @file qmxutil_userdata.h
 */
#ifndef QMXUTIL_USERDATA_H
#define QMXUTIL_USERDATA_H

#include "qmxutil_export.h"

#endif
