// Ports, host groups, WWNs and LU paths: how snapshot volumes are presented to a backup host.

#include <algorithm>
#include <cctype>
#include <string>

#include "hds/common/HDSConstants.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

using hds::raidcom::raidcom;

using hds::raidcom::hostGroupReference;
using hds::raidcom::quoteArgument;

std::string upperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

// With -key opt the status field of a resource group holds its virtual serial, cut to six
// characters. Groups whose virtual serial is the array's own belong to the physical machine
// rather than to a virtual storage machine.
bool belongsToPhysicalMachine(ResourceGroupStatus const& group) {
  return !group.status.empty() && group.status == group.serialNumber.substr(0, 6);
}

const hdsHostGroup_t* matchHostGroup(hdsPort_t const& rec, std::string const& hostGroup) {
  const std::string wanted = upperCase(hostGroup);
  for (const hdsHostGroup_t& hg : rec.hostGroups) {
    if (upperCase(hg.hostGroupName) == wanted || hg.hostGroupId == hostGroup) return &hg;
  }
  return nullptr;
}

}  // namespace

// ---- Ports

int RaidcomCommandHandler::getPortList(std::vector<hdsPort_t>& ports) {
  const std::string command = raidcom(" get port ");
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, m_sInstanceArgs, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get port list", "Failed to get port list.");
  }
  parseGetPortOutput(output, ports);
  return 0;
}

int RaidcomCommandHandler::getPortLoginWWNList(std::string const& port, hdsPort_t& portRec) {
  const std::string command = raidcom(" get port ");
  const std::string arguments = " -port " + quoteArgument(port) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get host group list for port " + port,
                "Failed to get host group list for port [%s]", port.c_str());
  }
  parseGetPortLoginOutput(output, portRec);
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Port [%s] has [%d] WWN.", port.c_str(),
                   static_cast<int>(portRec.loginWwns.size()));
  return 0;
}

// ---- Host groups

// With a WWN given (and the WWN lists read), only the host groups that hold it are kept: that is
// how a caller finds the host group of a host it knows by its HBA.
int RaidcomCommandHandler::getPortHostGroupList(std::string const& port,
                                                std::string const& hostGroup, hdsPort_t& portRec,
                                                bool withWWNs, std::string const& wwn, bool vsm) {
  const bool resourceOption = isResourceKeyOptionSupported();
  std::map<std::string, ResourceGroupStatus> groups;
  if (getResourceGroupInfo(groups, resourceOption) != 0) return 1;

  std::string arguments = " -port " + quoteArgument(port);
  if (!vsm) {
    if (resourceOption) {
      for (const auto& group : groups) {
        if (belongsToPhysicalMachine(group.second)) {
          arguments += " -resource " + std::to_string(group.second.resourceGroupId);
        }
      }
    }
    arguments += " " + m_sInstanceArgs;
  } else {
    auto own = groups.find(m_sResourceGroupName);
    if (own == groups.end()) {
      // Without its number the listing would show host groups of other machines as well.
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get host group list for port " + port,
                  "Failed to get host group list for port [%s]", port.c_str());
    }
    arguments +=
        " -resource " + std::to_string(own->second.resourceGroupId) + " " + m_sInstanceArgs;
  }

  const std::string command = raidcom(" get host_grp ");
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get host group list for port " + port,
                "Failed to get host group list for port [%s]", port.c_str());
  }
  if (portRec.portName.empty()) portRec.portName = port;
  const size_t firstNew = portRec.hostGroups.size();
  parseGetHostGroupOutput(output, m_sSerialNumber, portRec);
  if (portRec.hostGroups.size() == firstNew && !hds::text::isEmptyTable(output, "PORT")) {
    setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get host group list for port " +
                                                           port + ": the output is not a listing.");
    return 1;
  }

  const std::string preSnap =
      m_bVSM ? std::string(VT_HDS_PRE_SNAP_HOSTGROUP_VSM) + m_sVirtualStorageSerial
             : std::string(VT_HDS_PRE_SNAP_HOSTGROUP);
  // A lookup of the pre-snap host group only needs its number, so no WWNs are read for it.
  if (hostGroup != preSnap && withWWNs) {
    for (size_t i = firstNew; i < portRec.hostGroups.size(); ++i) {
      hdsHostGroup_t& entry = portRec.hostGroups[i];
      if (!hostGroup.empty() && entry.hostGroupName != hostGroup) continue;
      hdsHostGroup_t info;
      if (getHostGroupInfo(port, entry.hostGroupId, info) != 0) return 1;
      entry.wwns = info.wwns;
    }
    if (!wwn.empty()) {
      const std::string wanted = upperCase(wwn);
      auto lacksWwn = [&wanted](const hdsHostGroup_t& hg) {
        return std::none_of(hg.wwns.begin(), hg.wwns.end(),
                            [&wanted](const std::string& w) { return upperCase(w) == wanted; });
      };
      portRec.hostGroups.erase(
          std::remove_if(portRec.hostGroups.begin() + firstNew, portRec.hostGroups.end(), lacksWwn),
          portRec.hostGroups.end());
    }
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Port [%s] has [%d] host group.", port.c_str(),
                   static_cast<int>(portRec.hostGroups.size() - firstNew));
  return 0;
}

