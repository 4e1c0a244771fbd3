#pragma once

#include <string>
#include <vector>

#include "hds/common/HDSRecords.h"

namespace hdsctl {

class ArraySession;

// Whether an LDEV is one that the snapshot side of this tool makes, judged on what the library
// reads of it: its LDEV record and its snapshot pairs (`raidcom get snapshot -ldev_id`).
struct SvolVerdict {
  bool isSvol = false;
  // What the LDEV is, for a person: "LDEV 110 (label data_110, no snapshot pairs, LU paths
  // CL1-A-1-3)".
  std::string description;
};

// An S-VOL is the S-VOL of a snapshot pair or carries the S-VOL label prefix; anything else,
// an undefined LDEV included, is not.
SvolVerdict judgeSvol(const hdsLdev_t& ldev, const std::vector<hdsSnapshotGroupInfo>& pairs);

// Reads the LDEV and its pairs and returns quietly when it is an S-VOL. Otherwise a Failure
// that says what `action` would hit and how to force it, or, with `force`, that said on stderr.
void requireSvol(ArraySession& session, const std::string& ldevId, const std::string& action,
                 bool force);

}  // namespace hdsctl
