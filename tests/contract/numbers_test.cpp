// Golden numbers that the system, its smart card service and hosts built elsewhere rely on. Other
// tests use the names. Checked by the compiler.
#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"

namespace zelta {
namespace {

struct Number {
  std::uint32_t named;
  std::uint32_t golden;
};

template <std::size_t kSize>
constexpr bool areGolden(const Number (&rows)[kSize]) {
  for (const Number& row : rows) {
    if (row.named != row.golden) return false;
  }
  return true;
}

constexpr std::uint32_t number(std::int32_t value) { return static_cast<std::uint32_t>(value); }

constexpr Number kControls[] = {{IOCTL_SMARTCARD_POWER, 0x00310004},
                                {IOCTL_SMARTCARD_GET_ATTRIBUTE, 0x00310008},
                                {IOCTL_SMARTCARD_SET_ATTRIBUTE, 0x0031000C},
                                {IOCTL_SMARTCARD_CONFISCATE, 0x00310010},
                                {IOCTL_SMARTCARD_TRANSMIT, 0x00310014},
                                {IOCTL_SMARTCARD_EJECT, 0x00310018},
                                {IOCTL_SMARTCARD_SWALLOW, 0x0031001C},
                                {IOCTL_SMARTCARD_IS_PRESENT, 0x00310028},
                                {IOCTL_SMARTCARD_IS_ABSENT, 0x0031002C},
                                {IOCTL_SMARTCARD_SET_PROTOCOL, 0x00310030},
                                {IOCTL_SMARTCARD_GET_STATE, 0x00310038},
                                {IOCTL_SMARTCARD_GET_LAST_ERROR, 0x0031003C},
                                {IOCTL_SMARTCARD_GET_PERF_CNTR, 0x00310040},
                                {number(SCARD_POWER_DOWN), 0},
                                {number(SCARD_COLD_RESET), 1},
                                {number(SCARD_WARM_RESET), 2},
                                {kTransmitHeaderSize, 8}};
static_assert(areGolden(kControls));

constexpr Number kStates[] = {{SCARD_UNKNOWN, 0},     {SCARD_ABSENT, 1},
                              {SCARD_PRESENT, 2},     {SCARD_SWALLOWED, 3},
                              {SCARD_POWERED, 4},     {SCARD_NEGOTIABLE, 5},
                              {SCARD_SPECIFIC, 6},    {SCARD_PROTOCOL_T0, 1},
                              {SCARD_PROTOCOL_T1, 2}, {SCARD_PROTOCOL_DEFAULT, 0x80000000}};
static_assert(areGolden(kStates));

constexpr Number kStatuses[] = {{number(status::kSuccess), 0},
                                {number(status::kOutOfMemory), 0x8007000E},
                                {number(status::kGenFailure), 0x8007001F},
                                {number(status::kNotSupported), 0x80070032},
                                {number(status::kInvalidArgument), 0x80070057},
                                {number(status::kCancelled), 0x800704C7},
                                {number(status::kUnrecognizedMedia), 0x800706F9},
                                {number(status::kInvalidState), 0x8007139F},
                                {number(status::kNoMedia), 0xC0000178},
                                {number(status::kInvalidDeviceState), 0xC0000184},
                                {number(hresultFromError(0)), 0},
                                {number(hresultFromError(31)), 0x8007001F}};
static_assert(areGolden(kStatuses));

constexpr Number kTags[] = {{SCARD_ATTR_VENDOR_NAME, 0x00010100},
                            {SCARD_ATTR_VENDOR_IFD_TYPE, 0x00010101},
                            {SCARD_ATTR_CHANNEL_ID, 0x00020110},
                            {SCARD_ATTR_PROTOCOL_TYPES, 0x00030120},
                            {SCARD_ATTR_DEFAULT_CLK, 0x00030121},
                            {SCARD_ATTR_MAX_CLK, 0x00030122},
                            {SCARD_ATTR_DEFAULT_DATA_RATE, 0x00030123},
                            {SCARD_ATTR_MAX_DATA_RATE, 0x00030124},
                            {SCARD_ATTR_MAX_IFSD, 0x00030125},
                            {SCARD_ATTR_CHARACTERISTICS, 0x00060150},
                            {RPC_TYPE, 0x0007A009},
                            {PIPE_NAME, 0x0007A00A},
                            {EVENT_PIPE_NAME, 0x0007A00B},
                            {kLastVendorDefinedAttribute, 0x0007A00E},
                            {SERVER_RESULT, 0x0007A010},
                            {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, 0x00080201},
                            {SCARD_ATTR_CURRENT_IFSC, 0x00080207},
                            {SCARD_ATTR_ATR_STRING, 0x00090303},
                            {SCARD_ATTR_DEVICE_UNIT, 0x7FFF0001},
                            {SCARD_ATTR_DEVICE_IN_USE, 0x7FFF0002}};
static_assert(areGolden(kTags));

}  // namespace
}  // namespace zelta
