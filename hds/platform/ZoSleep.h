#pragma once

#include "hds/common/HDSExport.h"

// The library's waits, and the process-wide time scale that lets tests shorten them. Thread
// safety: every function may be called from any thread; the scale is one atomic value.

// Sleep in milliseconds, scaled by the process-wide time scale; signals do not cut it short.
HDS_API void ZOSLEEP_InTeRnAl(unsigned long ms);
// 1.0 by default; 0.001 makes a 5-second wait last 5 ms. Also scales VtNamedMutex timed waits.
// A factor that is not a positive finite number restores 1.0.
HDS_API void ZoSetTimeScale(double factor);
HDS_API double ZoGetTimeScale();
// ms scaled by the time scale, never below 1 when ms > 0.
HDS_API unsigned long ZoScaledMs(unsigned long ms);
