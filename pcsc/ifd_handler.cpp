// The functions that pcscd calls. Each checks its arguments, works on the channel of its number
// and lets no exception out.
#include <algorithm>
#include <cstring>
#include <exception>
#include <new>

#include "contract/bytes.h"
#include "pcsc/agent_status.h"
#include "pcsc/capabilities.h"
#include "pcsc/channel_table.h"
#include "pcsc/features.h"
#include "pcsc/ifd_api.h"
#include "pcsc/reader_names.h"
#include "platform/process/never_destroyed.h"

namespace {

using zelta::Bytes;
using zelta::pcsc::Channel;
using zelta::pcsc::ChannelTable;
using zelta::pcsc::LogLevel;
using zelta::pcsc::Reply;

// The process's table. Never destroyed: pcscd may exit while its threads are still in here.
ChannelTable& table() {
  static zelta::platform::NeverDestroyed<ChannelTable> made(zelta::pcsc::Surroundings{
      [](const std::string& path, zelta::host::HostOptions options) {
        return zelta::host::DriverHost::load(path, std::move(options));
      },
      zelta::pcsc::modulePath, zelta::pcsc::logToDaemon, zelta::pcsc::agentHasCard});
  return made.get();
}

void logFailure(const char* text) noexcept {
  try {
    zelta::pcsc::logToDaemon(LogLevel::kError, text);
  } catch (const std::bad_alloc&) {  // no memory to report it
  }
}

template <typename Work>
RESPONSECODE guarded(Work work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return IFD_COMMUNICATION_ERROR;
  } catch (const std::exception& failure) {
    logFailure(failure.what());
    return IFD_COMMUNICATION_ERROR;
  }
}

template <typename Work>
RESPONSECODE onChannel(DWORD lun, Work work) noexcept {
  return guarded([lun, &work]() -> RESPONSECODE {
    const ChannelTable::Use use(table(), lun);
    if (use.channel() == nullptr) return IFD_NO_SUCH_DEVICE;
    return work(*use.channel());
  });
}

// `*length` is the buffer's size, then the number of bytes in it.
RESPONSECODE copyOut(const Bytes& bytes, PUCHAR buffer, PDWORD length) {
  if (bytes.size() > *length) return IFD_ERROR_INSUFFICIENT_BUFFER;
  std::copy(bytes.begin(), bytes.end(), buffer);
  *length = bytes.size();
  return IFD_SUCCESS;
}

RESPONSECODE awaitChange(DWORD lun, int milliseconds) {
  onChannel(lun, [milliseconds](Channel& channel) -> RESPONSECODE {
    channel.awaitChange(std::chrono::milliseconds(milliseconds));
    return IFD_SUCCESS;
  });
  return IFD_SUCCESS;  // after any other result pcscd sleeps before it checks the card
}

RESPONSECODE stopAwaiting(DWORD lun) {
  return onChannel(lun, [](Channel& channel) -> RESPONSECODE {
    channel.stopAwaiting();
    return IFD_SUCCESS;
  });
}

}  // namespace

