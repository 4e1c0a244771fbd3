#include "hds/cci/CCICommandHandler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/handler/internal/InstanceArgs.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/CZoFile.h"

namespace {

using hds::handler::instanceArguments;
using hds::handler::InstanceMode;

const char* const kNoHorcmFile = "N/A";

using hds::text::quoteArgument;

}  // namespace

CCICommandHandler::CCICommandHandler(VTSO::SnapInfo& snapInfo, const HDSCLIInitParam& param,
                                     const std::string& instance, const std::string& peerInstance)
    : CommandHandler(snapInfo, param), m_sPeerInstance(peerInstance) {
  m_sHorcmInstance = instance;
  if (!instance.empty()) m_sInstanceOption = formInstanceOption(instance);
}

CCICommandHandler::~CCICommandHandler() = default;

void CCICommandHandler::setDeviceGroups(const std::string& localDeviceGroup,
                                        const std::string& peerDeviceGroup) {
  m_sLocalDeviceGroup = localDeviceGroup;
  m_sPeerDeviceGroup = peerDeviceGroup;
}

// ---------------------------------------------------------------------------------------------
// HORCM instances and their configuration files

int CCICommandHandler::startHorcm() {
  m_iReady = 0;
  if (createHorcmFiles() != 0) return 1;
  if (horcmStart(m_sHorcmInstance.c_str()) != 0) return 1;
  if (horcmStart(m_sPeerInstance.c_str()) != 0) return 1;
  m_iReady = 1;
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "CCI command handler initialized for local execution.");
  m_iErrorCode = 0;
  return 0;
}

int CCICommandHandler::stopHorcm() {
  int ownResult = 1;
  int peerResult = 1;
  if (m_sHorcmInstance != VT_HDS_DUMMY_HORCM_INST_NUMBER) {
    ownResult = horcmShutdown(m_sHorcmInstance.c_str());
  }
  if (m_sPeerInstance != VT_HDS_DUMMY_HORCM_INST_NUMBER) {
    peerResult = horcmShutdown(m_sPeerInstance.c_str());
  }
  // The files go whatever the shutdowns said: a stale file would keep its number taken for
  // every later allocation on this host.
  removeHorcmFiles();
  if (ownResult == 0) m_sHorcmInstance = VT_HDS_DUMMY_HORCM_INST_NUMBER;
  if (peerResult == 0) m_sPeerInstance = VT_HDS_DUMMY_HORCM_INST_NUMBER;
  return 0;
}

bool CCICommandHandler::deleteHorcmFile(const std::string& path) {
  // A refusal other than "missing" is not reported: no caller can act on it, and a file left
  // behind only makes later allocations skip its number.
  if (unlink(path.c_str()) != 0 && errno == ENOENT) {
    if (chmod(path.c_str(), 0666) == 0 && unlink(path.c_str()) != 0 && errno == ENOENT) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to delete horcm file [%s].", path.c_str());
      return true;
    }
  }
  return false;
}

std::string CCICommandHandler::formHorcmFileContent(const std::string& ownInstance,
                                                    const std::string& otherInstance,
                                                    const std::string& deviceGroup) const {
  const std::string nl = VT_HDS_NEW_LINE;
  std::string devices;
  for (const std::string& device : m_oCommandDevices) devices += device + " ";

  std::string content;
  content +=
      "#HORCM file create by Tessaly Kestrel. Do not alter the file content or delete the file." +
      nl;
  content += "HORCM_MON" + nl;
  content += "#ip_address                  service         poll(10ms)     timeout(10ms)" + nl;
  content += m_sLocalHostName + "\t\t" + ownInstance + "\t1000           3000" + nl;
  content += nl;
  content += "HORCM_CMD" + nl;
  content += "#dev_name               dev_name                dev_name" + nl;
  content += "#\\\\.\\CMD-" + m_sSerialNumber + nl;
  content += devices + nl;
  content += "HORCM_LDEVG" + nl;
  content += "#Copy_Group\t\tDevice_Group\t\tserial" + nl;
  content += m_sCopyGroupName + "  " + deviceGroup + "  " + m_sSerialNumber + nl;
  content += nl;
  content += "HORCM_INST" + nl;
  content += "#dev_group\t        ip_address    service" + nl;
  content += m_sCopyGroupName + "  " + m_sLocalHostName + "  " + otherInstance + nl;
  content += nl;
  return content;
}

