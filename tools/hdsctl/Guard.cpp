#include "tools/hdsctl/Guard.h"

#include <iostream>

#include "hds/common/HDSConstants.h"
#include "tools/hdsctl/Output.h"
#include "tools/hdsctl/Session.h"

namespace hdsctl {

SvolVerdict judgeSvol(const hdsLdev_t& ldev, const std::vector<hdsSnapshotGroupInfo>& pairs) {
  SvolVerdict verdict;
  bool defined = ldev.capacity != 0;
  bool labelled = ldev.label.rfind(VT_HDS_LDEV_LABEL_PREFIX, 0) == 0;
  std::vector<std::string> facts;
  if (!defined) facts.push_back("not defined");
  facts.push_back(ldev.label.empty() ? "no label" : "label " + ldev.label);
  std::vector<std::string> roles;
  bool pairedAsSvol = false;
  for (const hdsSnapshotGroupInfo& p : pairs) {
    pairedAsSvol = pairedAsSvol || !p.isPVol;
    roles.push_back(std::string(p.isPVol ? "P-VOL" : "S-VOL") + " in " + p.snapshotGroupName +
                    (p.partnerLdevId.empty() || p.partnerLdevId == "-"
                         ? ""
                         : (p.isPVol ? " with S-VOL " : " of P-VOL ") + p.partnerLdevId));
  }
  facts.push_back(roles.empty() ? "no snapshot pairs"
                                : "snapshot pairs: " + joinWords(roles, ", "));
  std::vector<std::string> paths;
  for (const hdsLun_t& lun : ldev.lunPaths) paths.push_back(lunPathText(lun));
  facts.push_back(paths.empty() ? "no LU paths" : "LU paths " + joinWords(paths, ","));
  verdict.isSvol = defined && (pairedAsSvol || labelled);
  verdict.description = "LDEV " + ldev.ldevId + " (" + joinWords(facts, ", ") + ")";
  return verdict;
}

void requireSvol(ArraySession& session, const std::string& ldevId, const std::string& action,
                 bool force) {
  std::vector<hdsLdev_t> ldevs(1);
  ldevs[0].ldevId = ldevId;
  ldevs[0].serialNumber = session.serial();
  std::vector<hdsSnapshotGroupInfo> pairs;
  // 2 from getLdevInfo is an LDEV the listing did not show: judged below as not defined. A
  // forced removal goes on when the LDEV cannot be read; that may be why it is forced.
  int rc = session.handler().getLdevInfo(ldevs);
  if (rc != 1) rc = session.handler().getSnapshotGroupList(pairs, ldevId);
  if (force && rc == 1) return;
  if (rc == 1) session.require(rc, "cannot read LDEV " + ldevId + " and its snapshot pairs");
  SvolVerdict verdict = judgeSvol(ldevs[0], pairs);
  if (verdict.isSvol) return;
  std::string what = verdict.description + " on array " + session.serial() +
                     " is not an S-VOL of a snapshot pair nor labelled " +
                     VT_HDS_LDEV_LABEL_PREFIX + "...";
  if (force) {
    std::cerr << "hdsctl: --force: " << what << "; going on to " << action << std::endl;
    return;
  }
  throw Failure("refused to " + action + ": " + what + "; --force " + action + " anyway");
}

}  // namespace hdsctl
