// The listings: one library query each, printed as an aligned table or as JSON.
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>

#include "hds/common/HDSConstants.h"
#include "tools/hdsctl/Commands.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

namespace {

struct LdevOptions {
  bool undefined = false, unmapped = false, mapped = false, defined = false, quorum = false;
  std::string pool, label, cu, rsgid;
  std::vector<std::string> ids;
};

std::map<int, std::string> ldevFilters(const LdevOptions& o) {
  std::map<int, std::string> filters;
  if (o.undefined) filters[VT_HDS_LDEV_FILTER_UNDEFINED] = "";
  if (o.unmapped) filters[VT_HDS_LDEV_FILTER_UNMAPPED] = "";
  if (o.mapped) filters[VT_HDS_LDEV_FILTER_MAPPED] = "";
  if (o.defined) filters[VT_HDS_LDEV_FILTER_DEFINED] = "";
  if (o.quorum) filters[VT_HDS_LDEV_FILTER_QUORUM] = "";
  if (!o.pool.empty()) filters[VT_HDS_LDEV_FILTER_POOLID] = o.pool;
  if (!o.label.empty()) filters[VT_HDS_LDEV_FILTER_LABEL] = o.label;
  if (!o.cu.empty()) filters[VT_HDS_LDEV_FILTER_CU] = o.cu;
  if (!o.rsgid.empty()) filters[VT_HDS_LDEV_FILTER_RES_GRP] = o.rsgid;
  // raidcom lists nothing without a list kind, a pool or a range; all defined LDEVs is the
  // listing an operator means by "no filter".
  bool listKind = o.undefined || o.unmapped || o.mapped || o.defined || o.quorum;
  if (!listKind && o.pool.empty() && o.cu.empty()) filters[VT_HDS_LDEV_FILTER_DEFINED] = "";
  return filters;
}

int listLdevs(Context& ctx, const LdevOptions& o) {
  ArraySession session(ctx.log, ctx.array);
  std::vector<hdsLdev_t> ldevs;
  int rc = 0;
  if (!o.ids.empty()) {
    for (const std::string& id : o.ids) {
      hdsLdev_t ldev;
      ldev.ldevId = id;
      ldev.serialNumber = session.serial();
      ldevs.push_back(ldev);
    }
    rc = session.handler().getLdevInfo(ldevs);
    if (rc == 1) session.require(rc, "cannot read the LDEVs");
  } else {
    session.require(session.handler().getLdevlList(ldevs, ldevFilters(o)), "cannot list the LDEVs");
  }
  if (ctx.json) {
    json list = json::array();
    for (const hdsLdev_t& l : ldevs) list.push_back(toJson(l));
    printJson(std::cout, list);
  } else {
    Table table({"LDEV", "TYPE", "CAPACITY(BLK)", "POOL", "ATTRIBUTES", "LABEL", "RSG", "PATHS"});
    for (const hdsLdev_t& l : ldevs) {
      std::vector<std::string> paths;
      for (const hdsLun_t& lun : l.lunPaths) paths.push_back(lunPathText(lun));
      table.addRow({l.ldevId, l.volType, l.volType.empty() ? "" : std::to_string(l.capacity),
                    l.poolId, joinWords(volumeAttributeNames(l.volAttr), ","), l.label,
                    l.volType.empty() ? "" : std::to_string(l.resourceGroupId),
                    joinWords(paths, ",")});
    }
    table.print(std::cout);
  }
  // Some of the LDEVs asked for by number could not be read: they were printed as asked for.
  if (rc == 2) session.require(rc, "some LDEVs could not be read");
  return 0;
}

int listPools(Context& ctx) {
  ArraySession session(ctx.log, ctx.array);
  std::vector<hdsPool_t> pools;
  session.require(session.handler().getPoolList(pools), "cannot list the pools");
  if (ctx.json) {
    json list = json::array();
    for (const hdsPool_t& p : pools) list.push_back(toJson(p));
    printJson(std::cout, list);
    return 0;
  }
  Table table({"POOL", "NAME", "STATUS", "USED%", "THRESHOLD%", "TYPE"});
  for (const hdsPool_t& p : pools) {
    table.addRow({p.poolId, p.poolName, p.poolStatus, std::to_string(p.usedPercent),
                  std::to_string(p.thresholdPercent), p.poolType});
  }
  table.print(std::cout);
  return 0;
}

int listPorts(Context& ctx, bool logins) {
  ArraySession session(ctx.log, ctx.array);
  std::vector<hdsPort_t> ports;
  session.require(session.handler().getPortList(ports), "cannot list the ports");
  if (logins) {
    for (hdsPort_t& p : ports) {
      session.require(session.handler().getPortLoginWWNList(p.portName, p),
                      "cannot list the WWNs logged in on port " + p.portName);
    }
  }
  if (ctx.json) {
    json list = json::array();
    for (const hdsPort_t& p : ports) list.push_back(toJson(p));
    printJson(std::cout, list);
    return 0;
  }
  std::vector<std::string> headers = {"PORT", "TYPE", "WWN"};
  if (logins) headers.push_back("LOGGED-IN WWNS");
  Table table(headers);
  for (const hdsPort_t& p : ports) {
    table.addRow({p.portName, p.portType, p.wwn, joinWords(p.loginWwns, ",")});
  }
  table.print(std::cout);
  return 0;
}

int listHostGroups(Context& ctx, std::vector<std::string> portNames, bool withWwns) {
  ArraySession session(ctx.log, ctx.array);
  if (portNames.empty()) {
    std::vector<hdsPort_t> all;
    session.require(session.handler().getPortList(all), "cannot list the ports");
    for (const hdsPort_t& p : all) portNames.push_back(p.portName);
  }
  std::vector<hdsPort_t> ports;
  for (const std::string& name : portNames) {
    hdsPort_t port;
    port.portName = name;
    session.require(session.handler().getPortHostGroupList(name, "", port, withWwns, "", false),
                    "cannot list the host groups of port " + name);
    ports.push_back(port);
  }
  if (ctx.json) {
    json list = json::array();
    for (const hdsPort_t& p : ports) {
      for (const hdsHostGroup_t& hg : p.hostGroups) {
        json j = toJson(hg);
        j["portName"] = p.portName;
        list.push_back(j);
      }
    }
    printJson(std::cout, list);
    return 0;
  }
  std::vector<std::string> headers = {"PORT", "GID", "NAME"};
  if (withWwns) headers.push_back("WWNS");
  Table table(headers);
  for (const hdsPort_t& p : ports) {
    for (const hdsHostGroup_t& hg : p.hostGroups) {
      table.addRow({p.portName, hg.hostGroupId, hg.hostGroupName, joinWords(hg.wwns, ",")});
    }
  }
  table.print(std::cout);
  return 0;
}

int listLuns(Context& ctx, const std::string& port, const std::string& hostGroup) {
  ArraySession session(ctx.log, ctx.array);
  std::vector<hdsLun_t> luns;
  session.require(session.handler().getLunsForHostGroup(port, hostGroup, luns),
                  "cannot list the LUNs of host group " + port + " " + hostGroup);
  if (ctx.json) {
    json list = json::array();
    for (const hdsLun_t& l : luns) list.push_back(toJson(l));
    printJson(std::cout, list);
    return 0;
  }
  Table table({"PORT", "GID", "LUN", "LDEV"});
  for (const hdsLun_t& l : luns) table.addRow({l.port, l.hostGroupId, l.lunId, l.ldevId});
  table.print(std::cout);
  return 0;
}

int listSnapshotGroups(Context& ctx, const std::string& ldev, const std::string& group) {
  ArraySession session(ctx.log, ctx.array);
  std::vector<hdsSnapshotGroupInfo> pairs;
  if (!group.empty()) {
    session.require(session.handler().getSnapshotGroupInfo(pairs, group),
                    "cannot list snapshot group " + group);
  } else {
    session.require(session.handler().getSnapshotGroupList(pairs, ldev),
                    "cannot list the snapshot groups");
  }
  if (ctx.json) {
    json list = json::array();
    for (const hdsSnapshotGroupInfo& p : pairs) list.push_back(toJson(p));
    printJson(std::cout, list);
    return 0;
  }
  // The split time stays out of the table: raidcom prints it in hexadecimal and the record holds
  // only the decimal digits it starts with.
  Table table({"GROUP", "ROLE", "LDEV", "PARTNER", "STATUS", "MU", "POOL", "COPY%", "MODE"});
  for (const hdsSnapshotGroupInfo& p : pairs) {
    // The whole-array listing names groups only; their pair columns are "-".
    bool pairLine = !p.ldevId.empty() && p.ldevId != "-";
    table.addRow({p.snapshotGroupName, pairLine ? (p.isPVol ? "P-VOL" : "S-VOL") : "",
                  pairLine ? p.ldevId : "", pairLine ? p.partnerLdevId : "", p.pairStatus,
                  pairLine ? p.mirrorUnit : "", pairLine ? p.poolId : "",
                  pairLine ? std::to_string(p.copyPercent) : "", p.mode});
  }
  table.print(std::cout);
  return 0;
}

int listDeviceGroups(Context& ctx, const std::string& group) {
  ArraySession session(ctx.log, ctx.array);
  if (group.empty()) {
    std::vector<std::string> names;
    session.require(session.handler().getDeviceGroupList(names), "cannot list the device groups");
    if (ctx.json) {
      json list = json::array();
      for (const std::string& n : names) list.push_back({{"deviceGroupName", n}});
      printJson(std::cout, list);
      return 0;
    }
    Table table({"DEVICE GROUP"});
    for (const std::string& n : names) table.addRow({n});
    table.print(std::cout);
    return 0;
  }
  std::vector<hdsLdev_t> members;
  session.require(session.handler().getVolsInDeviceGroup(members, group),
                  "cannot list device group " + group);
  if (ctx.json) {
    json list = json::array();
    for (const hdsLdev_t& m : members) {
      list.push_back({{"deviceGroupName", group},
                      {"deviceName", m.deviceName},
                      {"ldevId", m.ldevId},
                      {"serialNumber", m.serialNumber}});
    }
    printJson(std::cout, list);
    return 0;
  }
  Table table({"DEVICE GROUP", "DEVICE", "LDEV", "SERIAL"});
  for (const hdsLdev_t& m : members) table.addRow({group, m.deviceName, m.ldevId, m.serialNumber});
  table.print(std::cout);
  return 0;
}

int listCopyGroups(Context& ctx, const std::string& group) {
  ArraySession session(ctx.log, ctx.array);
  std::vector<hdsCopyGroup_t> groups;
  session.require(session.handler().getCopyGroup(groups, group), "cannot list the copy groups");
  if (ctx.json) {
    json list = json::array();
    for (const hdsCopyGroup_t& g : groups) list.push_back(toJson(g));
    printJson(std::cout, list);
    return 0;
  }
  Table table({"COPY GROUP", "DEVICE GROUP", "MU", "JOURNAL"});
  for (const hdsCopyGroup_t& g : groups) {
    table.addRow({g.copyGroupName, g.deviceGroupName,
                  g.mirrorUnit < 0 ? "" : std::to_string(g.mirrorUnit),
                  g.journalId < 0 ? "" : std::to_string(g.journalId)});
  }
  table.print(std::cout);
  return 0;
}

int listResourceGroups(Context& ctx) {
  ArraySession session(ctx.log, ctx.array);
  std::map<std::string, ResourceGroupStatus> groups;
  session.require(session.handler().getResourceGroup(groups, false),
                  "cannot list the resource groups");
  if (ctx.json) {
    json list = json::array();
    for (const auto& [name, g] : groups) list.push_back(toJson(name, g));
    printJson(std::cout, list);
    return 0;
  }
  Table table({"RESOURCE GROUP", "ID", "STATUS", "LOCK OWNER", "LOCK HOST"});
  for (const auto& [name, g] : groups) {
    table.addRow({name, std::to_string(g.resourceGroupId), g.status, g.lockOwner, g.lockHost});
  }
  table.print(std::cout);
  return 0;
}

CLI::App* addListing(CLI::App& app, Context& ctx, const char* name, const char* description) {
  CLI::App* cmd = app.add_subcommand(name, description);
  addArrayOptions(cmd, ctx.array);
  addJsonFlag(cmd, ctx);
  return cmd;
}

}  // namespace

