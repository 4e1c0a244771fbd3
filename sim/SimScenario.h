#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "sim/SimStore.h"

// Scenarios: the JSON description of one or more arrays that `ccisim load` builds a state from
// and `ccisim dump --json` writes back (loading a dump gives the same state again).
//
// {
//   "cci_version": "01-74-03/00",
//   "timings": {"copy_ms": 0, "format_ms": 0, "sync_lag_ms": 0},
//   "arrays": [{
//     "serial": "412345", "type": "R9", "microcode": "93-07-22/00", "cache_mb": 524288,
//     "max_ldev_id": 65279, "svp_ip": "",
//     "users": [{"name": "admin", "password": "secret"}],
//     "resource_groups": [{"id": 0, "name": "meta_resource", "virtual_serial": "412345",
//                          "virtual_type": "R9", "lock_owner": "u", "lock_host": "h"}],
//     "pools": [{"id": 0, "name": "dp_pool_00", "type": "HDP", "status": "POLN",
//                "used_percent": 12, "threshold": 80, "capacity_mb": 1048576,
//                "num_vols": 4, "first_ldev": 8000}],
//     "ldevs": [{"id": 100, "count": 20, "capacity": 2097152, "pool": 0,
//                "name": "vol_{id}", "attrs": "CVS HDP", "vol_type": "OPEN-V-CVS",
//                "status": "NML", "rsgid": 0, "virtual_id": 100, "mp": 0, "defined": true,
//                "quorum_id": 0, "quorum_serial": "412346"}],
//     "command_devices": [{"ldev": 4095, "device": "/dev/sdc"}],
//     "ports": [{"name": "CL1-A", "type": "FIBRE", "attr": "TAR", "speed": "AUT", "lpid": "E8",
//                "fab": "Y", "conn": "PtoP", "ssw": "Y", "wwn": "50060e8012abcd00", "rsgid": 0,
//                "logins": ["10000090fa1b2c3d"],
//                "host_groups": [{"gid": 1, "name": "cmd", "host_mode": "LINUX/IRIX",
//                                 "host_mode_options": [2, 13], "rsgid": 0,
//                                 "wwns": [{"wwn": "10000090fa1b2c3d", "nickname": ""}],
//                                 "luns": [{"lun": 0, "ldev": 4095}]}]}],
//     "device_groups": [{"name": "dg", "members": [{"device": "Pair_100", "ldev": 100}]}],
//     "copy_groups": [{"name": "cg", "pvol_group": "dgp", "svol_group": "dgs", "mirror": 0,
//                      "journal": 1}],
//     "snapshots": [{"group": "sg", "pvol": 100, "svol": 200, "mirror": 3, "pool": 0,
//                    "status": "PSUS", "split_time": 1700000000, "ctg": false, "mode": ""}],
//     "pairs": [{"copy_group": "cg", "device": "Pair_100", "pvol": 100, "svol_serial": "412346",
//                "svol": 200, "mirror": 0, "kind": "HORC", "status": "PAIR", "fence": "NEVER"}]
//   }]
// }
//
// Every field but "serial" has a default; "count" repeats an LDEV entry over consecutive ids and
// "{id}" in its name becomes each id.
namespace ccisim {

class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One array with a pool, defined LDEVs, two ports with logged-in WWNs, a command device mapped
// to a host group, meta_resource and a user.
nlohmann::json defaultScenario();

// Replaces whatever the state holds with the scenario.
void loadScenario(Store& db, const nlohmann::json& scenario);
nlohmann::json dumpScenario(Store& db);
// A stable text listing of the whole state, one object a line, for diffs in tests.
std::string dumpText(Store& db);

}  // namespace ccisim
