#pragma once
// Switches callgrind's collection on and off around one job, so that a count
// holds that job alone; nothing without valgrind's header.

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define ORVIX_COLLECT_ON() CALLGRIND_START_INSTRUMENTATION
#define ORVIX_COLLECT_OFF() CALLGRIND_STOP_INSTRUMENTATION
#else
#define ORVIX_COLLECT_ON() ((void)0)
#define ORVIX_COLLECT_OFF() ((void)0)
#endif