void addListingCommands(CLI::App& app, Context& ctx) {
  auto lo = std::make_shared<LdevOptions>();
  CLI::App* ldevs = addListing(app, ctx, "ldevs", "List LDEVs (all defined ones by default)");
  auto* kinds = ldevs->add_option_group("kind", "Which LDEVs (at most one)");
  kinds->add_flag("--defined", lo->defined, "Defined LDEVs");
  kinds->add_flag("--undefined", lo->undefined, "LDEV numbers not defined");
  kinds->add_flag("--mapped", lo->mapped, "Defined and mapped to a port");
  kinds->add_flag("--unmapped", lo->unmapped, "Defined and not mapped to any port");
  kinds->add_flag("--quorum", lo->quorum, "Quorum disks");
  kinds->require_option(0, 1);
  ldevs->add_option("--pool", lo->pool, "Only LDEVs of this pool")
      ->check(CLI::Validator(checkDecimalId, "ID"));
  ldevs->add_option("--label", lo->label, "Only LDEVs with this label");
  ldevs->add_option("--cu", lo->cu, "Only this control unit (decimal) or range (hex, 0a-0b)");
  ldevs->add_option("--rsgid", lo->rsgid, "Only LDEVs of this resource group id")
      ->check(CLI::Validator(checkDecimalId, "ID"));
  auto* ids = ldevs->add_option("--ldev", lo->ids, "Read these LDEVs one by one (repeatable)")
                  ->check(CLI::Validator(checkLdevId, "LDEV"));
  kinds->excludes(ids);
  for (const char* other : {"--pool", "--label", "--cu", "--rsgid"}) {
    ids->excludes(ldevs->get_option(other));
  }
  ldevs->callback([&ctx, lo] { ctx.action = [&ctx, lo] { return listLdevs(ctx, *lo); }; });

  addListing(app, ctx, "pools", "List pools")->callback([&ctx] {
    ctx.action = [&ctx] { return listPools(ctx); };
  });

  auto logins = std::make_shared<bool>(false);
  CLI::App* ports = addListing(app, ctx, "ports", "List ports");
  ports->add_flag("--logins", *logins, "Also list the WWNs logged in on each port");
  ports->callback(
      [&ctx, logins] { ctx.action = [&ctx, logins] { return listPorts(ctx, *logins); }; });

  auto hgPorts = std::make_shared<std::vector<std::string>>();
  auto hgWwns = std::make_shared<bool>(false);
  CLI::App* hostGroups = addListing(app, ctx, "host-groups", "List host groups (of every port)");
  hostGroups->add_option("--port", *hgPorts, "Only these ports (repeatable)");
  hostGroups->add_flag("--wwns", *hgWwns, "Also list the WWNs registered in each host group");
  hostGroups->callback([&ctx, hgPorts, hgWwns] {
    ctx.action = [&ctx, hgPorts, hgWwns] { return listHostGroups(ctx, *hgPorts, *hgWwns); };
  });

  auto lunPort = std::make_shared<std::string>();
  auto lunGroup = std::make_shared<std::string>();
  CLI::App* luns = addListing(app, ctx, "luns", "List the LUNs of a host group");
  luns->add_option("--port", *lunPort, "Port, e.g. CL1-A")->required();
  luns->add_option("--host-group", *lunGroup, "Host group number or name")->required();
  luns->callback([&ctx, lunPort, lunGroup] {
    ctx.action = [&ctx, lunPort, lunGroup] { return listLuns(ctx, *lunPort, *lunGroup); };
  });

  auto sgLdev = std::make_shared<std::string>();
  auto sgGroup = std::make_shared<std::string>();
  CLI::App* snapshots =
      addListing(app, ctx, "snapshot-groups", "List snapshot groups, or the pairs of one");
  auto* sgLdevOpt = snapshots->add_option("--ldev", *sgLdev, "Snapshot pairs of this LDEV")
                        ->check(CLI::Validator(checkLdevId, "LDEV"));
  snapshots->add_option("--group", *sgGroup, "Pairs of this snapshot group")->excludes(sgLdevOpt);
  snapshots->callback([&ctx, sgLdev, sgGroup] {
    ctx.action = [&ctx, sgLdev, sgGroup] { return listSnapshotGroups(ctx, *sgLdev, *sgGroup); };
  });

  auto dgGroup = std::make_shared<std::string>();
  CLI::App* deviceGroups =
      addListing(app, ctx, "device-groups", "List device groups, or the members of one");
  deviceGroups->add_option("--group", *dgGroup, "Members of this device group");
  deviceGroups->callback([&ctx, dgGroup] {
    ctx.action = [&ctx, dgGroup] { return listDeviceGroups(ctx, *dgGroup); };
  });

  auto cgGroup = std::make_shared<std::string>();
  CLI::App* copyGroups = addListing(app, ctx, "copy-groups", "List copy groups");
  copyGroups->add_option("--group", *cgGroup, "Only this copy group");
  copyGroups->callback(
      [&ctx, cgGroup] { ctx.action = [&ctx, cgGroup] { return listCopyGroups(ctx, *cgGroup); }; });

  addListing(app, ctx, "resource-groups", "List resource groups and their locks")->callback([&ctx] {
    ctx.action = [&ctx] { return listResourceGroups(ctx); };
  });
}

}  // namespace hdsctl