extern "C" {

RESPONSECODE IFDHCreateChannelByName(DWORD lun, LPSTR deviceName) {
  if (deviceName == nullptr) return IFD_COMMUNICATION_ERROR;
  return guarded([&]() -> RESPONSECODE {
    const auto index = zelta::pcsc::readerIndexOf(deviceName);
    if (index) return table().open(lun, *index);
    zelta::pcsc::logToDaemon(LogLevel::kError, std::string("DEVICENAME '") + deviceName +
                                                   "' has no reader index after its colon");
    return IFD_NO_SUCH_DEVICE;
  });
}

RESPONSECODE IFDHCreateChannel(DWORD lun, DWORD number) {
  if (number > UINT32_MAX) return IFD_NO_SUCH_DEVICE;
  return guarded([&] { return table().open(lun, static_cast<std::uint32_t>(number)); });
}

RESPONSECODE IFDHCloseChannel(DWORD lun) {
  return guarded([&] { return table().close(lun); });
}

RESPONSECODE IFDHGetCapabilities(DWORD lun, DWORD tag, PDWORD length, PUCHAR value) {
  if (length == nullptr || value == nullptr) return IFD_COMMUNICATION_ERROR;
  return onChannel(lun, [&](Channel& channel) -> RESPONSECODE {
    const Reply reply = zelta::pcsc::capability(channel, tag, {awaitChange, stopAwaiting});
    return reply.code == IFD_SUCCESS ? copyOut(reply.bytes, value, length) : reply.code;
  });
}

RESPONSECODE IFDHSetCapabilities(DWORD lun, DWORD tag, DWORD length, PUCHAR value) {
  if (value == nullptr && length != 0) return IFD_COMMUNICATION_ERROR;
  if (length > MAX_BUFFER_SIZE) return IFD_ERROR_SET_FAILURE;
  return onChannel(lun, [&](Channel& channel) -> RESPONSECODE {
    return channel.setAttribute(tag, length == 0 ? Bytes() : Bytes(value, value + length));
  });
}

// Nothing to negotiate: the card is not here but at the agent.
RESPONSECODE IFDHSetProtocolParameters(DWORD lun, DWORD protocol, UCHAR, UCHAR, UCHAR, UCHAR) {
  return onChannel(lun, [&](Channel& channel) { return channel.setProtocol(protocol); });
}

RESPONSECODE IFDHPowerICC(DWORD lun, DWORD action, PUCHAR atr, PDWORD atrLength) {
  if (atr == nullptr || atrLength == nullptr) return IFD_COMMUNICATION_ERROR;
  DWORD capacity = std::min<DWORD>(*atrLength, MAX_ATR_SIZE);
  *atrLength = 0;
  return onChannel(lun, [&](Channel& channel) -> RESPONSECODE {
    const Reply reply = channel.power(action);
    if (reply.code != IFD_SUCCESS) return reply.code;
    const RESPONSECODE copied = copyOut(reply.bytes, atr, &capacity);
    if (copied == IFD_SUCCESS) *atrLength = capacity;
    return copied;
  });
}

RESPONSECODE IFDHTransmitToICC(DWORD lun, SCARD_IO_HEADER sendPci, PUCHAR txBuffer, DWORD txLength,
                               PUCHAR rxBuffer, PDWORD rxLength, PSCARD_IO_HEADER recvPci) {
  if (rxLength == nullptr) return IFD_COMMUNICATION_ERROR;
  const DWORD capacity = std::min<DWORD>(*rxLength, MAX_BUFFER_SIZE_EXTENDED);
  *rxLength = 0;
  if (rxBuffer == nullptr || (txBuffer == nullptr && txLength != 0)) {
    return IFD_COMMUNICATION_ERROR;
  }
  if (txLength > MAX_BUFFER_SIZE_EXTENDED) return IFD_ERROR_INSUFFICIENT_BUFFER;
  return onChannel(lun, [&](Channel& channel) -> RESPONSECODE {
    const zelta::pcsc::TransmitReply reply =
        channel.transmit({sendPci.Protocol, {txBuffer, txLength}, {rxBuffer, capacity}});
    if (reply.code != IFD_SUCCESS) return reply.code;
    *rxLength = reply.answerSize;
    if (recvPci != nullptr) *recvPci = {sendPci.Protocol, sizeof *recvPci};
    return IFD_SUCCESS;
  });
}

RESPONSECODE IFDHControl(DWORD lun, DWORD code, PUCHAR txBuffer, DWORD txLength, PUCHAR rxBuffer,
                         DWORD rxLength, LPDWORD bytesReturned) {
  if (bytesReturned == nullptr) return IFD_COMMUNICATION_ERROR;
  *bytesReturned = 0;
  if ((rxBuffer == nullptr && rxLength != 0) || (txBuffer == nullptr && txLength != 0)) {
    return IFD_COMMUNICATION_ERROR;
  }
  return onChannel(lun, [&](Channel&) -> RESPONSECODE {
    const zelta::pcsc::ControlReply reply = zelta::pcsc::answerControl(code);
    if (reply.code != IFD_SUCCESS) return reply.code;
    DWORD length = rxLength;
    const RESPONSECODE copied = copyOut(reply.bytes, rxBuffer, &length);
    if (copied == IFD_SUCCESS) *bytesReturned = length;
    return copied;
  });
}

RESPONSECODE IFDHICCPresence(DWORD lun) {
  return onChannel(lun, [](Channel& channel) { return channel.checkPresence(); });
}

}  // extern "C"
