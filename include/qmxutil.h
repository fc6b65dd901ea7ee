/**
 * @file qmxutil.h
 * @brief Everything that libqmxutil exports.
 */
#ifndef QMXUTIL_H
#define QMXUTIL_H

#include "qmxutil_audio.h"
#include "qmxutil_export.h"
#include "qmxutil_ini.h"
#include "qmxutil_process.h"
#include "qmxutil_signal.h"
#include "qmxutil_string.h"
#include "qmxutil_timer.h"
#include "qmxutil_usage.h"
#include "qmxutil_userdata.h"
#include "qmxutil_video.h"

#endif
