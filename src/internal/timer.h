// The handler of the timer signal.
#pragma once

#include <signal.h>

void qmxutil_timer_handler(int sig, siginfo_t* info, void* context);
