#include "tools/hdsctl/HostReady.h"

#include "hds/common/HDSConstants.h"
#include "hds/platform/VTPI_Base.h"
#include "hds/platform/VtNamedMutex.h"

namespace hdsctl {

std::string hostProblemsForJob() {
  std::string problems;
  auto add = [&problems](const std::string& problem) {
    if (problem.empty()) return;
    problems += (problems.empty() ? "" : "; ") + problem;
  };
  add(VTPI_Base::tempDirectoryProblem());

  // A lock the job takes anyway: it makes the directory as the library would, and leaves no
  // file that a job would not.
  VtNamedMutex probe(VT_HDS_RAIDCOM_LOGIN_LOCK);
  if (!probe.isValid()) {
    add(probe.lastError());
  } else if (std::string problem = VTPI_Base::directoryProblem(VtNamedMutex::lockDirectory());
             !problem.empty()) {
    add("Lock directory [" + VtNamedMutex::lockDirectory() + "] " + problem);
  }
  return problems;
}

}  // namespace hdsctl
