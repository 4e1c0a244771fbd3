// Parsing the "-ldev_list defined" listing of a full array (65,280 LDEVs) against a plain Python
// parse of the same text, with the heap used by the parse.
//
// Counters: text_MB (size of the listing), cxx_ms (best parse here), python_ms (best Python parse
// of the same file, run from this program; both in processor time), speedup (python_ms / cxx_ms),
// peak_MB (most heap in use during a parse, the listing itself included), records_MB (heap still
// held by the parsed records), peak_limit_MB (3 * text_MB + records_MB) and within_limit (1 when
// peak_MB stays in it).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

// ---- Heap accounting: every allocation carries its size in a header.

namespace {

std::atomic<long long> g_iHeapInUse{0};
std::atomic<long long> g_iHeapPeak{0};
constexpr size_t kHeader = alignof(std::max_align_t);

void* countedAlloc(size_t size) {
  void* block = std::malloc(size + kHeader);
  if (block == nullptr) return nullptr;
  *static_cast<size_t*>(block) = size;
  const long long inUse = g_iHeapInUse.fetch_add(static_cast<long long>(size)) + size;
  long long peak = g_iHeapPeak.load();
  while (inUse > peak && !g_iHeapPeak.compare_exchange_weak(peak, inUse)) {
  }
  return static_cast<char*>(block) + kHeader;
}

void countedFree(void* p) {
  if (p == nullptr) return;
  void* block = static_cast<char*>(p) - kHeader;
  g_iHeapInUse.fetch_sub(static_cast<long long>(*static_cast<size_t*>(block)));
  std::free(block);
}

}  // namespace

void* operator new(size_t size) {
  void* p = countedAlloc(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, size_t) noexcept { countedFree(p); }
void operator delete[](void* p, size_t) noexcept { countedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p); }

namespace {

constexpr int kLdevCount = 65280;

// One record in the layout of a current array: every key it prints, a virtual id on some, paths
// on every third, blank line after each.
std::string generateListing() {
  std::string text;
  text.reserve(static_cast<size_t>(kLdevCount) * 720);
  char buffer[1024];
  for (int id = 0; id < kLdevCount; ++id) {
    const bool mapped = id % 3 == 0;
    std::snprintf(buffer, sizeof(buffer),
                  "Serial#  : 412345\n"
                  "LDEV : %d%s\n"
                  "SL : 0\n"
                  "CL : 0\n"
                  "VOL_TYPE : OPEN-V-CVS\n"
                  "VOL_Capacity(BLK) : %d\n"
                  "NUM_PORT : %d\n"
                  "PORTs :%s\n"
                  "F_POOLID : NONE\n"
                  "VOL_ATTR : CVS : HDP%s\n"
                  "CMP : -\n"
                  "EXP_SPACE : -\n"
                  "B_POOLID : %d\n"
                  "LDEV_NAMING : KS_SVOL_%d\n"
                  "STS : NML\n"
                  "OPE_TYPE : NONE\n"
                  "OPE_RATE : 100\n"
                  "MP# : %d\n"
                  "SSID : %04X\n"
                  "Used_Block(BLK) : 1048576\n"
                  "FLA(MB) : Disable\n"
                  "RSV(MB) : 0\n"
                  "CSV_Status : DISABLED\n"
                  "CSV_PROGRESS(%%) : -\n"
                  "CSV_Mode : DISABLED\n"
                  "COMPRESSION_ACCELERATION : -\n"
                  "COMPRESSION_ACCELERATION_STATUS : -\n"
                  "CSV_PROCESS_MODE : -\n"
                  "DEDUPLICATION_DATA : DISABLED\n"
                  "ALUA : Disable\n"
                  "RSGID : %d\n"
                  "PWSV_S : -\n"
                  "CL_MIG : N\n"
                  "\n",
                  id, id % 4 == 0 ? (" VIR_LDEV : " + std::to_string(id)).c_str() : "",
                  2097152 * (1 + id % 8), mapped ? 2 : 0,
                  mapped ? " CL1-A-3 12 mediahost01 : CL2-A-3 12 mediahost01" : "",
                  id % 5 == 0 ? " : QS" : "", id % 4, id, id % 8, id / 256, id % 4 == 0 ? 3 : 0);
    text += buffer;
  }
  return text;
}

const std::string& listing() {
  static const std::string text = generateListing();
  return text;
}

std::string writeListing() {
  char path[] = "/tmp/ldev_parse_bench_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return std::string();
  const std::string& text = listing();
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  if (!written) {
    unlink(path);
    return std::string();
  }
  return path;
}

// Best of three Python parses of the same text, in milliseconds; negative when it did not run.
double pythonParseMs() {
  const std::string file = writeListing();
  if (file.empty()) return -1;
  std::string source = __FILE__;
  source = source.substr(0, source.rfind('/') + 1) + "ldev_parse_bench.py";
  const std::string command = "python3 '" + source + "' '" + file + "' 3";
  double seconds = -1;
  int records = 0;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    if (std::fscanf(pipe, "%lf %d", &seconds, &records) != 2) seconds = -1;
    pclose(pipe);
  }
  unlink(file.c_str());
  if (records != kLdevCount) return -1;
  return seconds * 1000.0;
}

// Processor time rather than wall time: the machines this runs on are shared, and both sides are
// measured alike.
double cpuMs() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec * 1000.0 + now.tv_nsec / 1e6;
}

void BM_ParseLdevListDefined(benchmark::State& state) {
  const std::string& text = listing();
  const std::map<int, std::string> noFilters;
  double bestMs = 1e30;
  long long peakBytes = 0;
  long long recordBytes = 0;
  size_t parsed = 0;

  for (auto _ : state) {
    const long long before = g_iHeapInUse.load();
    g_iHeapPeak.store(before);
    const double start = cpuMs();
    std::vector<hdsLdev_t> ldevs;
    parseGetLdevOutput(text, ldevs, noFilters);
    bestMs = std::min(bestMs, cpuMs() - start);
    // The heap already in use is the listing (and the program's small change): count it whole.
    peakBytes = std::max(peakBytes, g_iHeapPeak.load());
    recordBytes = g_iHeapInUse.load() - before;
    parsed = ldevs.size();
    benchmark::DoNotOptimize(ldevs.data());
    state.PauseTiming();
    ldevs = std::vector<hdsLdev_t>();
    state.ResumeTiming();
  }
  if (parsed != static_cast<size_t>(kLdevCount)) {
    state.SkipWithError("the parse did not give one record per LDEV");
    return;
  }

  const double megabyte = 1024.0 * 1024.0;
  const double textMB = text.size() / megabyte;
  const double pythonMs = pythonParseMs();
  const double peakMB = peakBytes / megabyte;
  const double recordsMB = recordBytes / megabyte;
  state.counters["text_MB"] = textMB;
  state.counters["cxx_ms"] = bestMs;
  state.counters["python_ms"] = pythonMs;
  state.counters["speedup"] = pythonMs > 0 ? pythonMs / bestMs : 0;
  state.counters["peak_MB"] = peakMB;
  state.counters["records_MB"] = recordsMB;
  state.counters["peak_limit_MB"] = 3 * textMB + recordsMB;
  state.counters["within_limit"] = peakMB <= 3 * textMB + recordsMB ? 1 : 0;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ParseLdevListDefined)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
