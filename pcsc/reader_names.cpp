#include "pcsc/reader_names.h"

#include <charconv>

#include "platform/process/environment.h"
#include "platform/process/module_loader.h"

namespace zelta::pcsc {

namespace {

constexpr char kModuleVariable[] = "ZELTA_MODULE";
constexpr char kModuleFile[] = "libzelta_vsc.so";

// Its address identifies the file that this code came from.
constexpr char kInThisFile = 0;

}  // namespace

std::optional<std::uint32_t> readerIndexOf(const std::string& deviceName) {
  const std::size_t colon = deviceName.rfind(':');
  if (colon == std::string::npos) return 0;
  const char* const begin = deviceName.data() + colon + 1;
  const char* const end = deviceName.data() + deviceName.size();
  std::uint32_t index = 0;
  const auto [parsed, error] = std::from_chars(begin, end, index);
  if (error != std::errc() || parsed != end) return std::nullopt;
  return index;
}

std::wstring interfaceName(std::uint32_t readerIndex) {
  return L"dev" + std::to_wstring(readerIndex);
}

std::string readerName(std::uint32_t readerIndex) { return "dev" + std::to_string(readerIndex); }

std::string modulePath() {
  std::string named = platform::environmentOr(kModuleVariable, "");
  if (!named.empty()) return named;
  const std::string path = platform::pathOfModule(&kInThisFile);
  const std::size_t slash = path.rfind('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + kModuleFile;
}

}  // namespace zelta::pcsc
