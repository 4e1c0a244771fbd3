#include "sim/SimInvocation.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <limits>
#include <thread>

namespace ccisim {

namespace {

std::string vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n <= 0) return std::string();
  std::string text(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<size_t>(n));
  return text;
}

}  // namespace

std::string strprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = vformat(format, args);
  va_end(args);
  return text;
}

std::optional<int64_t> parseNumber(const std::string& text) {
  int base = 10;
  size_t start = 0;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    start = 2;
  }
  if (start >= text.size()) return std::nullopt;
  int64_t value = 0;
  for (size_t i = start; i < text.size(); ++i) {
    int digit;
    char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else {
      return std::nullopt;
    }
    if (value > (std::numeric_limits<int64_t>::max() - digit) / base) return std::nullopt;
    value = value * base + digit;
  }
  return value;
}

std::optional<int> parseLdevId(const std::string& text) {
  size_t colon = text.find(':');
  if (colon != std::string::npos) {
    std::string cu = text.substr(0, colon);
    std::string ldev = text.substr(colon + 1);
    if (cu.empty() || ldev.empty() || cu.size() > 2 || ldev.size() > 2) return std::nullopt;
    auto c = parseNumber("0x" + cu);
    auto l = parseNumber("0x" + ldev);
    if (!c || !l) return std::nullopt;
    return static_cast<int>(*c * 256 + *l);
  }
  auto value = parseNumber(text);
  if (!value || *value > 0xFFFF) return std::nullopt;
  return static_cast<int>(*value);
}

std::string trim(const std::string& text) {
  size_t b = text.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return std::string();
  size_t e = text.find_last_not_of(" \t\r\n");
  return text.substr(b, e - b + 1);
}

bool isDigits(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::vector<std::string> splitWords(const std::string& text) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    size_t start = i;
    while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    if (i > start) words.push_back(text.substr(start, i - start));
  }
  return words;
}

std::string toLower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string toUpper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

Invocation::Invocation(Store& store, std::string tool, std::vector<std::string> args)
    : m_rStore(store), m_sTool(std::move(tool)), m_oArgs(std::move(args)) {
  if (const char* scale = std::getenv("CCISIM_TIME_SCALE")) {
    double value = std::atof(scale);
    if (value > 0) m_dTimeScale = value;
  }
}

void Invocation::print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  m_sOut += vformat(format, args);
  va_end(args);
}

void Invocation::printErr(const char* format, ...) {
  va_list args;
  va_start(args, format);
  m_sErr += vformat(format, args);
  va_end(args);
}

void Invocation::fail(const ExCode& code) {
  printErr("%s: [%s] %s\n", m_sTool.c_str(), code.name, code.text);
  throw ToolExit{code.status};
}

void Invocation::reject(const Ssb& sense, const std::string& serial) {
  printErr("%s: [%s] %s\n", m_sTool.c_str(), EX_CMDRJE.name, EX_CMDRJE.text);
  printErr("It was rejected due to SKEY=0x05, ASC=0x26, ASCQ=0x00, SSB=0x%s,0x%s on Serial#(%s)\n",
           sense.ssb1, sense.ssb2, serial.c_str());
  if (*sense.cause) printErr("CAUSE : %s\n", sense.cause);
  throw ToolExit{EX_CMDRJE.status};
}

void Invocation::unknownOption(const std::string& option) {
  if (m_sTool != "raidcom") fail(EX_UNWOPT);
  printErr("%s: Arguments of an option is incorrect '%s'\n", m_sTool.c_str(), option.c_str());
  printErr("%s: [EW_UNWOPT] Unknown option\n", m_sTool.c_str());
  throw ToolExit{EX_UNWOPT.status};
}

void Invocation::invalidOption(const std::string& option) {
  if (m_sTool != "raidcom") fail(EX_INVARG);
  printErr("%s: An option or arguments of an option are incorrect '%s'\n", m_sTool.c_str(),
           option.c_str());
  printErr("%s: [EW_INVOPT] Invalid option\n", m_sTool.c_str());
  throw ToolExit{EX_INVARG.status};
}

