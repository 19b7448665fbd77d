// The one guard in front of every trace line of the module.
//
// The host's Print is expensive and its arguments may be, too (GetName(),
// path strings): when the trace switch is off nothing is called and no
// argument is evaluated. Levels: 1 errors and banners, 2 paths and notable
// results, 3 steps, 4 host interplay and serializer steps, 5 entry/exit.
#pragma once

#include "frame/HostServices.h"

inline bool KorvexTraceOn() { return __atomic_load_n(&Debug.m_TraceSwitch, __ATOMIC_RELAXED) != 0; }

#define KORVEX_TRACE(level, ...)             \
  do {                                       \
    if (KorvexTraceOn()) {                   \
      Debug.Print((level), __VA_ARGS__);     \
    }                                        \
  } while (0)
