// hdsctl job and hdsctl recover: a snapshot lifecycle that runs unattended, and the command that
// gives back what a dead job made.
#include "tools/hdsctl/Job.h"

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>

#include "hds/raidcom/LoginCount.h"
#include "tools/hdsctl/HostReady.h"
#include "tools/hdsctl/JobRun.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

namespace {

void onInterrupt(int) { g_iJobInterrupted = 1; }
void onBrokenPipe(int) {}

// Until the job ends, SIGINT, SIGTERM and SIGHUP (a dropped terminal) only end it at the next
// step, however often they come, so that it can still give back what it made. A reader that
// went away (SIGPIPE) ends nothing: the output is lost, the clean-up is not. A handler rather
// than SIG_IGN, as an ignored SIGPIPE would be inherited by the tools the library runs. The
// tools sit in process groups of their own and are not hit by the terminal's signals.
class InterruptGuard {
 public:
  InterruptGuard() {
    g_iJobInterrupted = 0;
    install(SIGINT, onInterrupt, m_oOld[0]);
    install(SIGTERM, onInterrupt, m_oOld[1]);
    install(SIGHUP, onInterrupt, m_oOld[2]);
    install(SIGPIPE, onBrokenPipe, m_oOld[3]);
  }
  ~InterruptGuard() {
    const int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
    for (int i = 0; i < 4; ++i) sigaction(signals[i], &m_oOld[i], nullptr);
  }
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;

 private:
  struct sigaction m_oOld[4];

  static void install(int signal, void (*handler)(int), struct sigaction& old) {
    struct sigaction sa = {};
    sa.sa_handler = handler;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(signal, &sa, &old);
  }
};

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Gives back what the dead job of this name made; its lock is held by the caller. True when
// nothing of it is left.
bool recoverHeld(Context& ctx, const std::string& name, std::ostream& out) {
  const std::string path = JobJournal::pathFor(name);
  if (!fileExists(path)) {
    out << "job " << name << ": no journal, nothing to recover\n";
    return true;
  }
  JobJournal::Contents c = JobJournal::read(path);
  JobJournal journal;
  journal.reopen(path, c.wholeBytes);
  // The journal names the array the job changed and how it reached it; only what it does not
  // keep (the password above all) comes from the command line or the environment.
  if (!ctx.commandLine.serial.empty() && ctx.commandLine.serial != c.array.serial) {
    throw UsageError("job " + name + " ran on array " + c.array.serial + ", not on " +
                     ctx.commandLine.serial);
  }
  ArrayOptions array = ctx.array;
  mergeArrayOptions(array, c.array);
  std::vector<UndoEntry> onArray;
  bool counted = false;
  for (const UndoEntry& e : c.open) {
    if (e.kind == "session") {
      counted = true;
    } else if (e.kind != "lock") {
      onArray.push_back(e);
    }
  }
  out << "job " << name << " (runner pid " << c.pid << ", dead): " << onArray.size()
      << " objects on array " << array.serial << (counted ? ", its session still counted" : "")
      << "\n";
  std::vector<std::string> left;
  if (!c.open.empty()) {
    ArraySession session(ctx.log, array);
    session.require(session.handler().lockResource(), "cannot lock the resource group");
    Undoer undoer(session, array.serial);
    for (auto it = onArray.rbegin(); it != onArray.rend(); ++it) {
      std::string why;
      if (undoer.arrayDead()) {
        why = "not tried, the array did not answer in time";
      } else if (undoer.undo(*it, why)) {
        journal.undone(it->id);
        out << "  removed: " << describeUndo(*it) << (why.empty() ? "" : " (kept: " + why + ")")
            << "\n";
        continue;
      }
      out << "  not removed: " << describeUndo(*it) << ": " << why << "\n";
      left.push_back(describeUndo(*it));
    }
    for (const UndoEntry& e : c.open) {
      if (e.kind != "session") continue;
      // Giving back a session the count no longer holds would count off another process's. A
      // count written in an earlier boot is void already; and the count holds, besides this
      // recover's own session, the dead one's only while it has not started anew since the job
      // logged in (a forced login counts its own session alone).
      const int generation = readLoginGeneration(array.serial);
      if (c.boot != bootIdentity()) {
        out << "  session: counted in an earlier boot of this host, nothing to give back\n";
      } else if (e.args.value("generation", generation) != generation || session.loginCount() < 2) {
        out << "  session: the login count started anew without it, nothing to give back\n";
      } else if (session.handler().performLogout() != 0) {
        out << "  not given back: the session: " << handlerError(session.handler()) << "\n";
        left.push_back("the session's login count");
        continue;
      } else {
        out << "  given back: the session of the dead job\n";
      }
      journal.undone(e.id);
    }
    session.close();
    for (const UndoEntry& e : c.open) {
      if (e.kind == "lock") journal.undone(e.id);
    }
  }
  if (!left.empty()) {
    out << "job " << name << ": left on array " << array.serial << ": " << joinWords(left, "; ")
        << " (the journal " << path << " keeps them)\n";
    return false;
  }
  journal.remove();
  out << "job " << name << ": everything it made is gone\n";
  return true;
}

int recoverCommand(Context& ctx, const std::string& name) {
  InterruptGuard interrupts;
  std::vector<std::string> names;
  if (!name.empty()) {
    checkJobName(name);
    names.push_back(name);
  } else {
    names = JobJournal::jobNames();
    if (names.empty()) std::cout << "no job journals in " << JobJournal::directory() << "\n";
  }
  bool allGone = true;
  for (const std::string& n : names) {
    JobLock lock(n);
    if (!lock.tryLock()) {
      if (!name.empty()) {
        throw Failure("job " + n + " is running: its runner is alive and holds the job's lock");
      }
      std::cout << "job " << n << ": running, not touched\n";
      continue;
    }
    try {
      allGone &= recoverHeld(ctx, n, std::cout);
    } catch (const std::exception& e) {
      std::cout.flush();
      std::cerr << "hdsctl: recover " << n << ": " << e.what() << "\n";
      allGone = false;
    }
  }
  return allGone ? 0 : kExitFailed;
}

int runJobFile(Context& ctx, const std::string& path) {
  return runJob(ctx, parseJobFile(readJobFile(path)));
}

}  // namespace

