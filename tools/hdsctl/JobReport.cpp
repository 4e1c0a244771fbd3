// The summary of hdsctl job: a table for people, JSON for scripts.
#include <cstdio>
#include <iostream>

#include "tools/hdsctl/Job.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

namespace {

struct PairRow {
  std::string pvol, svol;
  uint64_t capacity;
  std::string label, status, mirrorUnit, lun;
};

std::vector<PairRow> pairRows(const JobReport& r) {
  std::vector<PairRow> rows;
  for (const std::string& pvol : r.pvols) {
    const auto pair = r.pairs.find(pvol);
    if (pair == r.pairs.end()) continue;
    const hdsLdev_t& svol = pair->second;
    PairRow row{pvol, svol.ldevId, svol.capacity, svol.newLabel, "", "", ""};
    const auto state = r.snapshots.find(pvol);
    if (state != r.snapshots.end()) {
      row.status = state->second.status;
      row.mirrorUnit = state->second.mirrorUnit;
    }
    if (!svol.lunPaths.empty()) row.lun = lunPathText(svol.lunPaths.front());
    rows.push_back(row);
  }
  return rows;
}

}  // namespace

void printJobReport(const JobReport& r, bool asJson) {
  if (asJson) {
    json steps = json::array();
    for (const JobStepRecord& s : r.steps) {
      steps.push_back(
          {{"step", s.name}, {"detail", s.detail}, {"seconds", s.seconds}, {"ok", s.ok}});
    }
    json pairs = json::array();
    for (const PairRow& p : pairRows(r)) {
      pairs.push_back({{"pvol", p.pvol},
                       {"svol", p.svol},
                       {"capacity", p.capacity},
                       {"label", p.label},
                       {"pairStatus", p.status},
                       {"mirrorUnit", p.mirrorUnit},
                       {"lun", p.lun}});
    }
    json summary = {{"job", r.job},
                    {"serialNumber", r.serial},
                    {"result", r.ok ? "ok" : "failed"},
                    {"seconds", r.seconds},
                    {"cciCalls", r.cciCalls},
                    {"toolSeconds", r.toolSeconds},
                    {"outsideSeconds", r.seconds - r.toolSeconds},
                    {"steps", steps},
                    {"pairs", pairs},
                    {"removed", r.removed},
                    {"leftOnArray", r.leftOver},
                    {"leftForRecover", r.leftForRecover}};
    if (!r.ok) {
      summary["failedStep"] = r.failedStep;
      summary["error"] = r.error;
    }
    for (const auto& item : r.extra.items()) summary[item.key()] = item.value();
    printJson(std::cout, summary);
    std::cout.flush();
    return;
  }
  if (r.ok) {
    std::cout << "\njob " << r.job << ": " << r.pairs.size() << " pairs, " << r.steps.size()
              << " steps in " << fixed2(r.seconds) << " s: " << r.cciCalls << " CCI calls, "
              << fixed2(r.toolSeconds) << " s in the tools, " << fixed2(r.seconds - r.toolSeconds)
              << " s outside them\n";
    Table table({"P-VOL", "S-VOL", "CAPACITY(BLK)", "LABEL", "SNAPSHOT", "MU", "LUN"});
    for (const PairRow& p : pairRows(r)) {
      table.addRow(
          {p.pvol, p.svol, std::to_string(p.capacity), p.label, p.status, p.mirrorUnit, p.lun});
    }
    table.print(std::cout);
  }
  if (!r.leftOver.empty()) {
    std::cout << "left on array " << r.serial << ": " << joinWords(r.leftOver, "; ") << "\n";
  } else if (r.ok) {
    std::cout << "every object the job made on array " << r.serial << " has been removed again\n";
  }
  std::cout.flush();
}

}  // namespace hdsctl