void Invocation::asyncFail(const Ssb& sense, const std::string& description) {
  throw AsyncFailure{sense.ssb1, sense.ssb2,
                     description.empty() ? std::string(sense.cause) : description};
}

int64_t Invocation::nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

int64_t Invocation::deadlineAfter(int64_t units, int64_t unitMs) const {
  constexpr double kLongestWaitMs = 24.0 * 3600 * 1000;
  double ms = static_cast<double>(units) * static_cast<double>(unitMs) * m_dTimeScale;
  return nowMs() + static_cast<int64_t>(std::max(0.0, std::min(ms, kLongestWaitMs)));
}

void Invocation::pause(int64_t ms) {
  m_rStore.exec("RELEASE command");
  m_rStore.commit();
  std::this_thread::sleep_for(std::chrono::milliseconds(std::max<int64_t>(ms, 1)));
  settleIfDue();
  beginTransaction();
  m_rStore.exec("SAVEPOINT command");
}

void Invocation::scheduleDue(int64_t dueMs) {
  auto current = m_rStore.meta("next_due");
  if (!current || std::atoll(current->c_str()) > dueMs) {
    m_rStore.setMeta("next_due", std::to_string(dueMs));
  }
}

void Invocation::settleIfDue() {
  auto due = m_rStore.meta("next_due");
  if (!due || std::atoll(due->c_str()) > nowMs()) return;
  m_rStore.begin(true);
  try {
    settle();
    m_rStore.commit();
  } catch (...) {
    m_rStore.rollback();
    throw;
  }
}

void Invocation::settle() {
  auto due = m_rStore.meta("next_due");
  if (!due) return;
  int64_t now = nowMs();
  if (std::atoll(due->c_str()) > now) return;
  m_rStore.run("UPDATE pairs SET status=next, next=NULL, since=due, due=NULL WHERE due<=?", now);
  m_rStore.run("DELETE FROM snapshots WHERE due<=? AND next='SMPL'", now);
  m_rStore.run("UPDATE snapshots SET status=next, next=NULL, since=due, due=NULL WHERE due<=?",
               now);
  m_rStore.run("UPDATE ldevs SET ope='NONE', ope_due=NULL, sts='NML' WHERE ope_due<=?", now);
  auto next = m_rStore.scalar(
      "SELECT min(d) FROM (SELECT min(due) AS d FROM pairs UNION ALL SELECT min(due) FROM "
      "snapshots UNION ALL SELECT min(ope_due) FROM ldevs UNION ALL SELECT min(pending_until) "
      "FROM cmdstatus WHERE pending_until>?)",
      now);
  if (next) {
    m_rStore.setMeta("next_due", std::to_string(*next));
  } else {
    m_rStore.run("DELETE FROM meta WHERE key='next_due'");
  }
}

void Invocation::takeInstanceOption() {
  bool found = false;
  for (auto it = m_oArgs.begin(); it != m_oArgs.end();) {
    const std::string& word = *it;
    if (word.size() < 2 || word.compare(0, 2, "-I") != 0) {
      ++it;
      continue;
    }
    std::string rest = word.substr(2);
    InstanceMode mode = InstanceMode::Any;
    if (rest.compare(0, 2, "SI") == 0) {
      mode = InstanceMode::Mrcf;
      rest = rest.substr(2);
    } else if (rest.compare(0, 2, "TC") == 0) {
      mode = InstanceMode::Horc;
      rest = rest.substr(2);
    } else if (!rest.empty() && rest[0] == 'M') {
      mode = InstanceMode::Mrcf;
      rest = rest.substr(1);
    } else if (!rest.empty() && rest[0] == 'H') {
      mode = InstanceMode::Horc;
      rest = rest.substr(1);
    }
    if (!rest.empty() && !isDigits(rest)) {
      ++it;
      continue;
    }
    m_eMode = mode;
    if (!rest.empty()) m_sInstance = rest;
    found = true;
    it = m_oArgs.erase(it);
  }
  if (m_sInstance.empty()) {
    const char* env = std::getenv("HORCMINST");
    if (env && isDigits(env)) m_sInstance = env;
  }
  if (!found && std::getenv("HORCC_MRCF")) m_eMode = InstanceMode::Mrcf;
}

