#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hds/platform/VTPlatformInfo.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "tests/support/FakeTools.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/TestEnv.h"

namespace hdstest {

// A RaidcomCommandHandler whose session state tests may read.
class RaidcomProbe : public RaidcomCommandHandler {
 public:
  using RaidcomCommandHandler::RaidcomCommandHandler;
  int errorCode() const { return m_iErrorCode; }
  const std::string& errorText() const { return m_sErrorString; }
  int ready() const { return m_iReady; }
  const std::string& instance() const { return m_sHorcmInstance; }
  const std::string& instanceArgs() const { return m_sInstanceArgs; }
  const std::string& resourceGroup() const { return m_sResourceGroupName; }
  bool loggedIn() const { return m_bLoggedIn; }
  bool resourceLocked() const { return m_bResourceGroupLocked; }
  static int lockRefCount(const std::string& serial) {
    auto it = m_oArrayLockRefCntMap.find(serial);
    return it == m_oArrayLockRefCntMap.end() ? 0 : it->second;
  }
};

// The login count of an array as the settings store holds it; -1000 when absent.
inline int storedLoginCount(const std::string& serial) {
  int value = -1000;
  VTPlatformInfo::getRegInt("~iHarbor", ("sVTHDSRaidcomLockCount_" + serial).c_str(), &value);
  return value;
}

// Fake CCI tools for the raidcom session. raidcom answers by its verb ("login", "logout",
// "get_resource", "lock_resource", "get_command_status", ...): it prints the text set with
// output() and exits with the codes queued with exits(), one per call, then 0.
class RaidcomFakes {
 public:
  explicit RaidcomFakes(const std::string& dir) : tools(dir) {
    tools.addScript("raidqry",
                    "case \"$1\" in\n"
                    "-l) printf '  No  Group    Hostname     HORCM_ver   Uid   Serial#   "
                    "Micro_ver     Cache(MB)\\n   1    --- mediahost01   01-74-03/00     0   "
                    "412345    93-07-22/00      524288\\n';;\n"
                    "*) printf 'Model  : RAID-Manager/Linux/x64\\nVer&Rev: 01-39-03/03\\n';;\n"
                    "esac");
    tools.add("horcmstart.sh", "HORCM inst starts successfully.\n");
    tools.addScript(
        "raidcom",
        "case \"$1\" in -login) v=login;; -logout) v=logout;; *) v=\"$1_$2\";; esac\n"
        "d=" +
            tools.dir() +
            ".fake\n"
            "[ -f \"$d/out_$v\" ] && cat \"$d/out_$v\"\n"
            "rc=0\n"
            "f=\"$d/rc_$v\"\n"
            "if [ -s \"$f\" ]; then rc=$(head -n 1 \"$f\"); tail -n +2 \"$f\" > \"$f.t\"; "
            "mv \"$f.t\" \"$f\"; fi\n"
            "[ \"$rc\" = 202 ] && echo 'raidcom: [EX_ENAUTH] Authentication failed with "
            "User' >&2\n"
            "exit $rc");
    output("get_resource",
           "RS_GROUP            RGID   stat      Lock_owner     Lock_host      Serial#\n"
           "meta_resource          0   Unlocked  -              -               412345\n");
    output("get_command_status",
           "HANDLE   SSB1    SSB2    ERR_CNT        Serial#     Description\n"
           "00c3       -       -          0         412345     -\n");
  }

  void output(const std::string& verb, const std::string& text) {
    writeFile(tools.dir() + ".fake/out_" + verb, text);
  }
  void exits(const std::string& verb, const std::vector<int>& codes) {
    std::string text;
    for (int code : codes) text += std::to_string(code) + "\n";
    writeFile(tools.dir() + ".fake/rc_" + verb, text);
  }
  // The raidcom calls so far, each as its argument vector in brackets.
  std::vector<std::string> calls() const { return tools.argv("raidcom"); }
  int count(const std::string& needle) const {
    int n = 0;
    for (const std::string& call : calls()) n += call.find(needle) != std::string::npos;
    return n;
  }

  FakeTools tools;
};

// A temporary environment whose settings point the handlers at the fake tools.
class RaidcomEnv {
 public:
  RaidcomEnv() : fakes(env.cciDir()) { settings(""); }

  void settings(const std::string& extra) {
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.cciDir() +
                      "\nsClientHostName=testhost\n" + extra);
  }
  HDSCLIInitParam param() const {
    HDSCLIInitParam p;
    p.serialNumber = "412345";
    p.userName = "bkpadmin";
    p.password = "S3cr3t-pw";
    p.operationType = 1;
    p.commandDevices = {"\\\\.\\CMD-412345:/dev/sdc"};
    return p;
  }
  std::unique_ptr<RaidcomProbe> handler() { return handler(param()); }
  std::unique_ptr<RaidcomProbe> handler(const HDSCLIInitParam& p) {
    return std::make_unique<RaidcomProbe>(log, p);
  }

  TestEnv env;
  RecordingSnapInfo log;
  RaidcomFakes fakes;
};

}  // namespace hdstest
