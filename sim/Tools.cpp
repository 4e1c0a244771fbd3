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

bool toolWrites(const std::string& name, const std::vector<std::string>& args) {
  if (name == "raidqry" || name == "raidscan" || name == "pairdisplay" || name == "pairevtwait") {
    return false;
  }
  if (name != "raidcom") return true;
  // raidcom changes nothing with "get"; its verb is the first word that is not an option.
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "-login" || word == "-logout") return true;
    if (word == "-s") {
      ++i;
      continue;
    }
    if (!word.empty() && word[0] == '-') continue;
    return word != "get";
  }
  return true;
}

}  // namespace ccisim
