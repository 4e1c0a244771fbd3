#pragma once

#include <signal.h>

#include <nlohmann/json.hpp>

#include "tools/hdsctl/Job.h"
#include "tools/hdsctl/JobJournal.h"

namespace hdsctl {

// Set by the job's signal handlers; the run ends at the next step once it is set.
extern volatile sig_atomic_t g_iJobInterrupted;

// Runs the steps of the job with its journal begun; cleans up on a failure.
int runJobSteps(Context& ctx, JobSpec jobSpec, JobJournal& journal, const nlohmann::json& extra);

}  // namespace hdsctl
