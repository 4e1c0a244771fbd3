#pragma once

#include <string>

#include "hds/platform/VTPlatformInfo.h"
#include "hds/raidcom/RaidcomCommandHandler.h"

namespace hdstest {

// A RaidcomCommandHandler whose session state tests may read.
class RaidcomProbe : public RaidcomCommandHandler {
 public:
  using RaidcomCommandHandler::RaidcomCommandHandler;
  int errorCode() const { return m_iErrorCode; }
  const std::string& errorText() const { return m_sErrorString; }
  const std::string& instance() const { return m_sHorcmInstance; }
  const std::string& instanceArgs() const { return m_sInstanceArgs; }
  bool loggedIn() const { return m_bLoggedIn; }
};

// The login count of an array as the settings store holds it; -1000 when absent.
inline int storedLoginCount(const std::string& serial) {
  int value = -1000;
  VTPlatformInfo::getRegInt("~iHarbor", ("sVTHDSRaidcomLockCount_" + serial).c_str(), &value);
  return value;
}

}  // namespace hdstest
