// The levels of a log record, numbered as the log's files and the registry number them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace zelta::logging {

// Lower is more severe: a record is written if its level is not above the logger's threshold.
enum class Level : std::int32_t { kCritical = 0, kError = 1, kInfo = 2, kDebug = 3, kTrace = 4 };

// The text for each level in a record line.
inline constexpr std::array<std::string_view, 5> kLevelTags = {"<CRITICAL>", "<ERROR>", "<INFO>",
                                                               "<DEBUG>", "<TRACE>"};

}  // namespace zelta::logging
