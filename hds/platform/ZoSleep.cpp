#include "hds/platform/ZoSleep.h"

#include <errno.h>
#include <time.h>

#include <atomic>
#include <cmath>

namespace {
std::atomic<double> g_dTimeScale{1.0};
}

void ZoSetTimeScale(double factor) {
  if (!(factor > 0.0) || !std::isfinite(factor)) factor = 1.0;
  g_dTimeScale.store(factor, std::memory_order_relaxed);
}

double ZoGetTimeScale() { return g_dTimeScale.load(std::memory_order_relaxed); }

unsigned long ZoScaledMs(unsigned long ms) {
  if (ms == 0) return 0;
  double scaled = static_cast<double>(ms) * ZoGetTimeScale();
  if (scaled < 1.0) return 1;
  if (scaled >= 1.8e19) return static_cast<unsigned long>(-1);
  return static_cast<unsigned long>(scaled);
}

void ZOSLEEP_InTeRnAl(unsigned long ms) {
  unsigned long scaled = ZoScaledMs(ms);
  if (scaled == 0) return;
  // An absolute deadline keeps the total right however often a signal interrupts the wait.
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(scaled / 1000);
  deadline.tv_nsec += static_cast<long>(scaled % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}
