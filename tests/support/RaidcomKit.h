#pragma once
// What the raidcom handler's tests on the simulated array share.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/RaidcomProbe.h"
#include "tests/support/SimArray.h"
#include "tests/support/TestEnv.h"

namespace hdstest {

// Settings that point the library at the simulator's tools, with this local section.
inline void writeRaidcomSettings(const TestEnv& env, const std::string& localSection = "") {
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.cciDir() +
                    "\nsClientHostName=testhost\n[~iHarbor]\n" + localSection);
}

// A handler logged in as admin; outside meta_resource it works on the virtual storage machine
// of its resource group.
inline std::unique_ptr<RaidcomProbe> raidcomHandler(VTSO::SnapInfo& log,
                                                    const std::string& resourceGroup = "") {
  HDSCLIInitParam p = SimArray::raidcomParam();
  p.resourceGroupName = resourceGroup;
  p.isVirtualStorage = !resourceGroup.empty();
  p.virtualStorageSerial = "512345";
  auto h = std::make_unique<RaidcomProbe>(log, p);
  EXPECT_EQ(h->errorText(), "");
  return h;
}

// The calls of `tool` whose arguments begin with `words`, in order, each as the arguments after
// those words and before the instance's, blank-joined, an argument holding a blank in quotes.
inline std::vector<std::string> simCalls(const SimArray& sim, const std::vector<std::string>& words,
                                         const std::string& tool = "raidcom") {
  std::vector<std::string> calls;
  for (const SimJournalEntry& e : sim.journal()) {
    const bool match = e.tool == tool && e.args.size() >= words.size() &&
                       std::equal(words.begin(), words.end(), e.args.begin());
    if (!match) continue;
    std::string joined;
    for (size_t i = words.size(); i < e.args.size() && e.args[i].rfind("-I", 0) != 0; ++i) {
      const std::string& a = e.args[i];
      joined +=
          (i == words.size() ? "" : " ") + (a.find(' ') == std::string::npos ? a : "'" + a + "'");
    }
    calls.push_back(joined);
  }
  return calls;
}

}  // namespace hdstest
