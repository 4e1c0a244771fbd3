#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sim/SimStore.h"

namespace ccisim {

// An EX_ code of the CCI tools: its name, the exit status it gives and its message.
struct ExCode {
  const char* name;
  int status;
  const char* text;
};

inline constexpr ExCode EX_ENAUTH{"EX_ENAUTH", 202, "Authentication failed with User"};
inline constexpr ExCode EX_ENOOBJ{"EX_ENOOBJ", 205, "No such Object in the RAID"};
inline constexpr ExCode EX_ENQSER{"EX_ENQSER", 218, "Unmatched Serial# vs RAID unitID"};
inline constexpr ExCode EX_CMDRJE{"EX_CMDRJE", 221,
                                  "An order to the control/command device was rejected"};
inline constexpr ExCode EX_INVVOL{"EX_INVVOL", 222, "Invalid volume status"};
inline constexpr ExCode EX_ENLDEV{"EX_ENLDEV", 227, "No such LDEV within the RAID"};
inline constexpr ExCode EX_UNWCMD{"EX_UNWCMD", 230, "Unknown command"};
inline constexpr ExCode EX_EWSTOT{"EX_EWSTOT", 233, "Timeout waiting for specified status"};
inline constexpr ExCode EX_EWSUSE{"EX_EWSUSE", 234, "Pair suspended at WAIT state"};
inline constexpr ExCode EX_ENQSIZ{"EX_ENQSIZ", 212, "Unmatched volume size for pairing"};
inline constexpr ExCode EX_EVOLCE{"EX_EVOLCE", 235, "Pair volume combination error"};
inline constexpr ExCode EX_ENOGRP{"EX_ENOGRP", 239, "No such group"};
inline constexpr ExCode EX_ENODEV{"EX_ENODEV", 246, "No such device"};
inline constexpr ExCode EX_ENOENT{"EX_ENOENT", 247, "No such device or group"};
inline constexpr ExCode EX_ATTHOR{"EX_ATTHOR", 251, "Can't be attached to HORC manager"};
inline constexpr ExCode EX_UNWOPT{"EX_UNWOPT", 252, "Unknown option"};
inline constexpr ExCode EX_INVARG{"EX_INVARG", 253, "Invalid argument"};
inline constexpr ExCode EX_REQARG{"EX_REQARG", 254, "Required Arg list"};
inline constexpr ExCode EX_COMERR{"EX_COMERR", 255, "Can't be communicated with HORC manager"};

// The sense data an array rejection carries, with the sentence of its CAUSE line (empty when the
// array gives none).
struct Ssb {
  const char* ssb1;
  const char* ssb2;
  const char* cause;
};

namespace ssb {
inline constexpr Ssb LDEV_NOT_INSTALLED{"2E20", "0000", "LDEV is not installed."};
inline constexpr Ssb LDEV_DEFINED{"2E22", "0001", "LDEV is already defined."};
inline constexpr Ssb LDEV_OUT_OF_RANGE{"2E11", "0006", "The specified LDEV number is invalid."};
inline constexpr Ssb MISSING_PARAMS{"2E00", "9701",
                                    "There are not enough required input parameters."};
inline constexpr Ssb POOL_MISSING{"2E11", "0007", "The specified pool is not installed."};
inline constexpr Ssb POOL_WRONG_TYPE{"2E11", "0008", "The pool type is not supported."};
inline constexpr Ssb PATH_DEFINED{"2E10", "8202", "A path is defined in the volume."};
inline constexpr Ssb VOLUME_IN_PAIR{"2E10", "8203", "The volume is used as a pair volume."};
inline constexpr Ssb LDEV_NOT_BLOCKED{"2E10", "9710", "The LDEV is not blocked."};
inline constexpr Ssb LDEV_IN_VSM{"2E10", "8210",
                                 "The LDEV has a virtual LDEV ID of a virtual storage machine."};
inline constexpr Ssb NOT_IN_DEVICE_GROUP{"2E10", "9A03",
                                         "LDEV is not registered in the device group."};
inline constexpr Ssb IN_DEVICE_GROUP{"2E10", "9A04",
                                     "LDEV is already registered in the device group."};
inline constexpr Ssb DEVICE_GROUP_MISSING{"2E10", "9A05", "The device group does not exist."};
inline constexpr Ssb COPY_GROUP_EXISTS{"2E10", "9B01", "The copy group is already defined."};
inline constexpr Ssb COPY_GROUP_IN_USE{"2E10", "9B02", "The copy group has pair volumes."};
inline constexpr Ssb NAME_TOO_LONG{"2E10", "9C01", "The specified name is too long."};
inline constexpr Ssb SIZE_MISMATCH{"2E10", "9D01",
                                   "The capacity of the P-VOL and the S-VOL does not match."};
inline constexpr Ssb SVOL_IN_USE{"2E10", "9D02", "The S-VOL is already used by another pair."};
inline constexpr Ssb SAME_VOLUME{"2E10", "9D03", "The P-VOL and the S-VOL are the same."};
inline constexpr Ssb PVOL_IN_GROUP{"2E10", "9D04",
                                   "The P-VOL already has a pair in the snapshot group."};
inline constexpr Ssb NO_FREE_MU{"2E10", "9D05", "No free mirror unit for the P-VOL."};
inline constexpr Ssb PAIR_STATUS{"2E10", "9D06", "The pair status is not valid for the order."};
inline constexpr Ssb PORT_CANNOT_OPERATE{"B980", "B902", "The specified port can not be operated."};
inline constexpr Ssb LU_PATH_EXISTS{"B958", "015A",
                                    "An LU path has already defined in the relevant LDEV."};
inline constexpr Ssb LUN_IN_USE{"B958", "0947", ""};
inline constexpr Ssb LUN_LIMIT{"B958", "0948", "No free LUN in the host group."};
inline constexpr Ssb GID_IN_USE{"B956", "3173", ""};
inline constexpr Ssb HOST_GROUP_NAME_USED{"B956", "3174",
                                          "The host group name is already used on the port."};
inline constexpr Ssb NO_FREE_GID{"B956", "3175", "No free host group ID on the port."};
inline constexpr Ssb WWN_REGISTERED{"B957", "4188", "The WWN is already registered on the port."};
inline constexpr Ssb RSG_LOCKED{"2E11", "2205", ""};
inline constexpr Ssb RSG_NOT_MEMBER{"2E11", "2210",
                                    "The resource is not in the specified resource group."};
inline constexpr Ssb RSG_OTHER_GROUP{"2E11", "2211",
                                     "The resource belongs to another resource group."};
inline constexpr Ssb RSG_NOT_EMPTY{"2E11", "2212", "The resource group has resources."};
inline constexpr Ssb RSG_EXISTS{"2E11", "2213", "The resource group is already defined."};
inline constexpr Ssb VLDEV_SET{"2E11", "2220", "A virtual LDEV ID is already set for the LDEV."};
inline constexpr Ssb VLDEV_NOT_SET{"2E11", "2221", "No virtual LDEV ID is set for the LDEV."};
inline constexpr Ssb VLDEV_IN_USE{"2E11", "2222",
                                  "The virtual LDEV ID is used in the virtual storage machine."};
}  // namespace ssb

// How the command addressed its HORCM instance (-IM: in-system copy, -IH: remote copy).
enum class InstanceMode { Any, Mrcf, Horc };

// Ends a command after its error text has been written; what it changed is undone.
struct ToolExit {
  int status;
};

// An asynchronous command whose work failed inside the array: the command returns 0, its
// changes are undone, and the failure waits in `get command_status`.
struct AsyncFailure {
  std::string ssb1;
  std::string ssb2;
  std::string description;
};

// One run of a tool: its arguments, its buffered output, the state it works on, and the
// helpers every tool shares (error shapes, waiting, the instance it addresses).
class Invocation {
 public:
  Invocation(Store& store, std::string tool, std::vector<std::string> args);