int CCICommandHandler::createHorcmFiles() {
  // Each of these is written as one value of a line of both files.
  if (refuseControlCharacters("host name", m_sLocalHostName) ||
      refuseControlCharacters("copy group name", m_sCopyGroupName) ||
      refuseControlCharacters("device group name", m_sLocalDeviceGroup) ||
      refuseControlCharacters("device group name", m_sPeerDeviceGroup)) {
    return 1;
  }
  VTHDSLock lock(*m_pSnapInfo, VT_HDS_HORCM_FILE_COUNT_LOCK, 0);
  if (!lock.isLocked()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to logout, unable to acquire lock.");
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }

  // The files themselves record which numbers are taken. A pair may reuse the upper number of an
  // earlier pair whose lower file is gone, hence the step of one.
  bool found = false;
  for (int n = VT_HDS_HORCM_INSTANCE_START; n < VT_HDS_HORCM_INSTANCE_END; ++n) {
    const std::string own = CommandHelper::itoa(n);
    const std::string peer = CommandHelper::itoa(n + 1);
    if (!CZoFile::Stat(horcmFilePath(own)).IsError()) continue;
    if (!CZoFile::Stat(horcmFilePath(peer)).IsError()) continue;
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Horcm instance [%d, %d] will be used.", n, n + 1);
    m_sHorcmInstance = own;
    m_sInstanceOption = formInstanceOption(own);
    m_sPeerInstance = peer;
    found = true;
    break;
  }
  if (!found) {
    m_sErrorString = "Failed to find free horcm instance.";
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }

  struct HorcmFile {
    std::string path;
    std::string content;
    bool opened;
  };
  HorcmFile files[2] = {
      {horcmFilePath(m_sHorcmInstance),
       formHorcmFileContent(m_sHorcmInstance, m_sPeerInstance, m_sLocalDeviceGroup), false},
      {horcmFilePath(m_sPeerInstance),
       formHorcmFileContent(m_sPeerInstance, m_sHorcmInstance, m_sPeerDeviceGroup), false},
  };

  bool failed = false;
  for (HorcmFile& file : files) {
    CZoFile out;
    CZoError error = out.Open(file.path, O_WRONLY | O_CREAT, 0777);
    if (error.IsError()) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to create horcm file [%s]. Due to error [%s]",
                       file.path.c_str(), error.AsString().c_str());
      m_sErrorString = "Unable to open horcm file " + file.path;
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      failed = true;
      break;
    }
    file.opened = true;
    error = out.Write(file.content.data(), file.content.size());
    if (error.IsError()) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Unable to write to horcm file [%s]. Due to error [%s]", file.path.c_str(),
                       error.AsString().c_str());
      m_sErrorString = "Unable to write to horcm file " + file.path;
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      out.Close();
      failed = true;
      break;
    }
    out.Close();
  }
  if (!failed) return 0;

  for (const HorcmFile& file : files) {
    if (file.opened) deleteHorcmFile(file.path);
  }
  m_sHorcmInstance = VT_HDS_DUMMY_HORCM_INST_NUMBER;
  m_sPeerInstance = VT_HDS_DUMMY_HORCM_INST_NUMBER;
  return 1;
}

int CCICommandHandler::removeHorcmFiles() {
  std::string ownPath = kNoHorcmFile;
  std::string peerPath = kNoHorcmFile;
  bool failed = false;
  if (m_sHorcmInstance != VT_HDS_DUMMY_HORCM_INST_NUMBER) {
    ownPath = horcmFilePath(m_sHorcmInstance);
    failed |= deleteHorcmFile(ownPath);
  }
  if (m_sPeerInstance != VT_HDS_DUMMY_HORCM_INST_NUMBER) {
    peerPath = horcmFilePath(m_sPeerInstance);
    failed |= deleteHorcmFile(peerPath);
  }
  if (failed) return 1;
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Deleted horcm files [%s] and [%s].", ownPath.c_str(),
                   peerPath.c_str());
  return 0;
}