int RaidcomCommandHandler::createHostGroup(std::string const& port, std::string const& hostGroup) {
  const std::string command = raidcom(" add host_grp ");
  const std::string arguments = " -port " + quoteArgument(port) + " -host_grp_name " +
                                quoteArgument(hostGroup) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to create host group " + port + " " + hostGroup,
                "Failed to create host group for port [%s], host group [%s]", port.c_str(),
                hostGroup.c_str());
  }

  // A host group outside the handler's resource group is invisible to the handler's later
  // commands, so one that cannot be moved there is not left behind.
  if (m_sResourceGroupName != VT_HDS_META_RESOURCE_NAME &&
      addtoResourceGroup(port + " " + hostGroup, VT_HDS_RESOURCE_TYPE_PORT) != 0) {
    deleteHostGroup(port, hostGroup);
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to create host group " + port + " " + hostGroup,
                "Failed to move host group [%s-%s] to resource group [%s]", port.c_str(),
                hostGroup.c_str(), m_sResourceGroupName.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully created host group [%s] on port [%s].",
                   hostGroup.c_str(), port.c_str());
  return 0;
}

int RaidcomCommandHandler::deleteHostGroup(std::string const& port, std::string const& hostGroup) {
  const std::string command = raidcom(" delete host_grp ");
  const std::string arguments = " -port " + hostGroupReference(port, hostGroup) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to delete host group " + port + " " + hostGroup,
                "Failed to delete host group [%s] for port [%s]", hostGroup.c_str(), port.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully deleted host group [%s] on port [%s].",
                   hostGroup.c_str(), port.c_str());
  return 0;
}

int RaidcomCommandHandler::addWWNToHostGroup(std::string const& port, std::string const& hostGroup,
                                             std::string const& wwn) {
  const std::string command = raidcom(" add hba_wwn ");
  const std::string arguments = " -port " + hostGroupReference(port, hostGroup) + " -hba_wwn " +
                                quoteArgument(wwn) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed add WWN " + wwn + " to host group " + port + " " + hostGroup,
                "Failed to add WWN [%s] to host group for port [%s], host group [%s]", wwn.c_str(),
                port.c_str(), hostGroup.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                   "Successfully added WWN [%s] to host group [%s] on port [%s].", wwn.c_str(),
                   hostGroup.c_str(), port.c_str());
  return 0;
}

int RaidcomCommandHandler::getHostGroupInfo(std::string const& port, std::string const& hostGroup,
                                            hdsHostGroup_t& hg) {
  const std::string command = raidcom(" get hba_wwn ");
  const std::string arguments = " -port " + quoteArgument(port + "-" + hostGroup) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to get host group info for " + port + "-" + hostGroup,
                "Failed to get host group info for [%s-%s]", port.c_str(), hostGroup.c_str());
  }
  parseGetHbaWwnOutput(output, hg);
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "host group [%s-%s] has [%d] WWN.", port.c_str(),
                   hostGroup.c_str(), static_cast<int>(hg.wwns.size()));
  return 0;
}