int runJob(Context& ctx, JobSpec jobSpec, const json& extra) {
  jobSpec.array = resolveArrayOptions(ctx.environment, jobSpec.array, ctx.commandLine);
  checkJobName(jobSpec.name);
  // The job lock and the journal need these directories: a job must not stop half way for a
  // cause known before its first change.
  if (std::string problems = hostProblemsForJob(); !problems.empty()) {
    throw Failure("job " + jobSpec.name + " cannot start: " + problems);
  }
  InterruptGuard interrupts;
  JobLock lock(jobSpec.name);
  if (!lock.tryLock()) {
    throw Failure("job " + jobSpec.name + " is already running on this host");
  }
  if (fileExists(JobJournal::pathFor(jobSpec.name))) {
    std::ostream& out = ctx.json ? std::cerr : std::cout;
    out << "a dead job of the name " << jobSpec.name << " left a journal; recovering it first\n";
    if (!recoverHeld(ctx, jobSpec.name, out)) {
      throw Failure("job " + jobSpec.name +
                    ": what the dead job of this name made is not all gone; see above");
    }
  }
  JobJournal journal;
  journal.begin(jobSpec.name, jobSpec.array);
  return runJobSteps(ctx, std::move(jobSpec), journal, extra);
}

void addJobCommands(CLI::App& app, Context& ctx) {
  auto path = std::make_shared<std::string>();
  CLI::App* job = app.add_subcommand(
      "job", "Run one snapshot lifecycle for a list of P-VOLs, described by a JSON job file");
  job->add_option("file", *path, "The job file")->required();
  addArrayOptions(job, ctx.array);
  addJsonFlag(job, ctx);
  job->footer(kJobFileHelp);
  job->callback([&ctx, path] { ctx.action = [&ctx, path] { return runJobFile(ctx, *path); }; });

  auto name = std::make_shared<std::string>();
  CLI::App* recover = app.add_subcommand(
      "recover", "Remove what dead jobs made on the array, as their journals list it");
  recover->add_option("name", *name, "The job (default: every job whose runner is dead)");
  addArrayOptions(recover, ctx.array);
  recover->footer(
      "Each job keeps a journal in $HDS_TEMP_DIR/jobs until it ends clean. recover takes the "
      "job's lock (a job whose runner is alive is refused), removes what the journal lists, "
      "newest first, reads each removal back, gives back the dead job's session and the "
      "resource group lock, and prints what it removed and what it could not. Exit 0 only when "
      "all of it is gone. The password comes from --password or HDSCTL_PASSWORD.");
  recover->callback(
      [&ctx, name] { ctx.action = [&ctx, name] { return recoverCommand(ctx, *name); }; });
}

}  // namespace hdsctl
