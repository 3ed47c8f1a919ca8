// The logging library: log files with levels, categories and session ids. A new file is started
// after a period that follows a registry value. This header is all that a program needs.
//
//   #include "logging/zelta_logging.h"
//
//   using zelta::logging::FileLoggerWindows;
//   FileLoggerWindows log(0, 2, "00000000-0000-0000-0000-000000000000", "C:\\logs\\tool", 0);
//   log.LoggerBase::log(2, 0, "started");
//
// Line format and file names: docs/logging.md. Failures at construction are exceptions
// (`std::invalid_argument` for arguments, `std::runtime_error` for the system's refusals). A file
// that cannot be written is not a failure: lines are lost until it can be.
#pragma once

#include "logging/file_logger.h"               // IWYU pragma: export
#include "logging/file_logger_windows.h"       // IWYU pragma: export
#include "logging/level.h"                     // IWYU pragma: export
#include "logging/line_format.h"               // IWYU pragma: export
#include "logging/logger_base.h"               // IWYU pragma: export
#include "logging/registry_change_notifier.h"  // IWYU pragma: export
#include "logging/text_file.h"                 // IWYU pragma: export
