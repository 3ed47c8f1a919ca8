#include "agent/trace/card_recorder.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "agent/version.h"
#include "platform/files/file.h"

namespace zelta::agent {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kHeaderSize = 4;
constexpr std::chrono::seconds kWritePeriod{1};

std::string patternOf(const TraceRecord& record) {
  if (record.hidden.command.size == 0) return toHex(record.command.get());
  return toHex(record.command.get().data(), std::min(kHeaderSize, record.command.size())) + " *";
}

// Hidden bytes become zeros.
std::string responseOf(const TraceRecord& record) {
  if (record.response.size() == 0) return "none";
  std::string text = toMaskedHex(record.response.get(), record.hidden.response);
  std::replace(text.begin(), text.end(), '*', '0');
  return text;
}

// A card's certificates and files are its owner's: nobody else may have the file open.
bool writeNewFile(const std::string& path, const std::string& text) {
  std::error_code ignored;
  fs::remove(path, ignored);
  if (platform::makeNewFile(path, platform::Readers::kOwner) != platform::NewFile::kMade) {
    return false;
  }
  std::ofstream output(path, std::ios::binary | std::ios::in | std::ios::out);  // makes no other
  output << text;
  output.close();
  return output.good();
}

}  // namespace

void ScriptText::add(const TraceRecord& record) {
  using Kind = TraceRecord::Kind;
  const bool bringsAtr = record.kind == Kind::kReset || record.kind == Kind::kAtr;
  if (bringsAtr && atr_.empty()) atr_ = record.response.get();
  if (record.kind == Kind::kTransmit) addExchange(record);
}

void ScriptText::addExchange(const TraceRecord& record) {
  const std::string pattern = patternOf(record);
  const auto [place, isNew] = known_.emplace(pattern, commands_.size());
  if (isNew) commands_.push_back({pattern, record.hidden.command.size != 0, false, {}});
  Answers& answers = commands_[place->second];
  answers.masked = answers.masked || record.hidden.response.size != 0;
  answers.responses.push_back(responseOf(record));
}

std::string ScriptText::text() const {
  std::string text = std::string("# Recorded by zelta-agent ") + kVersion +
                     ". Secrets are masked.\natr " + (atr_.empty() ? "none" : toHex(atr_)) + "\n";
  // The first matching line counts, so lines that take any data come last.
  for (const bool open : {false, true}) {
    for (const Answers& answers : commands_) {
      if (answers.open != open) continue;
      text += "command " + answers.pattern + " -> " + answers.responses.front();
      const bool same = std::all_of(
          answers.responses.begin(), answers.responses.end(),
          [&answers](const std::string& other) { return other == answers.responses.front(); });
      for (std::size_t i = 1; !same && i < answers.responses.size(); ++i) {
        text += " then " + answers.responses[i];
      }
      text += answers.masked ? "  # masked\n" : "\n";
    }
  }
  return text;
}

CardRecorder::CardRecorder(std::string file, Log& log) : file_(std::move(file)), log_(log) {
  const platform::MutexLock lock(mutex_);
  const std::string problem = tryWrite();
  if (!problem.empty()) throw std::runtime_error(problem);
  written_ = TraceRecord::Clock::now();
}

CardRecorder::~CardRecorder() {
  const platform::MutexLock lock(mutex_);
  if (changed_) write();
}

void CardRecorder::take(const TraceRecord& record) {
  using Kind = TraceRecord::Kind;
  const platform::MutexLock lock(mutex_);
  script_.add(record);
  changed_ = true;
  const bool pauses = record.kind == Kind::kRemove || record.kind == Kind::kDisconnect;
  if (pauses || TraceRecord::Clock::now() - written_ >= kWritePeriod) write();
}

void CardRecorder::write() {
  const std::string problem = tryWrite();
  if (!problem.empty() && !std::exchange(failed_, true)) log_.error(problem);
  written_ = TraceRecord::Clock::now();
  changed_ = false;
}

std::string CardRecorder::tryWrite() const {
  const std::string unready = file_ + "~";
  if (!writeNewFile(unready, script_.text())) {
    return "the recorded script " + file_ + " cannot be written";
  }
  std::error_code failed;
  fs::rename(unready, file_, failed);
  return failed ? "the recorded script " + file_ + ": " + failed.message() : std::string();
}

}  // namespace zelta::agent
