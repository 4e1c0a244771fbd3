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
//
// Thread safety: a handler is not safe to share between threads; handlers in many threads and
// processes may run at once, as instance numbers are taken under the host-wide named lock
// "VT_HDS_HORCM_FILE_COUNT_LOCK".
//
// Results are 0 or 1 as in CommandHandler; the pair commands fail with 62601 and a text naming
// the copy group and device (an empty devName means the whole group).
class HDS_API CCICommandHandler : public CommandHandler {
 public:
  // The instances of a pair that is already running, which stopHorcm and the pair commands use;
  // "-1" for none. startHorcm always allocates a fresh pair in their place.
  CCICommandHandler(VTSO::SnapInfo& snapInfo, const HDSCLIInitParam& param,
                    const std::string& instance, const std::string& peerInstance);
  ~CCICommandHandler() override;

  // Allocates and writes the configuration files, then starts both instances; the handler is not
  // ready until this succeeds, and the error fields are cleared then. Nothing is undone on
  // failure: the owner calls stopHorcm. Blocks for the lock and up to two command time-outs.
  int startHorcm();
  // Shuts down whichever instances are set, removes their files whatever the shutdowns said, and
  // forgets the numbers of the instances that did stop. Always 0.
  int stopHorcm();
  // Under the host-wide lock, takes the first pair n, n + 1 from 3300 on whose files both do not
  // exist, and writes both files. 1 with 62600 when the host, copy group or device group names
  // hold a control character; 62601 when the lock (text untouched), a free pair or a file cannot
  // be had, in which case the files already written are removed and both instances become "-1".
  int createHorcmFiles();
  // Removes the files of the instances that are set. 0 in practice: a file that cannot be
  // removed is passed over and keeps its number taken.
  int removeHorcmFiles();
  // 0 when the handler's own HORCM file can be read (nothing of it is kept); 1 with 62601.
  int readHorcmFile();

  int pairCreate(bool groupMode, const std::string& devName);
  int pairResync(const std::string& devName, bool restore, bool quick);
  int pairSplit(const std::string& devName, bool simplex, bool quick);

  // Appends one record per pair line of the copy group; the vector is not cleared first and is
  // left as it was on failure.
  int pairDisplay(std::vector<hdsCopyGroupInfo>& pairs);

  // Waits until the pairs show the status on the S-VOL side (-ss, lower-cased) for up to timeout
  // seconds, and never longer than the command time-out. On failure the error code is the exit
  // status of pairevtwait (233 on the tool's own time-out), 0 when the tool did not run to its end.
  int pairEvtWait(std::string status, int timeout, const std::string& devName);
  // The Q-marker of the last data line of "pairsyncwait -nowait" through the HORC-mode instance
  // (-IH); qMarker is left as it was when there is no data line.
  int getQmarker(const std::string& copyGroup, std::string& qMarker);
  // A marker not reached within the time-out is not a failure: 0 with committed false. Exit status
  // 1 (not yet committed) gives 0 with committed set when the marker printed is at or past qMarker
  // (compared as hex numbers); the error fields then keep the 62601 of that run.
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
  // A refusal to remove is passed over (false); true only when a file found missing could then
  // be chmod-ed and still not removed, which takes a race.
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
