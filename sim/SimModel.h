#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/SimListings.h"
#include "sim/SimStore.h"

// Reading the emulated array: the views shared by several tools (LDEVs with their paths and
// attributes, host groups addressed the ways the tools accept, resource groups).
namespace ccisim {

// No virtual LDEV ID is set (the LDEV is reserved in a virtual storage machine, or free).
inline constexpr int kNoVirtualLdev = 65534;

struct LdevRow {
  std::string serial;
  int id = 0;
  bool defined = false;
  std::string volType;
  int64_t capacity = 0;
  std::optional<int> pool;
  std::string attrs;
  std::string name;
  std::string status;
  int rsgid = 0;
  std::optional<int> virtualId;  // none: same as the LDEV number
  int mp = 0;
  int64_t usedBlocks = 0;
  std::string operation;
  std::optional<std::string> quorumSerial;
  std::optional<int> quorumId;
};

std::optional<LdevRow> loadLdev(Store& db, const std::string& serial, int id);
// A defined LDEV with everything a listing shows.
LdevView ldevView(Store& db, const LdevRow& row);
// An LDEV number as listed: defined, or the undefined form (kept in its resource group).
LdevView ldevViewById(Store& db, const std::string& serial, int id);
std::vector<LunPathView> lunPaths(Store& db, const std::string& serial, int ldev);
int maxLdevId(Store& db, const std::string& serial);

// True when the resource group belongs to a virtual storage machine of another serial.
bool isVirtualStorageGroup(Store& db, const std::string& serial, int rsgid);
std::optional<int> resourceGroupId(Store& db, const std::string& serial, const std::string& name);

// "CL1-A-3" -> port CL1-A, gid 3; "CL1-A" -> port only.
void splitPortGid(const std::string& word, std::string& port, std::optional<int>& gid);

struct HostGroupRef {
  std::string port;
  int gid = 0;
  std::string name;
  std::string hostMode;
  std::vector<int> hostModeOptions;
  int rsgid = 0;
};
// A host group named as the tools accept it: "CL1-A-3", "CL1-A name" (one word or two).
// The text the error messages quote is returned in `quoted`.
std::optional<HostGroupRef> resolveHostGroup(Store& db, const std::string& serial,
                                             const std::vector<std::string>& words,
                                             std::string& quoted);
std::vector<int> parseHostModeOptions(const std::string& text);
bool portExists(Store& db, const std::string& serial, const std::string& port);

// The attribute words of an LDEV as VOL_ATTR lists them, including those its pairs give it.
std::vector<std::string> volumeAttributes(Store& db, const LdevRow& row);

// How long the array's background work takes, in milliseconds: "copy_ms", "format_ms",
// "sync_lag_ms".
int64_t timingMs(Store& db, const char* key);
// How far a copy that started at `since` and ends at `due` has got: 0..99, 100 once done.
int copyPercent(int64_t since, std::optional<int64_t> due);

}  // namespace ccisim
