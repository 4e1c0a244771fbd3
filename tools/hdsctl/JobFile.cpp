// The job file of hdsctl job: its schema, its help and its reading, with every value in range.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "hds/common/HDSConstants.h"
#include "tools/hdsctl/Job.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

const char* const kJobFileHelp = R"(Job file (JSON):
  {
    "name": "nightly",            ends the names of what the job makes: device groups
                                  KS_DEV_P_<name> and KS_DEV_S_<name>, snapshot group
                                  KS_SNAP_<name>, S-VOL labels KS_SVOL_<P-VOL>_<name>
                                  (default J<time>_<pid>; up to 23 of A-Z a-z 0-9 _ -)
    "array": {"serial": "412345", "user": "admin", "password": "...",
              "command_devices": ["/dev/sdc"], "horcm_instance": "",
              "resource_group": "", "cci_dir": ""},
                                  how to reach the array (the command line wins)
    "pool": 0,                    pool of the S-VOLs and of the snapshot data
    "pvols": [100, 101, 102],     the P-VOLs (at most 65280)
    "svols": [2000, 2001, 2002],  S-VOL numbers to create, one per P-VOL, or
    "svol_first": 2000,           the first free numbers from here on
                                  (default: after the highest P-VOL)
    "present": {"port": "CL1-A", "host_group": "KS_PRE_SNAP_HOST_GROUP",
                "wwns": []},      where the S-VOLs are presented; a host group that does
                                  not exist is made (with these WWNs) and removed again
    "consistency_group": false,   add the pairs as one consistency group
    "wait_seconds": 600           how long the snapshot group may take to change state
                                  (at most 86400)
  }
Only "pool" and "pvols" are required; the file is at most 1 MiB. Steps: open session (and
lock the resource group), read P-VOLs, choose S-VOLs, create S-VOLs, label S-VOLs, device
groups, snapshot group add, snapshot create, snapshot resync, snapshot split, present, withdraw,
delete snapshots, delete device groups, delete S-VOLs, close session. A failed step ends the
job: what the job made is removed again and hdsctl exits 1 with the library's error text.
Before each change on the array the job notes it in $HDS_TEMP_DIR/jobs/<name>.journal; a job
that is killed, or that cannot remove everything, leaves that journal, and
`hdsctl recover <name>` removes what it lists. Only one job of a name runs at a time.)";

namespace {

constexpr const char* kNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
// The longest prefix that a job name ends: "KS_DEV_P_".
constexpr size_t kMaxJobName = VT_HDS_MAX_DEVICE_GROUP_NAME - 9;
constexpr long kMaxLdev = VT_HDS_MAX_LDEV_ID_NUMBER_VSP;
constexpr size_t kMaxPvols = kMaxLdev + 1;
constexpr long kMaxPool = 65535;
constexpr long kMaxWaitSeconds = 24L * 60 * 60;
constexpr off_t kMaxJobFileBytes = 1 << 20;

// A whole number from 0 to max, given as a JSON number or as decimal text.
long boundedNumber(const json& value, const std::string& key, long max, const char* what) {
  std::string text;
  if (value.is_number_unsigned()) {
    text = std::to_string(value.get<uint64_t>());
  } else if (value.is_string()) {
    text = value.get<std::string>();
  }
  // Leading zeros aside, more digits than the maximum has cannot be in range.
  const size_t digits = text.find_first_not_of('0') == std::string::npos
                            ? 1
                            : text.size() - text.find_first_not_of('0');
  if (!isDecimal(text) || digits > std::to_string(max).size() || std::stol(text) > max) {
    throw UsageError("job file: " + key + " must be " + what + " from 0 to " + std::to_string(max));
  }
  return std::stol(text);
}

std::string ldevText(const json& value, const std::string& key) {
  return std::to_string(boundedNumber(value, key, kMaxLdev, "an LDEV number"));
}

std::string textOf(const json& obj, const char* key, const std::string& where) {
  if (!obj.contains(key)) return "";
  if (!obj[key].is_string()) throw UsageError("job file: " + where + key + " must be a text");
  return obj[key].get<std::string>();
}

std::vector<std::string> textsOf(const json& obj, const char* key, const std::string& where) {
  if (!obj.contains(key)) return {};
  const json& list = obj[key];
  bool ok = list.is_array();
  for (const json& item : list) ok &= item.is_string();
  if (!ok) throw UsageError("job file: " + where + key + " must be a list of texts");
  return list.get<std::vector<std::string>>();
}

void onlyKeys(const json& obj, const std::set<std::string>& keys, const std::string& where) {
  if (!obj.is_object()) throw UsageError("job file: " + where + " must be an object");
  for (const auto& item : obj.items()) {
    if (!keys.count(item.key())) {
      throw UsageError("job file: unknown key \"" + item.key() + "\" in " + where);
    }
  }
}

std::string defaultJobName() {
  return "J" + std::to_string(time(nullptr)) + "_" + std::to_string(getpid());
}

}  // namespace

void checkJobName(const std::string& name) {
  if (name.empty() || name.size() > kMaxJobName ||
      name.find_first_not_of(kNameCharacters) != std::string::npos) {
    throw UsageError("a job name is 1 to " + std::to_string(kMaxJobName) +
                     " of A-Z a-z 0-9 _ -: \"" + name + "\"");
  }
}