  Store& db() { return m_rStore; }
  const std::string& tool() const { return m_sTool; }
  const std::vector<std::string>& args() const { return m_oArgs; }
  std::vector<std::string>& mutableArgs() { return m_oArgs; }

  std::string& out() { return m_sOut; }
  std::string& err() { return m_sErr; }
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void printErr(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // "<tool>: [EX_...] text" on stderr and the code's exit status.
  [[noreturn]] void fail(const ExCode& code);
  // The three-line rejection of the array (two when there is no cause).
  [[noreturn]] void reject(const Ssb& sense, const std::string& serial);
  // Unknown option, wrong option value, missing option, unknown command.
  [[noreturn]] void unknownOption(const std::string& option);
  [[noreturn]] void invalidOption(const std::string& option);
  [[noreturn]] void asyncFail(const Ssb& sense, const std::string& description = "");

  // Wall clock in milliseconds since the epoch.
  static int64_t nowMs();
  // Whether this call may change the state: it then runs in a write transaction.
  void setWriter(bool writer) { m_bWriter = writer; }
  void beginTransaction() { m_rStore.begin(m_bWriter); }
  // Waits inside a command without holding the state: commits, sleeps, starts a new
  // transaction. The command must not have changed anything yet.
  void pause(int64_t ms);
  // The end of a wait a tool is asked for (-t, -time) in units of `unitMs`, scaled by
  // $CCISIM_TIME_SCALE (tests shrink waits) and kept within a day.
  int64_t deadlineAfter(int64_t units, int64_t unitMs) const;
  // Remembers that a timed transition falls due, so that later invocations settle it.
  void scheduleDue(int64_t dueMs);
  // Applies every timed transition that has fallen due (copy completion and the like), inside
  // the current write transaction; settleIfDue checks first and writes only when one has.
  void settle();
  void settleIfDue();

  // Instance selection from -I/-IM/-IH options (removed from the arguments) or HORCMINST.
  void takeInstanceOption();
  const std::string& instance() const { return m_sInstance; }
  InstanceMode instanceMode() const { return m_eMode; }
  // The instance must be running: else EX_ATTHOR.
  void requireRunningInstance();
  // Serial numbers of the arrays the instance reaches, in HORCM_CMD order.
  std::vector<std::string> instanceUnits();

  // The host name this host shows to the array (lock host, raidqry).
  static std::string hostName();

  // A fault that makes the array fail the command's work in the background.
  void inject(AsyncFailure failure) { m_oInjected = std::move(failure); }
  const AsyncFailure* injectedFailure() const { return m_oInjected ? &*m_oInjected : nullptr; }

 private:
  Store& m_rStore;
  std::string m_sTool;
  std::vector<std::string> m_oArgs;
  std::string m_sOut;
  std::string m_sErr;
  std::string m_sInstance;
  InstanceMode m_eMode = InstanceMode::Any;
  double m_dTimeScale = 1.0;
  bool m_bWriter = true;
  std::optional<AsyncFailure> m_oInjected;
};

// Options of one command after the words that name it. An option takes the words that follow
// it up to the next option; the command says how many each option accepts.
struct OptionSpec {
  const char* name;
  int minValues;
  int maxValues;  // -1: any number
};

class Options {
 public:
  // Parses words[first..]; an unknown option or a wrong number of values ends the command
  // with the tool's option error.
  Options(Invocation& inv, const std::vector<std::string>& words, size_t first,
          std::initializer_list<OptionSpec> optionSpecs);