int CCICommandHandler::readHorcmFile() {
  const std::string path = horcmFilePath(m_sHorcmInstance);
  std::string content;
  const CZoError error = CZoFile::ReadWholeFile(path, content);
  if (error.IsError()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to read horcm file" + path,
                "Failed to read horcm file [%s]. Error [%s]", path.c_str(),
                error.AsString().c_str());
  }
  // The serial numbers named by the command device lines are read but not kept: reading the
  // file back only proves that the instance's configuration is still there and readable.
  const std::string marker = "\\\\.\\CMD";
  for (size_t at = content.find(marker); at != std::string::npos;
       at = content.find(marker, at + 1)) {
    std::string serial = content.substr(std::min(at + 8, content.size()), 6);
    if (serial.size() == 6 && !std::isdigit(static_cast<unsigned char>(serial[5]))) {
      serial.pop_back();
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Pair create, resync and split

int CCICommandHandler::pairCreate(bool groupMode, const std::string& devName) {
  const std::string label = m_sCopyGroupName + " " + devName;
  std::string arguments;
  if (!devName.empty()) arguments += " -d " + quoteArgument(devName);
  if (groupMode) arguments += " -m grp ";
  arguments += " -g " + quoteArgument(m_sCopyGroupName) + " -vl " + m_sInstanceOption;

  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to create pairs on copy group [%s].",
                   label.c_str());
  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_CCI_PAIR_CREATE_CMD, arguments, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to create pair on copy group [" + label + "].",
                "Failed to create pair on copy group [%s].", label.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully created pairs on copy group [%s].",
                   label.c_str());
  return 0;
}

int CCICommandHandler::pairResync(const std::string& devName, bool restore, bool quick) {
  const std::string label = m_sCopyGroupName + " " + devName;
  std::string arguments = " -g " + quoteArgument(m_sCopyGroupName);
  if (!devName.empty()) arguments += " -d " + quoteArgument(devName);
  if (restore) arguments += " -restore ";
  if (quick) arguments += " -fq quick ";
  arguments += m_sInstanceOption;

  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to resync pairs in copy group [%s].",
                   label.c_str());
  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_CCI_PAIR_RESYNC_CMD, arguments, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to resync pair in copy group [" + label + "].",
                "Failed to resync pair in copy group [%s].", label.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully resync'd pairs in copy group [%s].",
                   label.c_str());
  return 0;
}

int CCICommandHandler::pairSplit(const std::string& devName, bool simplex, bool quick) {
  const std::string label = m_sCopyGroupName + " " + devName;
  const char* word = simplex ? "split" : "suspended";
  std::string arguments;
  if (simplex) arguments += " -S ";
  if (!devName.empty()) arguments += " -d " + quoteArgument(devName);
  if (quick) arguments += " -fq quick ";
  arguments += " -g " + quoteArgument(m_sCopyGroupName) + m_sInstanceOption;

  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_CCI_PAIR_SPLIT_CMD, arguments, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to split pair on copy group [" + label + "].",
                "Failed to [%s] pair on copy group [%s].", word, label.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully [%s] mirrors in copy group [%s].", word,
                   label.c_str());
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Pair display

void parsePairDisplayOutput(const std::string& output, std::vector<hdsCopyGroupInfo>& pairs) {
  using hds::text::Separator;
  // Only complete lines are read: a line still being printed when the tool was cut off must not
  // become a record with half its fields.
  const std::vector<std::string_view> lines =
      hds::text::splitLines(output, hds::text::LastLine::Drop);
  for (size_t i = 1; i < lines.size(); ++i) {
    const std::string_view line = lines[i];
    size_t pos = 0;
    auto next = [&line, &pos]() {
      return std::string(hds::text::nextColumn(line, pos, Separator::Blank));
    };

    hdsCopyGroupInfo pair;
    // The group name may be followed by a tab; the separator after it is used up with it.
    pair.copyGroupName = std::string(hds::text::nextColumn(line, pos, Separator::Space));
    if (pos < line.size()) ++pos;
    pair.pairVolName = next();
    pair.isPrimary = next() == "L" ? 1 : 0;
    pair.port = next();
    for (int skipped = 5; skipped <= 8; ++skipped) next();
    pair.ldevId = next();

    const std::string role = next();
    if (role == VT_HDS_LDEV_PVOL) {
      pair.isPrimary = 1;
    } else if (role == VT_HDS_LDEV_SVOL) {
      pair.isPrimary = 0;
    } else if (role == VT_HDS_PAIR_STATUS_SIMPLE) {
      pair.pairStatus = role;
      pairs.push_back(pair);
      continue;
    } else {
      continue;
    }
    pair.pairStatus = next();
    pair.copyPercent = hds::text::toInt(next());
    pair.partnerLdevId = next();
    pairs.push_back(pair);
  }
}

