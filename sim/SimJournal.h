#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/SimStore.h"

// The fault table that lets a test make any call fail, hang or fail in the background, and the
// journal of every invocation.
namespace ccisim {

struct Fault {
  int64_t id = 0;
  std::string tool;             // a tool name, or "*" for any
  std::string pattern;          // ECMAScript regular expression searched in the joined arguments
  std::optional<int> exitCode;  // none: the command runs (after the delay)
  std::string out;
  std::string err;
  int remaining = 1;  // -1: every time
  int delayMs = 0;
  // A failure left in `get command_status` instead of running the command.
  std::string ssb1, ssb2, statusText;
};

void addFault(Store& db, const Fault& fault);
std::vector<Fault> listFaults(Store& db);
void clearFaults(Store& db);
// Cheap first look: are there faults that could match a call of this tool?
bool hasFaults(Store& db, const std::string& tool);
// The first fault that matches this call, with one of its uses consumed.
std::optional<Fault> takeFault(Store& db, const std::string& tool,
                               const std::vector<std::string>& args);

struct JournalEntry {
  int64_t seq = 0;
  int64_t timeMs = 0;
  int64_t pid = 0;
  std::string tool;
  std::vector<std::string> args;
  std::optional<int> exitCode;  // none: the call has not finished (or was killed)
};

// The journal lives beside the state, in "<state>.journal", one JSON line a call. Appending a
// line costs a fraction of the write transaction that calls which only read would otherwise
// need. A call recorded before it hangs gets a second line under the same id when it ends.
std::string journalPath(const std::string& statePath);
std::string newCallId();
void journalAppend(const std::string& statePath, const std::string& callId, const std::string& tool,
                   const std::vector<std::string>& args, std::optional<int> exitCode);
std::vector<JournalEntry> readJournal(const std::string& statePath);
void clearJournal(const std::string& statePath);

std::string jsonQuote(const std::string& text);
std::string encodeArgs(const std::vector<std::string>& args);

}  // namespace ccisim
