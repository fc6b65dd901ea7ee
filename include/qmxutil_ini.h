/**
 * @file qmxutil_ini.h
 */
#ifndef QMXUTIL_INI_H
#define QMXUTIL_INI_H

#include "qmxutil_export.h"

#endif