std::string readJobFile(const std::string& path) {
  // O_NONBLOCK: a FIFO put in the file's place must not hold the job before it is refused.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) throw UsageError("cannot read the job file " + path + ": " + strerror(errno));
  struct stat st = {};
  std::string text;
  std::string problem;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    problem = "is not a regular file";
  } else if (st.st_size > kMaxJobFileBytes) {
    problem = "is larger than 1 MiB";
  } else {
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)) {
      if (n > 0) text.append(buf, static_cast<size_t>(n));
      if (text.size() > static_cast<size_t>(kMaxJobFileBytes)) break;
    }
    if (n < 0) problem = std::string("cannot be read: ") + strerror(errno);
    // The file may have grown since it was measured.
    if (text.size() > static_cast<size_t>(kMaxJobFileBytes)) problem = "is larger than 1 MiB";
  }
  close(fd);
  if (!problem.empty()) throw UsageError("the job file " + path + " " + problem);
  return text;
}

JobSpec parseJobFile(const std::string& text) {
  json j = json::parse(text, nullptr, false);
  if (j.is_discarded()) throw UsageError("the job file is not valid JSON");
  onlyKeys(j,
           {"name", "array", "pool", "pvols", "svols", "svol_first", "present", "consistency_group",
            "wait_seconds"},
           "the job");
  JobSpec jobSpec;
  try {
    jobSpec.name = j.contains("name") ? textOf(j, "name", "") : defaultJobName();
    try {
      checkJobName(jobSpec.name);
    } catch (const UsageError&) {
      throw UsageError("job file: name must be 1 to " + std::to_string(kMaxJobName) +
                       " of A-Z a-z 0-9 _ -");
    }
    if (j.contains("array")) {
      const json& a = j["array"];
      onlyKeys(a,
               {"serial", "user", "password", "command_devices", "horcm_instance", "resource_group",
                "cci_dir"},
               "array");
      jobSpec.array.serial = textOf(a, "serial", "array.");
      jobSpec.array.user = textOf(a, "user", "array.");
      jobSpec.array.password = textOf(a, "password", "array.");
      jobSpec.array.horcmInstance = textOf(a, "horcm_instance", "array.");
      jobSpec.array.resourceGroup = textOf(a, "resource_group", "array.");
      jobSpec.array.cciDir = textOf(a, "cci_dir", "array.");
      jobSpec.array.commandDevices = textsOf(a, "command_devices", "array.");
    }
    if (!j.contains("pool")) throw UsageError("job file: \"pool\" is required");
    jobSpec.pool = std::to_string(boundedNumber(j["pool"], "pool", kMaxPool, "a pool id"));
    if (!j.contains("pvols") || !j["pvols"].is_array() || j["pvols"].empty()) {
      throw UsageError("job file: \"pvols\" must list at least one P-VOL");
    }
    if (j["pvols"].size() > kMaxPvols) {
      throw UsageError("job file: pvols lists more than " + std::to_string(kMaxPvols) + " P-VOLs");
    }
    std::set<std::string> seen;
    for (const json& v : j["pvols"]) {
      jobSpec.pvols.push_back(ldevText(v, "every P-VOL"));
      if (!seen.insert(jobSpec.pvols.back()).second) {
        throw UsageError("job file: P-VOL " + jobSpec.pvols.back() + " is listed twice");
      }
    }
    if (j.contains("svols")) {
      if (j.contains("svol_first")) throw UsageError("job file: give svols or svol_first");
      if (!j["svols"].is_array()) throw UsageError("job file: svols must be a list");
      if (j["svols"].size() != jobSpec.pvols.size()) {
        throw UsageError("job file: svols must list one S-VOL per P-VOL");
      }
      for (const json& v : j["svols"]) {
        jobSpec.svols.push_back(ldevText(v, "every S-VOL"));
        if (!seen.insert(jobSpec.svols.back()).second) {
          throw UsageError("job file: LDEV " + jobSpec.svols.back() + " is listed twice");
        }
      }
    }
    if (j.contains("svol_first")) {
      jobSpec.svolFirst = boundedNumber(j["svol_first"], "svol_first", kMaxLdev, "an LDEV number");
    }
    if (j.contains("present")) {
      const json& p = j["present"];
      onlyKeys(p, {"port", "host_group", "wwns"}, "present");
      jobSpec.port = textOf(p, "port", "present.");
      jobSpec.hostGroup = textOf(p, "host_group", "present.");
      if (jobSpec.port.empty()) throw UsageError("job file: present.port is required");
      if (jobSpec.hostGroup.empty()) jobSpec.hostGroup = VT_HDS_PRE_SNAP_HOSTGROUP;
      jobSpec.wwns = textsOf(p, "wwns", "present.");
    }
    if (j.contains("consistency_group")) {
      if (!j["consistency_group"].is_boolean()) {
        throw UsageError("job file: consistency_group must be true or false");
      }
      jobSpec.consistencyGroup = j["consistency_group"].get<bool>();
    }
    if (j.contains("wait_seconds")) {
      if (!j["wait_seconds"].is_number_unsigned()) {
        throw UsageError("job file: wait_seconds must be a number of seconds from 0 to " +
                         std::to_string(kMaxWaitSeconds));
      }
      jobSpec.waitSeconds = static_cast<int>(
          boundedNumber(j["wait_seconds"], "wait_seconds", kMaxWaitSeconds, "a number of seconds"));
    }
  } catch (const json::exception& e) {
    throw UsageError(std::string("job file: ") + e.what());
  }
  return jobSpec;
}

}  // namespace hdsctl
