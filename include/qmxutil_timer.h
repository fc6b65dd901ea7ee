/**
 * @file qmxutil_timer.h
 */
#ifndef QMXUTIL_TIMER_H
#define QMXUTIL_TIMER_H

#include "qmxutil_export.h"

#endif
