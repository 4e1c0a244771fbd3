#pragma once

#include <cstddef>
#include <mutex>
#include <string>

#include "hds/platform/VtProcess.h"

namespace hdsctl {

// Totals of the CCI calls the library ran, as a job reports them.
struct CallTotals {
  long calls = 0;
  double toolMs = 0;  // summed over the calls; overlapping calls of threads count twice
};

// What the runner reports of each CCI call while hdsctl runs: counted always, and written as
// one JSON line a call to the trace file when one is given (--trace).
class CallTrace {
 public:
  CallTrace();
  ~CallTrace();
  CallTrace(const CallTrace&) = delete;
  CallTrace& operator=(const CallTrace&) = delete;

  // Appends the lines to path from now on; a Failure when it cannot be opened.
  void openFile(const std::string& path);
  CallTotals totals();

  // The JSON line of one call, without its newline.
  static std::string line(const VtProcessCall& call);

 private:
  static void observe(void* self, const VtProcessCall& call);

  std::mutex m_oMutex;
  CallTotals m_oTotals;
  int m_iFd = -1;
};

}  // namespace hdsctl
