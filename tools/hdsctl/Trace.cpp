#include "tools/hdsctl/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>

#include "tools/hdsctl/Output.h"

namespace hdsctl {

namespace {

// "[EX_CMDRJE]" as the tools print it before their error text.
std::string exCode(std::string_view text) {
  size_t at = text.find("[EX_");
  if (at == std::string_view::npos) return "";
  size_t end = text.find(']', at);
  if (end == std::string_view::npos) return "";
  return std::string(text.substr(at + 1, end - at - 1));
}

// The sense pair of a rejected command ("SSB=0x2E10,0x0000"), or of the first row of a command
// status listing that holds one ("00c4  2e31  4016  1  412345  -").
bool ssbPair(std::string_view text, std::string& first, std::string& second) {
  size_t at = text.find("SSB=0x");
  if (at != std::string_view::npos) {
    size_t comma = text.find(",0x", at);
    if (comma == std::string_view::npos) return false;
    first = std::string(text.substr(at + 6, comma - at - 6));
    size_t end = text.find_first_not_of("0123456789abcdefABCDEF", comma + 3);
    second = std::string(text.substr(
        comma + 3, end == std::string_view::npos ? std::string_view::npos : end - comma - 3));
    return !first.empty() && !second.empty();
  }
  size_t header = text.find("SSB1");
  if (header == std::string_view::npos) return false;
  size_t row = text.find('\n', header);
  if (row == std::string_view::npos) return false;
  std::istringstream in(std::string(text.substr(row + 1)));
  std::string handle;
  in >> handle >> first >> second;
  return !first.empty() && first != "-" && !second.empty() && second != "-";
}

std::string isoTime(long long unixMs) {
  time_t seconds = static_cast<time_t>(unixMs / 1000);
  tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[40];
  size_t n = strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
  (void)snprintf(stamp + n, sizeof(stamp) - n, ".%03dZ", static_cast<int>(unixMs % 1000));
  return stamp;
}

}  // namespace

CallTrace::CallTrace() { VtSetProcessObserver(&CallTrace::observe, this); }

CallTrace::~CallTrace() {
  VtSetProcessObserver(nullptr, nullptr);
  if (m_iFd >= 0) ::close(m_iFd);
}

void CallTrace::openFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) throw Failure("cannot open the trace file " + path + ": " + strerror(errno));
  std::lock_guard<std::mutex> guard(m_oMutex);
  if (m_iFd >= 0) ::close(m_iFd);
  m_iFd = fd;
}

CallTotals CallTrace::totals() {
  std::lock_guard<std::mutex> guard(m_oMutex);
  return m_oTotals;
}

std::string CallTrace::line(const VtProcessCall& call) {
  std::string_view out(call.out, call.outSize), err(call.err, call.errSize);
  nlohmann::ordered_json j = {{"start", isoTime(call.startUnixMs)},
                              {"ms", static_cast<long long>(call.durationMs * 1000) / 1000.0},
                              {"command", call.command},
                              {"exit", call.exitCode},
                              {"started", call.started},
                              {"timedOut", call.timedOut},
                              {"outBytes", call.outSize},
                              {"errBytes", call.errSize}};
  std::string ex = exCode(err);
  if (ex.empty()) ex = exCode(out);
  if (!ex.empty()) j["ex"] = ex;
  std::string ssb1, ssb2;
  if (ssbPair(err, ssb1, ssb2) || ssbPair(out, ssb1, ssb2)) j["ssb"] = {ssb1, ssb2};
  // A command line may hold bytes that are not UTF-8; they are replaced rather than refused.
  return j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

void CallTrace::observe(void* self, const VtProcessCall& call) {
  auto* trace = static_cast<CallTrace*>(self);
  {
    std::lock_guard<std::mutex> guard(trace->m_oMutex);
    ++trace->m_oTotals.calls;
    trace->m_oTotals.toolMs += call.durationMs;
    if (trace->m_iFd < 0) return;
  }
  // A trace that cannot be made or written must not fail the job; the log still has every call.
  try {
    std::string text = line(call) + "\n";
    std::lock_guard<std::mutex> guard(trace->m_oMutex);
    if (trace->m_iFd >= 0 && ::write(trace->m_iFd, text.data(), text.size()) < 0) {
      ::close(trace->m_iFd);
      trace->m_iFd = -1;
    }
  } catch (const std::exception&) {
  }
}

}  // namespace hdsctl
