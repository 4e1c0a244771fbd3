#include "hds/common/HDSRecords.h"

hdsLdev_t::hdsLdev_t() { initialize(); }

hdsLdev_t::~hdsLdev_t() { initialize(); }

void hdsLdev_t::initialize() {
  serialNumber = ldevId = volType = poolId = newLabel = label = deviceName = std::string();
  virtualLdevId.clear();
  remoteSerial.clear();
  capacity = 0;
  callerValue = 0;
  volAttr = 0;
  callerInt = 0;
  resourceGroupId = 0;
  lunPaths.clear();
  callerList.clear();
  mpBladeId = 0;
  isCloneTarget = false;
}

hdsCopyGroup_t::hdsCopyGroup_t() { initialize(); }

void hdsCopyGroup_t::initialize() {
  copyGroupName.clear();
  deviceGroupName.clear();
  mirrorUnit = -1;
  journalId = -1;
}
