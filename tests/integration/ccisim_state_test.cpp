// The simulator's state as a crash-safe store: a killed invocation, missing or corrupt state
// files, dump and load.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>

#include "tests/support/SimArray.h"

namespace {

using hdstest::SimArray;
using hdstest::ToolResult;

class CcisimStateTest : public ::testing::Test {
 protected:
  void SetUp() override { m_oSim.startRaidcomSession(); }

  hdstest::TestEnv m_oEnv;
  SimArray m_oSim{m_oEnv};
};

// Starts raidcom with its transaction held open, kills it there, and checks nothing stayed.
TEST_F(CcisimStateTest, KilledInvocationLeavesStateAsItWas) {
  std::string before = m_oSim.dump();
  // The shell prints its process id and becomes raidcom.
  FILE* tool =
      popen(("echo $$; CCISIM_HOLD_MS=30000 exec " + m_oSim.toolPath("raidcom") +
             " add ldev -pool 0 -ldev_id 500 -capacity 1G" + SimArray::instanceArgs() + " 2>&1")
                .c_str(),
            "r");
  ASSERT_NE(tool, nullptr);
  char line[256] = {};
  const pid_t pid = fgets(line, sizeof(line), tool) != nullptr ? std::atoi(line) : 0;
  while (std::strstr(line, "holding") == nullptr && fgets(line, sizeof(line), tool) != nullptr) {
  }
  ASSERT_NE(std::strstr(line, "holding"), nullptr) << line;
  ASSERT_GT(pid, 0);
  kill(pid, SIGKILL);
  const int status = pclose(tool);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

  EXPECT_EQ(m_oSim.dump(), before);
  // The LDEV was never made: making it now succeeds.
  EXPECT_EQ(m_oSim.raidcom("add ldev -pool 0 -ldev_id 500 -capacity 1G").exitCode, 0);
}

TEST_F(CcisimStateTest, DumpLoadsBackToTheSameState) {
  for (const char* line :
       {"add ldev -pool 0 -ldev_id 300 -capacity 1G",
        "add device_grp -device_grp_name DG Pair_100 -ldev_id 300",
        "add host_grp -port CL2-A -host_grp_name 'backup host'",
        "add lun -port CL2-A-1 -ldev_id 300", "add hba_wwn -port CL2-A-1 -hba_wwn 10000090fa1b2c4d",
        "add snapshot -ldev_id 100 300 -pool 1 -snapshotgroup SG",
        "lock resource -resource_name meta_resource"}) {
    ASSERT_EQ(m_oSim.raidcom(line).exitCode, 0) << line;
  }
  std::string json = m_oSim.dumpJson();
  m_oSim.load(json);
  EXPECT_EQ(m_oSim.dumpJson(), json);
  // A scenario that does not load leaves the state alone.
  EXPECT_THROW(m_oSim.load(R"({"arrays":[{"serial":"1","ldevs":[{"id":1},{"id":1}]}]})"),
               std::runtime_error);
  EXPECT_EQ(m_oSim.dumpJson(), json);
}

TEST(CcisimStateFile, MissingOrCorruptStateGivesAClearMessage) {
  hdstest::TestEnv env;
  SimArray sim(env);
  hdstest::writeFile(env.root() + "/garbage.db", std::string(8192, 'x'));
  for (const auto& [state, message] : std::vector<std::pair<std::string, std::string>>{
           {env.root() + "/nothing.db", "no simulator state at"},
           {env.root() + "/garbage.db", "corrupt"},
           {"", "CCISIM_STATE is not set"}}) {
    env.setEnv("CCISIM_STATE", state.empty() ? nullptr : state.c_str());
    ToolResult r = sim.run("raidqry", {"-h"});
    EXPECT_NE(r.exitCode, 0) << message;
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
  }
}

}  // namespace
