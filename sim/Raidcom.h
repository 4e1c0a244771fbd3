#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "sim/SimInvocation.h"
#include "sim/SimModel.h"

namespace ccisim {

// One raidcom command after the session has been checked: the array it addresses, the user of
// the session, and the words that name the command and its options.
class Raidcom {
 public:
  Raidcom(Invocation& inv, std::string serial, std::string user, bool hex,
          std::vector<std::string> words)
      : m_rInv(inv),
        m_sSerial(std::move(serial)),
        m_sUser(std::move(user)),
        m_bHex(hex),
        m_oWords(std::move(words)) {}

  Invocation& inv() { return m_rInv; }
  Store& db() { return m_rInv.db(); }
  const std::string& serial() const { return m_sSerial; }
  const std::string& user() const { return m_sUser; }
  bool hex() const { return m_bHex; }
  const std::vector<std::string>& words() const { return m_oWords; }

  // The options after "<verb> <object>".
  Options options(std::initializer_list<OptionSpec> optionSpecs) {
    return Options(m_rInv, m_oWords, 2, optionSpecs);
  }

  [[noreturn]] void reject(const Ssb& sense) { m_rInv.reject(sense, m_sSerial); }
  [[noreturn]] void fail(const ExCode& code) { m_rInv.fail(code); }

  // A resource of a group that another session has locked cannot be changed.
  void requireUnlocked(int rsgid);
  // The LDEV must be defined: else the array's "LDEV is not installed" rejection.
  LdevRow requireLdev(int id);
  // Fails with "could not find the hstgrp#" when the host group is not there.
  HostGroupRef requireHostGroup(const std::vector<std::string>& portWords);
  // Members of a device group, in the order they were added; EX_ENOOBJ when it has none.
  std::vector<int> deviceGroupLdevs(const std::string& group);

  // Background work the session's command status waits for (formatting).
  void addPending(int64_t untilMs) { m_iPendingUntil = std::max(m_iPendingUntil, untilMs); }
  int64_t pendingUntil() const { return m_iPendingUntil; }

 private:
  Invocation& m_rInv;
  std::string m_sSerial;
  std::string m_sUser;
  bool m_bHex;
  std::vector<std::string> m_oWords;
  int64_t m_iPendingUntil = 0;
};

// Command families, each in its own file.
void getLdev(Raidcom& rc);
void addLdev(Raidcom& rc);
void deleteLdev(Raidcom& rc);
void modifyLdev(Raidcom& rc);
void initializeLdev(Raidcom& rc);

void getPort(Raidcom& rc);
void getHostGroup(Raidcom& rc);
void addHostGroup(Raidcom& rc);
void deleteHostGroup(Raidcom& rc);
void modifyHostGroup(Raidcom& rc);
void getHbaWwn(Raidcom& rc);
void addHbaWwn(Raidcom& rc);
void deleteHbaWwn(Raidcom& rc);
void getLun(Raidcom& rc);
void addLun(Raidcom& rc);
void deleteLun(Raidcom& rc);

void getDeviceGroup(Raidcom& rc);
void addDeviceGroup(Raidcom& rc);
void deleteDeviceGroup(Raidcom& rc);
void getSnapshot(Raidcom& rc);
void addSnapshot(Raidcom& rc);
void modifySnapshot(Raidcom& rc);
void deleteSnapshot(Raidcom& rc);
void getCopyGroup(Raidcom& rc);
void addCopyGroup(Raidcom& rc);
void deleteCopyGroup(Raidcom& rc);
void getPool(Raidcom& rc);

void getResource(Raidcom& rc);
void lockResource(Raidcom& rc);
void unlockResource(Raidcom& rc);
void addResource(Raidcom& rc);
void deleteResource(Raidcom& rc);
void mapResource(Raidcom& rc);
void unmapResource(Raidcom& rc);

}  // namespace ccisim
