#pragma once

// Parsers for the listings that raidcom, raidscan and the HORCM files print. They take the text
// only and keep no state, so they can be fed arbitrary input (fuzz/) without a handler or an
// array behind them.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "hds/common/HDSRecords.h"

namespace hds::raidcom {

// ---- LdevParsers.cpp: LDEV queries

int volumeAttributemap(std::string const& volAttr);
void parsePortList(std::string const& text, std::vector<hdsLun_t>& luns);
void parseGetLdevOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                        std::map<int, std::string> const& filters);
bool parseGetLdevFrontEndOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                                std::map<int, std::string> const& filters);

// ---- PresentationParsers.cpp: host presentation

// "raidcom get port": one record per port name.
void parseGetPortOutput(std::string const& output, std::vector<hdsPort_t>& ports);
// "raidcom get port -port <p>": the WWNs logged in on the port.
void parseGetPortLoginOutput(std::string const& output, hdsPort_t& portRec);
// "raidcom get host_grp": host groups appended to portRec; the array serial ends a name.
void parseGetHostGroupOutput(std::string const& output, std::string const& serialNumber,
                             hdsPort_t& portRec);
// "raidcom get hba_wwn": WWNs (and the group's name) of one host group.
void parseGetHbaWwnOutput(std::string const& output, hdsHostGroup_t& hg);
// "raidcom get lun".
void parseGetLunOutput(std::string const& output, std::vector<hdsLun_t>& luns);
// "raidscan -pdg <dev> -CLI": first column of the first data line; false when there is none.
bool parseRaidscanPdgOutput(std::string const& output, std::string& hostGroup);

// ---- ReplicationParsers.cpp: device groups and snapshot groups

// "raidcom get device_grp" without a name: the group names.
void parseGetDeviceGroupListOutput(std::string const& output, std::vector<std::string>& groups);
// "raidcom get device_grp -device_grp_name <g>": false when a line lacks one of its four values
// (records read before it stay appended).
bool parseGetDeviceGroupOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs);
void parseGetSnapshotGroupOutput(std::string const& output,
                                 std::vector<hdsSnapshotGroupInfo>& pairs);

// ---- ResourceParsers.cpp: copy groups, pools and pairs

// "raidcom get copy_grp"; an empty copyGroup keeps every line.
void parseGetCopyGroupOutput(std::string const& output, std::string const& copyGroup,
                             std::vector<hdsCopyGroup_t>& groups);
void parseGetPoolOutput(std::string const& output, std::vector<hdsPool_t>& pools);
// "raidscan -p <port> -CLI": local pairs of the given LDEVs keyed by mirror unit column.
void parseRaidscanPairOutput(std::string const& output, std::vector<hdsLdev_t> const& ldevs,
                             std::map<int, std::vector<hdsPairStatus_t>>& pairs);
// "raidscan -p <port> -CLI -m <mu>": remote pairs of the given LDEVs filed under mirrorUnit.
void parseRaidscanRemotePairOutput(std::string const& output, int mirrorUnit,
                                   std::vector<hdsLdev_t> const& ldevs,
                                   std::map<int, std::vector<hdsPairStatus_t>>& pairs);

// ---- SessionParsers.cpp: HORCM file, resource groups, command status

// Serial numbers named by the "\\.\CMD-<serial>" markers of a raidcom HORCM file.
void parseHorcmFileSerials(std::string const& fileText, std::set<std::string>& serials);

// "raidcom get resource" (with or without -key opt), keyed by resource group name. Lines that
// carry fewer than six columns are skipped.
void parseGetResourceOutput(std::string const& output,
                            std::map<std::string, ResourceGroupStatus>& groups);

// "raidcom get command_status": false when the output has no status line (no second line feed).
// Otherwise hasError and statusText are set from the line's error count and description; both are
// left as they are when the count is 0.
bool parseCommandStatusOutput(std::string const& output, bool& hasError, std::string& statusText,
                              std::string& statusLine);

// "raidqry -l": the first line after the header, its eight columns read in order. False, with
// info untouched, when the text has no such line with eight columns.
bool parseRaidqryOutput(std::string const& output, hdsRaidqry_t& info);

}  // namespace hds::raidcom