int CCICommandHandler::pairDisplay(std::vector<hdsCopyGroupInfo>& pairs) {
  const std::string arguments =
      " -g " + quoteArgument(m_sCopyGroupName) + " -fc -CLI " + m_sInstanceOption;
  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_CCI_PAIR_DISPLAY_CMD, arguments, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to get pair status of copy group [" + m_sCopyGroupName + "].",
                "Failed to get pair status on copy group [%s].", m_sCopyGroupName.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "OUTPUT : [%s].", output.c_str());
  parsePairDisplayOutput(output, pairs);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Pair waits and Q-markers

std::string parseQmarkerOutput(const std::string& output) {
  const std::vector<std::string_view> lines =
      hds::text::splitLines(output, hds::text::LastLine::Drop);
  std::string qMarker;
  for (size_t i = 1; i < lines.size(); ++i) {
    qMarker = std::string(hds::text::column(lines[i], 2));
  }
  return qMarker;
}

int CCICommandHandler::pairEvtWait(std::string status, int timeout, const std::string& devName) {
  std::string arguments = " -g " + quoteArgument(m_sCopyGroupName);
  if (!devName.empty()) arguments += " -d " + quoteArgument(devName);
  for (char& c : status) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  arguments += " -ss " + quoteArgument(status) + " -t " + CommandHelper::itoa(timeout);
  arguments += m_sInstanceOption;

  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_CCI_PAIR_EVT_WAIT_CMD, arguments, output, exitCode) != 0) {
    const std::string label = m_sCopyGroupName + " " + devName;
    if (exitCode == VT_HDS_CCI_ERROR_EX_EWSTOT) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Pairevwait command timed out waiting for status.");
    } else {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get pair status on copy group [%s].",
                       label.c_str());
    }
    // Callers tell a time-out from a suspended pair by the tool's own exit status.
    m_iErrorCode = exitCode;
    m_sErrorString = "Failed to get pair status on copy group " + label + ".";
    return 1;
  }
  return 0;
}

int CCICommandHandler::getQmarker(const std::string& copyGroup, std::string& qMarker) {
  const std::string arguments = " -g " + quoteArgument(copyGroup) + " -nowait -t 99999 " +
                                instanceArguments(InstanceMode::Horc, m_sHorcmInstance);
  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_CCI_PAIR_SYNC_WAIT_CMD, arguments, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to latest Qmarker of copy group [" + copyGroup + "].",
                "Failed to find Qmarker for copy group [%s].", copyGroup.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "OUTPUT : [%s].", output.c_str());
  // Without a data line there is no marker to report, and the caller's stays as it was.
  if (hds::text::splitLines(output, hds::text::LastLine::Drop).size() > 1) {
    qMarker = parseQmarkerOutput(output);
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Copy group [%s] : Q-Marker [%s].", copyGroup.c_str(),
                   qMarker.c_str());
  return 0;
}

int CCICommandHandler::pairSyncWait(const std::string& copyGroup, const std::string& qMarker,
                                    int timeout, bool& committed) {
  committed = false;
  const std::string arguments = " -g " + quoteArgument(copyGroup) + " -q " +
                                quoteArgument(qMarker) + " -t " + CommandHelper::itoa(timeout) +
                                " " + instanceArguments(InstanceMode::Horc, m_sHorcmInstance);
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Waiting for Q-Marker [%s] to reach RCU.",
                   qMarker.c_str());
  std::string output;
  int exitCode = 0;
  const int result = executeCommand(VT_HDS_CCI_PAIR_SYNC_WAIT_CMD, arguments, output, exitCode);
  // Exit status 1 is the tool's "not committed yet", not an error.
  if (result != 0 && exitCode != 1) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to check Q-Marker [" + qMarker + "]" + "commit.",
                "Failed to check Q-Marker [%s] commit.", qMarker.c_str());
  }
  if (exitCode == 0) {
    committed = true;
  } else {
    const std::string current = parseQmarkerOutput(output);
    if (!current.empty()) {
      // Markers are compared as numbers: 10 is past F although it sorts before it as text.
      const long long wanted = std::strtoll(qMarker.c_str(), nullptr, 16);
      const long long reached = std::strtoll(current.c_str(), nullptr, 16);
      m_pSnapInfo->log(
          0, VT_HDS_LOG_MODULE, "Primary Snap Q-Marker [%llx] : Current Q-Marker [%llx] ",
          static_cast<unsigned long long>(wanted), static_cast<unsigned long long>(reached));
      committed = reached >= wanted;
    }
  }
  if (committed) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Copy group [%s] : Q-Marker [%s] commited.",
                     copyGroup.c_str(), qMarker.c_str());
  }
  return 0;
}
