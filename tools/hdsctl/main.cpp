// hdsctl: the operator's tool over the hdscmd library.
#include <CLI/CLI.hpp>
#include <iostream>
#include <new>

#include "tools/hdsctl/Commands.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

void addJsonFlag(CLI::App* command, Context& ctx) {
  command->add_flag("--json", ctx.json, "Print JSON for scripts instead of a table");
}

std::string checkLdevId(const std::string& text) {
  return isDecimal(text) ? "" : "an LDEV number is decimal: " + text;
}

std::string checkDecimalId(const std::string& text) {
  return isDecimal(text) ? "" : "a decimal number is needed: " + text;
}

namespace {

const char* const kFooter = R"(
The array options (--serial, --user, --password, --cmddev, ...) can also be given as
HDSCTL_SERIAL, HDSCTL_USER, HDSCTL_PASSWORD, HDSCTL_CMDDEV, HDSCTL_HORCM_INSTANCE,
HDSCTL_RESOURCE_GROUP and HDSCTL_CCI_DIR; an option on the command line beats its variable, and
a job file's "array" beats the variables too. Where the library keeps its files:
HDS_SETTINGS_FILE, HDS_LOCK_DIR, HDS_TEMP_DIR, HDS_HORCM_DIR, HDS_CLIENT_NAME.
svol delete, snapshot delete and unmap touch only S-VOLs, and unlock only a lock that no other
session of this host uses, unless --force.
Exit status: 0 done, 1 the array or the library failed, 2 wrong arguments.
Examples:
  hdsctl check --serial 412345
  hdsctl ldevs --unmapped --json
  hdsctl job nightly.json --log job.log
  hdsctl demo
)";

// CLI11 messages can run over several lines; the tool's errors are one line each.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// "svol delete": the subcommands that were parsed.
std::string commandPath(const CLI::App& app) {
  std::string path;
  for (const CLI::App* sub = &app; !sub->get_subcommands().empty();) {
    sub = sub->get_subcommands().front();
    path += (path.empty() ? "" : " ") + sub->get_name();
  }
  return path;
}

}  // namespace

}  // namespace hdsctl

namespace {

int run(int argc, char** argv) {
  using namespace hdsctl;
  Context ctx;
  ctx.environment = takeArrayEnvironment();
  CLI::App app{"hdsctl: check a host, list and change what an array holds, and run snapshot jobs",
               "hdsctl"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("hdsctl ") + HDSCTL_VERSION);
  app.footer(kFooter);
  std::string logFile;
  bool verbose = false;
  std::string traceFile;
  app.add_option("--log", logFile,
                 "Append the library's log (UTC time, pid, thread, level, module, text) to this "
                 "file");
  app.add_option("--trace", traceFile, "Append a JSON line for each CCI call to this file");
  app.add_flag("-v,--verbose", verbose, "Show the library's log on stderr");

  addCheckCommand(app, ctx);
  addListingCommands(app, ctx);
  addOperationCommands(app, ctx);
  addJobCommands(app, ctx);
  addDemoCommand(app, ctx);
  addSupportBundleCommand(app, ctx);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "hdsctl: " << oneLine(e.what()) << " (see hdsctl --help)" << std::endl;
    return kExitUsage;
  }
  ctx.commandLine = ctx.array;
  ctx.array = resolveArrayOptions(ctx.environment, ArrayOptions(), ctx.commandLine);

  try {
    try {
      if (!logFile.empty()) ctx.log.openFile(logFile);
      if (!traceFile.empty()) ctx.trace.openFile(traceFile);
    } catch (const Failure& e) {
      throw UsageError(e.what());
    }
    ctx.log.setVerbose(verbose);
    return ctx.action();
  } catch (const UsageError& e) {
    std::cout.flush();
    std::cerr << "hdsctl: " << oneLine(e.what()) << std::endl;
    return kExitUsage;
  } catch (const Failure& e) {
    std::cout.flush();
    std::cerr << "hdsctl: " << e.what() << std::endl;
    return kExitFailed;
  } catch (const std::bad_alloc&) {
    std::cout.flush();
    std::cerr << "hdsctl: " << commandPath(app) << ": out of memory" << std::endl;
    return kExitFailed;
  } catch (const std::exception& e) {
    // A fault of hdsctl itself; the bare text of a standard exception ("stol") says nothing.
    std::cout.flush();
    std::cerr << "hdsctl: " << commandPath(app) << " stopped on an unexpected error in hdsctl ("
              << e.what() << ")" << std::endl;
    return kExitFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Building the command tree can throw too (out of memory); hdsctl still ends with a line and a
  // failure status rather than an abort.
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "hdsctl: stopped on an unexpected error in hdsctl (" << e.what() << ")"
              << std::endl;
  } catch (...) {
    std::cerr << "hdsctl: stopped on an unexpected error in hdsctl" << std::endl;
  }
  return hdsctl::kExitFailed;
}
