#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "hds/common/HDSRecords.h"

namespace hdsctl {

// Exit statuses: a library or array failure, and arguments that make no sense.
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Thrown inside the tool and turned into one "hdsctl: ..." line and an exit status by main.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A table printed with its columns aligned; a column whose cells are all numbers is aligned to
// the right.
class Table {
 public:
  explicit Table(std::vector<std::string> headers);
  void addRow(std::vector<std::string> cells);
  size_t rows() const { return m_oRows.size(); }
  void print(std::ostream& out) const;

 private:
  std::vector<std::string> m_oHeaders;
  std::vector<std::vector<std::string>> m_oRows;
};

// True for a non-empty run of decimal digits.
bool isDecimal(const std::string& text);

// "-" for an empty cell, so that columns stay countable for awk and cut.
std::string cell(const std::string& text);
// A number of seconds with two decimals, as progress lines and summaries print them.
std::string fixed2(double value);

std::string joinWords(const std::vector<std::string>& words, const char* separator = " ");

// The raidcom words behind the VT_HDS_VOL_ bits of an LDEV ("CVS", "HDP", ...).
std::vector<std::string> volumeAttributeNames(int volAttr);
// "CL1-A-5-0": port, host group number and LUN of one path.
std::string lunPathText(const hdsLun_t& lun);

nlohmann::json toJson(const hdsLun_t& lun);
nlohmann::json toJson(const hdsLdev_t& ldev);
nlohmann::json toJson(const hdsPool_t& pool);
nlohmann::json toJson(const hdsHostGroup_t& hostGroup);
nlohmann::json toJson(const hdsPort_t& port);
nlohmann::json toJson(const hdsSnapshotGroupInfo& pair);
nlohmann::json toJson(const hdsCopyGroup_t& group);
nlohmann::json toJson(const std::string& name, const ResourceGroupStatus& group);

void printJson(std::ostream& out, const nlohmann::json& value);

// A program run without a shell (words[0] is its path) and waited for up to timeoutSec.
struct ProgramRun {
  bool ended = false;  // false: it did not start or did not end in time; why is in err
  int exitCode = -1;
  std::string out, err;
};
ProgramRun runProgram(std::vector<std::string> words, int timeoutSec);

}  // namespace hdsctl
