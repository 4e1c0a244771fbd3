#pragma once

// The per-array login count of the raidcom session, as the settings store keeps it: the count
// under "sVTHDSRaidcomLockCount_<serial>" and, beside it, the boot of the host it was counted in
// under "sVTHDSRaidcomLockBoot_<serial>" (section "~iHarbor"). Readers and writers hold the
// named lock "RAIDCOM_LOGIN_LOCK".

#include <string>

#include "hds/common/HDSExport.h"

// The settings key the count of the array is stored under.
HDS_API std::string loginCountKey(std::string const& serialNumber);

// The stored count; false when it is absent or unreadable. A count kept in an earlier boot of
// the host is void: count becomes 0 and voidedCount (when given) receives the stored value, else
// -1. A count without a boot beside it is trusted.
HDS_API bool readLoginCount(std::string const& serialNumber, int& count, int* voidedCount);

// Stores count together with this boot of the host, in one rewrite of the settings file.
HDS_API bool storeLoginCount(std::string const& serialNumber, int count);
