// ccisim: one binary that plays the CCI tools by the name it is started under, against an
// emulated array kept in $CCISIM_STATE, plus the admin commands when started as ccisim.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sim/SimAdmin.h"
#include "sim/SimJournal.h"
#include "sim/Tools.h"

namespace ccisim {

namespace {

void writeAll(int fd, const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
}

// Crash tests kill an invocation while it holds its transaction; they are told when it does.
void holdBeforeCommit() {
  const char* hold = std::getenv("CCISIM_HOLD_MS");
  if (!hold) return;
  writeAll(2, "ccisim: holding\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(std::atoll(hold)));
}

// One invocation of a tool is one transaction: the fault it meets and the changes it makes
// commit together, and nothing is printed or journalled before they have. A command that ends in
// an error keeps the state as it was. Calls that only list run in a read transaction.
int runTool(const std::string& name, ToolEntry entry, const std::vector<std::string>& args) {
  const char* statePath = std::getenv("CCISIM_STATE");
  std::string state = statePath ? statePath : "";
  std::string callId = newCallId();
  std::string out, err;
  int status = 0;
  try {
    Store store(state, Store::Mode::Existing);
    Invocation inv(store, name, args);
    inv.settleIfDue();
    bool faults = hasFaults(store, name);
    inv.setWriter(faults || toolWrites(name, args));
    inv.beginTransaction();
    std::optional<Fault> fault;
    if (faults) fault = takeFault(store, name, args);
    if (fault && fault->delayMs > 0) {
      // The call is recorded and its fault used up before it hangs, as a time-out kills it.
      store.commit();
      journalAppend(state, callId, name, args, std::nullopt);
      std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
      inv.settleIfDue();
      inv.beginTransaction();
    }
    if (fault && fault->exitCode) {
      out = fault->out;
      err = fault->err;
      status = *fault->exitCode;
    } else {
      if (fault && !fault->ssb1.empty()) {
        inv.inject(AsyncFailure{fault->ssb1, fault->ssb2, fault->statusText});
      }
      store.exec("SAVEPOINT command");
      try {
        status = entry(inv);
        store.exec("RELEASE command");
      } catch (const ToolExit& e) {
        status = e.status;
        store.exec("ROLLBACK TO command");
        store.exec("RELEASE command");
      }
      out = inv.out();
      err = inv.err();
    }
    holdBeforeCommit();
    store.commit();
    journalAppend(state, callId, name, args, status);
  } catch (const StoreError& e) {
    out.clear();
    err = std::string("ccisim: ") + e.what() + "\n";
    status = 255;
  } catch (const std::exception& e) {
    out.clear();
    err = std::string("ccisim: internal error: ") + e.what() + "\n";
    status = 255;
  }
  writeAll(1, out);
  writeAll(2, err);
  return status;
}

}  // namespace

}  // namespace ccisim

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  std::string self = argv[0] ? argv[0] : "ccisim";
  std::string name = self.substr(self.rfind('/') + 1);
  std::vector<std::string> args(argv + 1, argv + argc);
  ccisim::ToolEntry entry = ccisim::findTool(name);
  if (!entry && !args.empty()) {
    // "ccisim raidcom get port ..." plays the tool without a link.
    entry = ccisim::findTool(args.front());
    if (entry) {
      name = args.front();
      args.erase(args.begin());
    }
  }
  if (!entry) return ccisim::runAdmin(args);
  return ccisim::runTool(name, entry, args);
}
