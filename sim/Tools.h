#pragma once

#include <string>
#include <vector>

#include "sim/SimInvocation.h"

// Entry points of the tools ccisim plays, chosen by the name it is started under.
namespace ccisim {

int runRaidcom(Invocation& inv);
int runRaidqry(Invocation& inv);
int runRaidscan(Invocation& inv);
int runHorcmStart(Invocation& inv);
int runHorcmShutdown(Invocation& inv);
int runPairCreate(Invocation& inv);
int runPairSplit(Invocation& inv);
int runPairResync(Invocation& inv);
int runPairDisplay(Invocation& inv);
int runPairEvtWait(Invocation& inv);
int runPairSyncWait(Invocation& inv);

using ToolEntry = int (*)(Invocation&);
struct ToolName {
  const char* name;
  ToolEntry run;
};
// The eleven tool names, as `ccisim install` links them.
const std::vector<ToolName>& toolNames();
ToolEntry findTool(const std::string& name);
// Whether a call may change the state; listings run in read transactions that block nobody.
bool toolWrites(const std::string& name, const std::vector<std::string>& args);

// The directory of the horcm<N>.conf files, ending in "/".
std::string horcmDirectory();

}  // namespace ccisim
