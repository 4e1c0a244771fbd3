#pragma once

#include <string>
#include <vector>

#include "hds/common/HDSExport.h"
#include "hds/common/HDSRecords.h"
#include "hds/handler/CommandHandler.h"

// Drives the pair commands of one copy group through a pair of HORCM instances of its own: the
// handler writes both configuration files, starts both instances, runs paircreate, pairresync,
// pairsplit, pairdisplay, pairevtwait and pairsyncwait against them, and shuts them down and
// removes the files again. Instance numbers are taken by the existence of those files under a
// host-wide lock, so several processes on one host never share an instance.
class HDS_API CCICommandHandler : public CommandHandler {
 public:
  // instance "-1" (with any peer) means "none yet": startHorcm then allocates a free pair.
  CCICommandHandler(VTSO::SnapInfo& snapInfo, const HDSCLIInitParam& param,
                    const std::string& instance, const std::string& peerInstance);
  ~CCICommandHandler() override;

  // Allocates and writes the configuration files, then starts both instances. Nothing is undone
  // on failure: the owner calls stopHorcm.
  int startHorcm();
  // Shuts down whichever instances are set, removes their files, and forgets the numbers of the
  // instances that did stop. Always 0.
  int stopHorcm();
  int createHorcmFiles();
  int removeHorcmFiles();
  int readHorcmFile();

  int pairCreate(bool groupMode, const std::string& devName);
  int pairResync(const std::string& devName, bool restore, bool quick);
  int pairSplit(const std::string& devName, bool simplex, bool quick);

  // Appends one record per pair line of the copy group; the vector is not cleared first.
  int pairDisplay(std::vector<hdsCopyGroupInfo>& pairs);

  // On failure the error code is the exit status of pairevtwait (233 on a time-out).
  int pairEvtWait(std::string status, int timeout, const std::string& devName);
  int getQmarker(const std::string& copyGroup, std::string& qMarker);
  // A marker not reached within the time-out is not a failure: 0 with committed false.
  int pairSyncWait(const std::string& copyGroup, const std::string& qMarker, int timeout,
                   bool& committed);

  const std::string& getInstance() const { return m_sHorcmInstance; }
  const std::string& getPeerInstance() const { return m_sPeerInstance; }
  // The Device_Group written into the HORCM_LDEVG line of each file; empty unless set before
  // startHorcm.
  void setDeviceGroups(const std::string& localDeviceGroup, const std::string& peerDeviceGroup);

 protected:
  std::string m_sPeerInstance;
  std::string m_sInstanceOption;
  std::string m_sLocalDeviceGroup;
  std::string m_sPeerDeviceGroup;

 private:
  std::string formHorcmFileContent(const std::string& ownInstance, const std::string& otherInstance,
                                   const std::string& deviceGroup) const;
  // true when a file that exists could not be removed.
  bool deleteHorcmFile(const std::string& path);
};

// Parsers of the pair tools' output. Free functions over text so that they can be tested and
// fuzzed without a handler; neither reports an error, they take what they can read.

// "pairdisplay -g <group> -fc -CLI": appends one record per P-VOL, S-VOL or SMPL line after the
// header; lines of other layouts and a last line without a newline are ignored.
void parsePairDisplayOutput(const std::string& output, std::vector<hdsCopyGroupInfo>& pairs);

// "pairsyncwait": the Q-Marker (third column) of the last line after the header, "" when there is
// none. Text after the last newline is ignored.
std::string parseQmarkerOutput(const std::string& output);
