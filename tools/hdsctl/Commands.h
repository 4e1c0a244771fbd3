#pragma once

#include <functional>
#include <string>

#include "tools/hdsctl/Session.h"
#include "tools/hdsctl/Trace.h"

namespace CLI {
class App;
}

namespace hdsctl {

// What every subcommand shares: the log, the trace of CCI calls, the array options and --json. The
// subcommand that was parsed leaves its work in action; main runs it after parsing.
struct Context {
  LogSink log;
  CallTrace trace;
  // The options in force (the command line over the environment), what the command line gave,
  // and what the environment gave.
  ArrayOptions array;
  ArrayOptions commandLine;
  ArrayOptions environment;
  bool json = false;
  std::function<int()> action;
};

// Adds --json to a subcommand.
void addJsonFlag(CLI::App* command, Context& ctx);
// CLI11 validators: a decimal LDEV number, a decimal id (pools, resource groups).
std::string checkLdevId(const std::string& text);
std::string checkDecimalId(const std::string& text);

void addCheckCommand(CLI::App& app, Context& ctx);
void addListingCommands(CLI::App& app, Context& ctx);
void addOperationCommands(CLI::App& app, Context& ctx);
void addJobCommands(CLI::App& app, Context& ctx);
void addDemoCommand(CLI::App& app, Context& ctx);
void addSupportBundleCommand(CLI::App& app, Context& ctx);

}  // namespace hdsctl
