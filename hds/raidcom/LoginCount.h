#pragma once

// The per-array login count of the raidcom session, as the settings store keeps it: the count
// under "sVTHDSRaidcomLockCount_<serial>" and, beside it, the boot of the host it was counted in
// under "sVTHDSRaidcomLockBoot_<serial>" and its generation (section "~iHarbor"). Thread safety:
// the functions take no lock themselves; readers and writers hold the named lock
// "RAIDCOM_LOGIN_LOCK".

#include <string>

#include "hds/common/HDSExport.h"

// The settings key the count of the array is stored under.
HDS_API std::string loginCountKey(std::string const& serialNumber);

// The stored count; false when it is absent or unreadable. A count kept in an earlier boot of
// the host is void: count becomes 0 and voidedCount (when given) receives the stored value, else
// -1. A count without a boot beside it is trusted.
HDS_API bool readLoginCount(std::string const& serialNumber, int& count, int* voidedCount);

// Stores count together with this boot of the host, in one rewrite of the settings file. A count
// of 0, or one that restarts the count (a forced login counts only its own session), moves the
// count's generation on in the same rewrite.
HDS_API bool storeLoginCount(std::string const& serialNumber, int count, bool restart = false);

// The generation of the stored count, "sVTHDSRaidcomLockGeneration_<serial>" (0 when none was
// stored yet): a session counted under one generation is still in the count only while the
// generation is the same, as every store that drops sessions it did not give back moves it on.
HDS_API int readLoginGeneration(std::string const& serialNumber);
