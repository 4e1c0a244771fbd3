#include "hds/raidcom/LoginCount.h"

#include <utility>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/platform/VTPlatformInfo.h"

std::string loginCountKey(std::string const& serialNumber) {
  return std::string(VT_HDS_RAIDCOM_LOCK_COUNT) + "_" + serialNumber;
}

namespace {

std::string bootKey(std::string const& serialNumber) {
  return "sVTHDSRaidcomLockBoot_" + serialNumber;
}

std::string generationKey(std::string const& serialNumber) {
  return "sVTHDSRaidcomLockGeneration_" + serialNumber;
}

}  // namespace

bool readLoginCount(std::string const& serialNumber, int& count, int* voidedCount) {
  if (voidedCount != nullptr) *voidedCount = -1;
  if (!VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, loginCountKey(serialNumber).c_str(),
                                 &count)) {
    return false;
  }
  char stored[256] = {};
  if (count == 0 ||
      !VTPlatformInfo::getString(VT_HDS_REG_SECTION_LOCAL, bootKey(serialNumber).c_str(), stored,
                                 sizeof(stored))) {
    return true;
  }
  // No session survives a restart of the host; its count would keep every later handler from
  // starting the instance, and no expired-session answer ever comes to repair it.
  const std::string boot = VTPlatformInfo::bootIdentity();
  if (boot.empty() || boot == stored) return true;
  if (voidedCount != nullptr) *voidedCount = count;
  count = 0;
  return true;
}

bool storeLoginCount(std::string const& serialNumber, int count, bool restart) {
  std::vector<std::pair<std::string, std::string>> values = {
      {loginCountKey(serialNumber), std::to_string(count)}};
  if (count <= 0 || restart) {
    values.emplace_back(generationKey(serialNumber),
                        std::to_string(readLoginGeneration(serialNumber) + 1));
  }
  // One rewrite: a crash never pairs a count with another boot or generation.
  const std::string boot = VTPlatformInfo::bootIdentity();
  if (!boot.empty()) values.emplace_back(bootKey(serialNumber), boot);
  return VTPlatformInfo::setStrings(VT_HDS_REG_SECTION_LOCAL, values);
}

int readLoginGeneration(std::string const& serialNumber) {
  int generation = 0;
  if (!VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, generationKey(serialNumber).c_str(),
                                 &generation)) {
    return 0;
  }
  return generation;
}
