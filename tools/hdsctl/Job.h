#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/hdsctl/Commands.h"

namespace hdsctl {

// One snapshot lifecycle over a list of P-VOLs, as a job file describes it (see kJobFileHelp).
struct JobSpec {
  std::string name;  // ends the names of the groups and labels the job makes
  ArrayOptions array;
  std::vector<std::string> pvols;
  std::string pool;
  std::vector<std::string> svols;  // chosen by the job file, or else
  long svolFirst = -1;             // the first free LDEV numbers from here (-1: after the P-VOLs)
  std::string port, hostGroup;     // where to present the S-VOLs; no port: not presented
  std::vector<std::string> wwns;   // registered in the host group when the job makes it
  bool consistencyGroup = false;
  int waitSeconds = 600;  // for the snapshot group to reach a state
};

extern const char* const kJobFileHelp;

// The job file's text as a JobSpec; UsageError naming what is wrong.
JobSpec parseJobFile(const std::string& text);

// Runs the job: a progress line per step, then a summary. On a failure the job gives back what
// it made on the array and returns kExitFailed. With --json the progress goes to stderr and the
// summary, with the fields of extra added, to stdout.
int runJob(Context& ctx, JobSpec jobSpec, const nlohmann::json& extra = nlohmann::json::object());

}  // namespace hdsctl
