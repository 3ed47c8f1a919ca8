#include "agent/platform/pcsc_api.h"

namespace zelta::agent {

ReaderName toReaderName(const std::string& name) { return name; }

std::string pcscText(LONG result) { return pcsc_stringify_error(result); }

}  // namespace zelta::agent
