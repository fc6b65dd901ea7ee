/**
 * @file qmxutil_audio.h
 */
#ifndef QMXUTIL_AUDIO_H
#define QMXUTIL_AUDIO_H

#include "qmxutil_export.h"

#endif
