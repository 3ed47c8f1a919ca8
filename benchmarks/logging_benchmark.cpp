// Measures the cost of a line of the driver's log, of the same bytes if the bare C library writes
// and flushes them in the same run, and of a call below the threshold.
//
//   logging_benchmark [--benchmark_filter=REGEX ...]
//
// Files go to a new folder below $TMPDIR, removed at the end. `items_per_second` is lines (calls)
// per second of all threads together; the time is wall time per line of one thread.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "logging/line_format.h"
#include "logging/zelta_logging.h"
#include "platform/process/ports.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;

constexpr int kThreads = 16;
constexpr char kMessage[] = "[TRSM] transmit of 5 bytes answered with 2 bytes in 12 ms";

// The environment for the process's logger.
class Folder {
 public:
  Folder() {
    std::string name = (fs::temp_directory_path() / "zelta-benchmark-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
    fs::create_directories(path_ / "Vornhalt" / "ZeltaAgent" / "logs");
    setenv("ZELTA_PROGRAM_DATA", path_.c_str(), 1);
    setenv("ZELTA_REGISTRY", (path_ / "registry.reg").c_str(), 1);
  }
  ~Folder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string file(const char* name) const { return (path_ / name).string(); }

 private:
  fs::path path_;
};

std::unique_ptr<Folder> folder;

// The line that the logger would write.
std::string referenceLine() {
  logging::Record record;
  record.thread = logging::currentThreadText();
  record.time = platform::ports().clock->now();
  record.elapsed = 1234567;
  record.sessionLogId = kNullSessionLogId;
  record.level = 2;
  record.message = kMessage;
  return logging::recordLine(record) + '\n';
}

// Ready-made lines; the C library's own lock orders the threads.
void bareStream(benchmark::State& state) {
  static std::FILE* stream = nullptr;
  if (state.thread_index() == 0) stream = std::fopen(folder->file("bare.txt").c_str(), "w");
  const std::string line = referenceLine();
  for (auto _ : state) {
    (void)std::fputs(line.c_str(), stream);
    (void)std::fflush(stream);
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) (void)std::fclose(stream);
}
BENCHMARK(bareStream)->Threads(1)->Threads(kThreads)->UseRealTime();

void formattingOnly(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(referenceLine());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(formattingOnly)->UseRealTime();

void libraryLine(benchmark::State& state) {
  static std::unique_ptr<logging::FileLoggerWindows> logger;
  if (state.thread_index() == 0) {
    logger = std::make_unique<logging::FileLoggerWindows>(0, 2, kNullSessionLogId,
                                                          folder->file("library"), 0);
  }
  const std::string message = kMessage;
  for (auto _ : state) logger->LoggerBase::log(2, 0, message);
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) logger.reset();
}
BENCHMARK(libraryLine)->Threads(1)->Threads(kThreads)->UseRealTime();

void driverLine(benchmark::State& state) {
  for (auto _ : state)
    logInfo("[TRSM] transmit of %u bytes answered with %u bytes in %d ms", 5u, 2u, 12);
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) shutDownLogging();
}
BENCHMARK(driverLine)->Threads(1)->Threads(kThreads)->UseRealTime();

void driverLineBelowThreshold(benchmark::State& state) {
  for (auto _ : state)
    logDebug("[TRSM] transmit of %u bytes answered with %u bytes in %d ms", 5u, 2u, 12);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(driverLineBelowThreshold)->Threads(1)->Threads(kThreads)->UseRealTime();

void byteDumpBelowThreshold(benchmark::State& state) {
  const std::uint8_t bytes[256] = {};
  for (auto _ : state) logByteDump(bytes, sizeof(bytes), 16);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(byteDumpBelowThreshold)->Threads(1)->Threads(kThreads)->UseRealTime();

}  // namespace
}  // namespace zelta

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zelta::folder = std::make_unique<zelta::Folder>();
  benchmark::RunSpecifiedBenchmarks();
  zelta::shutDownLogging();
  zelta::folder.reset();
  benchmark::Shutdown();
  return 0;
}
