#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hds/common/HDSRecords.h"
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

// The job file's text as a JobSpec; UsageError naming the key that is wrong.
JobSpec parseJobFile(const std::string& text);
// The text of a job file: a regular file of at most 1 MiB; UsageError naming the file.
std::string readJobFile(const std::string& path);
// A job name becomes part of a file name and of a lock name; UsageError when it cannot.
void checkJobName(const std::string& name);

// What the pair map of a job cannot hold: the state its snapshot listing last gave a pair.
struct JobPairState {
  std::string status, mirrorUnit;
};

struct JobStepRecord {
  std::string name, detail;
  double seconds = 0;
  bool ok = false;
};

// Everything the summary of a job is made from, as a table or as JSON.
struct JobReport {
  std::string job, serial;
  bool ok = false;
  double seconds = 0;
  long cciCalls = 0;       // CCI calls the job made, clean-up included
  double toolSeconds = 0;  // time those calls took; seconds - toolSeconds is hdsctl's own
  std::string failedStep, error;
  std::vector<JobStepRecord> steps;
  // The job's pairs as the library's operations take them: keyed by the P-VOL (all that they
  // read from a key is the P-VOL before "->"), each the S-VOL record made for it. pvols gives
  // the order of the job file.
  std::vector<std::string> pvols;
  std::map<std::string, hdsLdev_t> pairs;
  std::map<std::string, JobPairState> snapshots;  // by P-VOL
  std::vector<std::string> removed;               // what the clean-up removed and read back as gone
  std::vector<std::string> leftOver;              // what is still on the array
  bool leftForRecover = false;                    // the journal was kept for hdsctl recover
  nlohmann::json extra = nlohmann::json::object();  // fields the caller adds to the JSON
};

void printJobReport(const JobReport& report, bool asJson);

// Runs the job: a progress line per step, then a summary. On a failure the job gives back what
// it made on the array and returns kExitFailed. With --json the progress goes to stderr and the
// summary, with the fields of extra added, to stdout.
int runJob(Context& ctx, JobSpec jobSpec, const nlohmann::json& extra = nlohmann::json::object());

}  // namespace hdsctl
