#include <cstdio>
#include <string>

#include "hds/common/HDSArrayModels.h"
#include "hds/common/HDSConstants.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

using hds::raidcom::raidcom;

using hds::raidcom::quoteArgument;

const char* const kGetLdev = " get ldev ";

// The -ldev_list forms, in the order in which one wins over the others.
const struct {
  int filter;
  const char* argument;
} kListFilters[] = {
    {VT_HDS_LDEV_FILTER_UNDEFINED, " -ldev_list undefined "},
    {VT_HDS_LDEV_FILTER_UNMAPPED, " -ldev_list unmapped "},
    {VT_HDS_LDEV_FILTER_MAPPED, " -ldev_list mapped "},
    {VT_HDS_LDEV_FILTER_DEFINED, " -ldev_list defined "},
    {VT_HDS_LDEV_FILTER_QUORUM, " -ldev_list quorum "},
};

// A control unit holds 256 LDEV numbers. A single unit is given in decimal, a range "a-b" in
// hexadecimal, as the callers have always passed them; the range form counts units, not LDEVs.
std::string controlUnitArguments(std::string const& value) {
  if (value.find('-') == std::string::npos) {
    const long long unit = std::atoll(value.c_str());
    return " -ldev_id " + std::to_string(unit * 256) + " -cnt 256 ";
  }
  unsigned int first = 0;
  unsigned int last = 0;
  std::sscanf(value.c_str(), "%x-%x", &first, &last);
  return " -ldev_id " + std::to_string(static_cast<long long>(first) * 256) + " -cnt " +
         std::to_string(static_cast<long long>(last) - first + 1);
}

}  // namespace

int RaidcomCommandHandler::getLdevlList(std::vector<hdsLdev_t>& ldevs,
                                        std::map<int, std::string> const& filters) {
  const std::string command = raidcom(kGetLdev);
  std::string arguments;
  bool listFilter = false;
  for (const auto& form : kListFilters) {
    if (filters.count(form.filter) != 0) {
      arguments = form.argument;
      listFilter = true;
      break;
    }
  }
  const auto unit = filters.find(VT_HDS_LDEV_FILTER_CU);
  if (!listFilter && unit != filters.end()) arguments = controlUnitArguments(unit->second);

  const auto pool = filters.find(VT_HDS_LDEV_FILTER_POOLID);
  if (pool != filters.end()) {
    if (!listFilter) arguments += " -ldev_list pool ";
    arguments += " -pool_id " + quoteArgument(pool->second);
  }
  const auto resourceGroup = filters.find(VT_HDS_LDEV_FILTER_RES_GRP);
  if (resourceGroup != filters.end())
    arguments += " -resource " + quoteArgument(resourceGroup->second);
  arguments += m_sInstanceArgs;

  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    if (exitCode == VT_HDS_CCI_ERROR_EX_ENODEV) {
      // No LDEV matches the filter: an empty answer, not a failure.
      setErrorCodeAndString(0, "");
      return 0;
    }
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get ldev list");
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }
  ::parseGetLdevOutput(output, ldevs, filters);
  return 0;
}

int RaidcomCommandHandler::getLdevInfo(std::vector<hdsLdev_t>& ldevs) {
  const std::string command = raidcom(kGetLdev);
  const std::map<int, std::string> noFilters;
  size_t refreshed = 0;
  for (hdsLdev_t& ldev : ldevs) {
    std::string output;
    int exitCode = 0;
    if (executeCommand(command, " -ldev_id " + quoteArgument(ldev.ldevId) + m_sInstanceArgs, output,
                       exitCode, false) != 0) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get info for ldev [%s]",
                       ldev.ldevId.c_str());
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      continue;
    }
    std::vector<hdsLdev_t> answer;
    ::parseGetLdevOutput(output, answer, noFilters);
    if (answer.empty() || answer.front().ldevId != ldev.ldevId ||
        answer.front().serialNumber != ldev.serialNumber) {
      const hdsLdev_t got = answer.empty() ? hdsLdev_t() : answer.front();
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get info for ldev [%s]. Got ldev [%s:%s]",
                       ldev.ldevId.c_str(), got.serialNumber.c_str(), got.ldevId.c_str());
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      continue;
    }
    ldev = std::move(answer.front());
    ++refreshed;
  }
  if (refreshed == ldevs.size()) return 0;
  return refreshed == 0 ? 1 : 2;
}

void RaidcomCommandHandler::parseGetLdevOutput(std::string const& output,
                                               std::vector<hdsLdev_t>& ldevs,
                                               std::map<int, std::string> const& filters) {
  ::parseGetLdevOutput(output, ldevs, filters);
}

bool RaidcomCommandHandler::parseGetLdevFrontEndOutput(std::string const& output,
                                                       std::vector<hdsLdev_t>& ldevs,
                                                       std::map<int, std::string> const& filters) {
  return ::parseGetLdevFrontEndOutput(output, ldevs, filters);
}

int RaidcomCommandHandler::getMaxLdevNumber(int& maxLdev) {
  const int kFallback = VT_HDS_MAX_LDEV_ID_NUMBER_HUS_VM;
  const int kWidest = VT_HDS_MAX_LDEV_ID_NUMBER_VSP;
  maxLdev = kFallback;

  int candidate = kWidest;
  // Older CCI cannot list the array type beside the resource groups ("-key opt").
  if (isResourceKeyOptionSupported()) {
    std::map<std::string, ResourceGroupStatus> groups;
    getResourceGroup(groups, true);
    const auto meta = groups.find(VT_HDS_META_RESOURCE_NAME);
    // With -key opt the lock-owner column carries the array type code.
    if (meta != groups.end()) candidate = getMaxLdevIdForArrayType(meta->second.lockOwner);
  }

  char probe[32];
  std::snprintf(probe, sizeof(probe), "%d ", candidate);
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(kGetLdev), std::string(" -ldev_id ") + probe + m_sInstanceArgs, output,
                     exitCode, false) != 0) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                     "Failed to query ldev [%d]. Will use [%d] as maximum ldev number.", kWidest,
                     kFallback);
    return 0;
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Will use [%d] as maximum ldev number.", candidate);
  maxLdev = candidate;
  return 0;
}
