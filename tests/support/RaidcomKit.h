#pragma once
// What the raidcom handler's tests on the simulated array share.
#include <gtest/gtest.h>

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

}  // namespace hdstest
