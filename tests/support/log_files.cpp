#include "tests/support/log_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string_view>

#include "platform/process/never_destroyed.h"

namespace zelta::test {

namespace fs = std::filesystem;

std::string fileContent(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

std::vector<std::string> fileLines(const fs::path& path) {
  const std::string content = fileContent(path);
  std::vector<std::string> lines;
  std::size_t begin = 0;
  while (begin < content.size()) {
    const std::size_t end = content.find(kLineEnd, begin);
    if (end == std::string::npos) {
      ADD_FAILURE() << path << " ends in half a line: " << content.substr(begin);
      break;
    }
    lines.push_back(content.substr(begin, end - begin));
    begin = end + std::string_view(kLineEnd).size();
  }
  return lines;
}

std::vector<fs::path> filesIn(const fs::path& folder) {
  std::vector<fs::path> files;
  if (!fs::exists(folder)) return files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

LogLine parseLogLine(const std::string& line) {
  static platform::NeverDestroyed<const std::regex> pattern(
      R"(\[(\d+) *\] (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) (-?\d+) +(\S+) +(\d+) +)"
      R"((<[A-Z]+>) +(-?\d+) +([^]*))");
  std::smatch match;
  LogLine result;
  if (!std::regex_match(line, match, pattern.get())) {
    ADD_FAILURE() << "not a record: " << line;
    return result;
  }
  result.thread = match[1];
  result.time = match[2];
  result.elapsed = std::stoll(match[3]);
  result.sessionLogId = match[4];
  result.category = static_cast<std::uint32_t>(std::stoul(match[5]));
  result.level = match[6];
  result.resultCode = std::stoi(match[7]);
  result.message = match[8];
  return result;
}

std::vector<LogLine> recordsOf(const fs::path& path) {
  const std::vector<std::string> lines = fileLines(path);
  std::vector<LogLine> records;
  if (lines.empty() || lines.front() != kHeaderText) {
    ADD_FAILURE() << path << " does not begin with the header";
    return records;
  }
  for (std::size_t i = 1; i < lines.size(); ++i) records.push_back(parseLogLine(lines[i]));
  return records;
}

std::vector<LogLine> recordsIn(const fs::path& folder) {
  std::vector<LogLine> records;
  for (const fs::path& file : filesIn(folder)) {
    const std::vector<LogLine> more = recordsOf(file);
    records.insert(records.end(), more.begin(), more.end());
  }
  return records;
}

std::vector<std::string> messagesOf(const std::vector<LogLine>& lines) {
  std::vector<std::string> messages;
  for (const LogLine& line : lines) messages.push_back(line.message);
  return messages;
}

void expectNumberedMessages(const std::vector<std::string>& messages, std::size_t labels,
                            int count) {
  std::map<std::string, int> next;
  for (const std::string& message : messages) {
    const std::size_t slash = message.find('/');
    ASSERT_NE(slash, std::string::npos) << message;
    ASSERT_EQ(message.substr(slash + 1), std::to_string(next[message.substr(0, slash)]++))
        << message;
  }
  EXPECT_EQ(next.size(), labels);
  for (const auto& [label, seen] : next) EXPECT_EQ(seen, count) << label;
}

std::vector<std::string> summaries(const std::vector<LogLine>& lines) {
  std::vector<std::string> texts;
  for (const LogLine& line : lines) {
    texts.push_back(line.level + " " + std::to_string(line.resultCode) + " " + line.message);
  }
  return texts;
}

}  // namespace zelta::test