int RaidcomCommandHandler::findHostGroup(std::string const& port, std::string& hostGroup) {
  hdsPort_t rec;
  if (getPortHostGroupList(port, hostGroup, rec, false, std::string(), m_bVSM) != 0) return 1;
  const hdsHostGroup_t* match = matchHostGroup(rec, hostGroup);

  const std::string preSnap =
      m_bVSM ? std::string(VT_HDS_PRE_SNAP_HOSTGROUP_VSM) + m_sVirtualStorageSerial
             : std::string(VT_HDS_PRE_SNAP_HOSTGROUP);
  if (match == nullptr && upperCase(hostGroup) == upperCase(preSnap)) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                     "Pre snap host group [%s] doesn't exist in port [%s]. Will create one. ",
                     hostGroup.c_str(), port.c_str());
    // Created under its canonical spelling, so that every host finds the same group.
    if (createHostGroup(port, preSnap) != 0) return 1;
    rec = hdsPort_t();
    if (getPortHostGroupList(port, hostGroup, rec, false, std::string(), m_bVSM) != 0) return 1;
    match = matchHostGroup(rec, hostGroup);
  }
  if (match == nullptr) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to find host group " + hostGroup + " in port " + port,
                "Host group [%s] doesn't exist in port [%s] ", hostGroup.c_str(), port.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Found host group [%s] in port [%s] ", hostGroup.c_str(),
                   port.c_str());
  hostGroup = match->hostGroupId;
  return 0;
}

int RaidcomCommandHandler::getHostGroupOfCommandDevice(std::string& hostGroup) {
  if (m_oCommandDevices.empty()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get command device.");
  }
  const std::string arguments =
      " -CLI -pdg " + quoteArgument(m_oCommandDevices.front()) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_RAIDSCAN_CMD_NAME, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get host group using raidscan command.",
                "Failed to get host group info using raidscan command.");
  }
  parseRaidscanPdgOutput(output, hostGroup);
  return 0;
}

// ---- LU paths

int RaidcomCommandHandler::mapLdevToHostGroup(std::string const& ldev, std::string const& P,
                                              std::string const& G) {
  const std::string command = raidcom(" add lun ");
  const std::string arguments = " -port " + quoteArgument(P + "-" + G) + " -ldev_id " +
                                quoteArgument(ldev) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    if (output.find("An LU path has already defined in the relevant LDEV") != std::string::npos) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Ldev [%s] is already mapped to host group [%s-%s]",
                       ldev.c_str(), P.c_str(), G.c_str());
      setErrorCodeAndString(0, std::string());
      return 0;
    }
    return fail(
        VT_HDS_ERROR_COMMAND_FAILED, "Failed to map ldev " + ldev + " to host group " + P + " " + G,
        "Failed to map ldev [%s] to host group [%s-%s]", ldev.c_str(), P.c_str(), G.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully mapped ldev [%s] to host group [%s-%s].",
                   ldev.c_str(), P.c_str(), G.c_str());
  return 0;
}

int RaidcomCommandHandler::mapDeviceGroupToHostGroup(std::string const& deviceGroup,
                                                     std::string const& P, std::string const& G) {
  const std::string command = raidcom(" add lun ");
  const std::string arguments = " -port " + quoteArgument(P + "-" + G) +
                                " -grp_opt ldev -device_grp_name " + quoteArgument(deviceGroup) +
                                " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to map device group " + deviceGroup + " to host group " + P + " " + G,
                "Failed to map device group [%s] to host group [%s-%s]", deviceGroup.c_str(),
                P.c_str(), G.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                   "Successfully mapped device group [%s] to host group [%s-%s]",
                   deviceGroup.c_str(), P.c_str(), G.c_str());
  return 0;
}