  bool has(const std::string& name) const { return m_oValues.count(name) != 0; }
  const std::vector<std::string>& values(const std::string& name) const;
  // The single value of an option that must be present: else EX_REQARG.
  const std::string& required(const std::string& name) const;
  std::string value(const std::string& name, const std::string& fallback = "") const;
  // Words before the first option.
  const std::vector<std::string>& positional() const { return m_oPositional; }

  // Numbers: an option whose value does not parse gives the option error.
  int64_t number(const std::string& name) const;
  std::optional<int64_t> optNumber(const std::string& name) const;
  // LDEV numbers: decimal, 0x hexadecimal or CU:LDEV.
  int ldevId(const std::string& name, size_t index = 0) const;
  // A -cnt style count: 1 when absent, else 1..max.
  int64_t count(const std::string& name, int64_t max) const;

 private:
  Invocation& m_rInv;
  std::map<std::string, std::vector<std::string>> m_oValues;
  std::vector<std::string> m_oPositional;
};

std::optional<int64_t> parseNumber(const std::string& text);
std::optional<int> parseLdevId(const std::string& text);
std::string trim(const std::string& text);
std::vector<std::string> splitWords(const std::string& text);
// True when the text is one or more of the digits 0-9 and nothing else.
bool isDigits(const std::string& text);
std::string toLower(std::string text);
std::string toUpper(std::string text);
std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace ccisim
