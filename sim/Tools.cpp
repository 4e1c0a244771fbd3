#include "sim/Tools.h"

namespace ccisim {

const std::vector<ToolName>& toolNames() {
  static const std::vector<ToolName> kNames = {{"raidcom", runRaidcom},
                                               {"raidqry", runRaidqry},
                                               {"raidscan", runRaidscan},
                                               {"horcmstart.sh", runHorcmStart},
                                               {"horcmshutdown.sh", runHorcmShutdown},
                                               {"paircreate", runPairCreate},
                                               {"pairsplit", runPairSplit},
                                               {"pairresync", runPairResync},
                                               {"pairdisplay", runPairDisplay},
                                               {"pairevtwait", runPairEvtWait},
                                               {"pairsyncwait", runPairSyncWait}};
  return kNames;
}

ToolEntry findTool(const std::string& name) {
  for (const ToolName& tool : toolNames()) {
    if (name == tool.name) return tool.run;
  }
  return nullptr;
}

}  // namespace ccisim