void Invocation::requireRunningInstance() {
  if (!m_rStore.exists("SELECT 1 FROM instances WHERE num=?", m_sInstance)) fail(EX_ATTHOR);
}

std::vector<std::string> Invocation::instanceUnits() {
  std::vector<std::string> units;
  Stmt st = m_rStore.query("SELECT serial FROM inst_units WHERE num=? ORDER BY ord", m_sInstance);
  while (st.step()) units.push_back(st.s(0));
  return units;
}

std::string Invocation::hostName() {
  if (const char* name = std::getenv("CCISIM_HOSTNAME")) {
    if (*name) return name;
  }
  char buf[256] = {0};
  if (gethostname(buf, sizeof(buf) - 1) != 0 || !buf[0]) return "localhost";
  return buf;
}

Options::Options(Invocation& inv, const std::vector<std::string>& words, size_t first,
                 std::initializer_list<OptionSpec> optionSpecs)
    : m_rInv(inv) {
  const OptionSpec* current = nullptr;
  std::vector<std::string>* values = nullptr;
  auto close = [&]() {
    if (current && (static_cast<int>(values->size()) < current->minValues)) {
      inv.invalidOption(current->name);
    }
  };
  for (size_t i = first; i < words.size(); ++i) {
    const std::string& word = words[i];
    bool isOption = word.size() > 1 && word[0] == '-' && !std::isdigit((unsigned char)word[1]);
    if (isOption) {
      close();
      current = nullptr;
      for (const OptionSpec& option : optionSpecs) {
        if (word == option.name) current = &option;
      }
      if (!current) inv.unknownOption(word);
      values = &m_oValues[word];
      continue;
    }
    if (!current) {
      m_oPositional.push_back(word);
      continue;
    }
    if (current->maxValues >= 0 && static_cast<int>(values->size()) >= current->maxValues) {
      inv.invalidOption(current->name);
    }
    values->push_back(word);
  }
  close();
}

const std::vector<std::string>& Options::values(const std::string& name) const {
  static const std::vector<std::string> kNone;
  auto it = m_oValues.find(name);
  return it == m_oValues.end() ? kNone : it->second;
}

const std::string& Options::required(const std::string& name) const {
  const std::vector<std::string>& v = values(name);
  if (v.empty()) {
    if (!has(name)) m_rInv.fail(EX_REQARG);
    m_rInv.invalidOption(name);
  }
  return v.front();
}

std::string Options::value(const std::string& name, const std::string& fallback) const {
  const std::vector<std::string>& v = values(name);
  return v.empty() ? fallback : v.front();
}

int64_t Options::number(const std::string& name) const {
  auto n = parseNumber(required(name));
  if (!n) m_rInv.invalidOption(name);
  return *n;
}

std::optional<int64_t> Options::optNumber(const std::string& name) const {
  if (!has(name)) return std::nullopt;
  return number(name);
}

int64_t Options::count(const std::string& name, int64_t max) const {
  int64_t n = optNumber(name).value_or(1);
  if (n < 1 || n > max) m_rInv.invalidOption(name);
  return n;
}

int Options::ldevId(const std::string& name, size_t index) const {
  const std::vector<std::string>& v = values(name);
  if (v.size() <= index) {
    if (!has(name)) m_rInv.fail(EX_REQARG);
    m_rInv.invalidOption(name);
  }
  auto id = parseLdevId(v[index]);
  if (!id) m_rInv.invalidOption(name);
  return *id;
}

}  // namespace ccisim