int RaidcomCommandHandler::unmapLdevFromHostGroup(std::string const& ldev, std::string const& P,
                                                  std::string const& G) {
  const std::string command = raidcom(" delete lun ");
  const std::string arguments = " -port " + quoteArgument(P + "-" + G) + " -ldev_id " +
                                quoteArgument(ldev) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) == 0) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                     "Successfully unmapped ldev [%s] from host group [%s-%s].", ldev.c_str(),
                     P.c_str(), G.c_str());
    return 0;
  }
  if (exitCode == VT_HDS_CCI_ERROR_EX_ENOOBJ) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Ldev [%s] is already unmapped from host group [%s-%s]",
                     ldev.c_str(), P.c_str(), G.c_str());
    setErrorCodeAndString(0, std::string());
    return 0;
  }
  // Busy and last-path get codes of their own: the caller retries the first later and keeps the
  // path in the second case.
  int errorCode = VT_HDS_ERROR_COMMAND_FAILED;
  if (output.find(VT_HDS_CCI_ERROR_STR_LU_BUSY) != std::string::npos) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                     "Failed to unmap ldev [%s] from host group [%s-%s] as luns is busy.",
                     ldev.c_str(), P.c_str(), G.c_str());
    errorCode = VT_HDS_CCI_SVOL_BUSY;
  } else if (output.find(VT_HDS_CCI_ERROR_STR_LAST_PATH) != std::string::npos) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                     "Failed to unmap ldev [%s] from host group [%s-%s] as it is the last path.",
                     ldev.c_str(), P.c_str(), G.c_str());
    errorCode = VT_HDS_CCI_LAST_PATH_FOR_SNAP;
  } else {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to unmap ldev [%s] from host group [%s-%s].",
                     ldev.c_str(), P.c_str(), G.c_str());
  }
  setErrorCodeAndString(errorCode,
                        "Failed to unmap ldev " + ldev + " from host group " + P + " " + G);
  return 1;
}

int RaidcomCommandHandler::unmapDeviceGroupFromHostGroup(std::string const& deviceGroup,
                                                         std::string const& P,
                                                         std::string const& G) {
  const std::string command = raidcom(" delete lun ");
  const std::string arguments = " -port " + quoteArgument(P + "-" + G) +
                                " -grp_opt ldev -device_grp_name " + quoteArgument(deviceGroup) +
                                " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    const std::string text =
        "Failed to unmap device group " + deviceGroup + " from host group " + P + " " + G;
    if (output.find(VT_HDS_CCI_ERROR_STR_LU_BUSY) != std::string::npos) {
      m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                       "Failed to unmap device group [%s] to host group [%s-%s] as luns are busy.",
                       deviceGroup.c_str(), P.c_str(), G.c_str());
      setErrorCodeAndString(VT_HDS_CCI_SVOL_BUSY, text);
      return 1;
    }
    return fail(VT_HDS_ERROR_COMMAND_FAILED, text,
                "Failed to unmap device group [%s] to host group [%s-%s].", deviceGroup.c_str(),
                P.c_str(), G.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                   "Successfully unmapped device group [%s] from host group [%s-%s].",
                   deviceGroup.c_str(), P.c_str(), G.c_str());
  return 0;
}

int RaidcomCommandHandler::getLunsForHostGroup(std::string const& P, std::string const& G,
                                               std::vector<hdsLun_t>& luns) {
  const std::string reference = hds::text::isDigits(G) ? quoteArgument(P + "-" + G)
                                                       : quoteArgument(P) + " " + quoteArgument(G);
  const std::string command = raidcom(" get lun ");
  const std::string arguments = " -port " + reference + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get luns on host group " + P + "-" + G,
                "Failed to get luns on port [%s], host group [%s].", P.c_str(), G.c_str());
  }
  const size_t known = luns.size();
  parseGetLunOutput(output, luns);
  if (luns.size() == known && !hds::text::isEmptyTable(output, "PORT")) {
    setErrorCodeAndString(
        VT_HDS_ERROR_COMMAND_FAILED,
        "Failed to get luns on host group " + P + "-" + G + ": the output is not a listing.");
    return 1;
  }
  return 0;
}
