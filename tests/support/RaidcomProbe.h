#pragma once

#include <map>
#include <string>

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
  // One listing of the resource groups, its rows dropped.
  int listResourceGroups() {
    std::map<std::string, ResourceGroupStatus> groups;
    return getResourceGroup(groups, false);
  }
};

}  // namespace hdstest
