/**
 * @file qmxutil_video.h
 */
#ifndef QMXUTIL_VIDEO_H
#define QMXUTIL_VIDEO_H

#include "qmxutil_export.h"

#endif
