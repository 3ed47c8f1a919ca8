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

namespace {

using zelta::Bytes;
using zelta::pcsc::Channel;
using zelta::pcsc::ChannelTable;
using zelta::pcsc::LogLevel;
using zelta::pcsc::Reply;

// The process's table. Never destroyed: pcscd may exit while its threads are still in here.
ChannelTable& table() {
  alignas(ChannelTable) static unsigned char storage[sizeof(ChannelTable)];
  static ChannelTable* const made = new (storage)
      ChannelTable({[](const std::string& path, zelta::host::HostOptions options) {
                      return zelta::host::DriverHost::load(path, std::move(options));
                    },
                    zelta::pcsc::modulePath, zelta::pcsc::logToDaemon, zelta::pcsc::agentHasCard});
  return *made;
}

void logFailure(const char* text) noexcept {
  try {
    zelta::pcsc::logToDaemon(LogLevel::kError, text);
  } catch (const std::bad_alloc&) {  // no memory to tell of it
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
  return IFD_SUCCESS;  // with anything else pcscd sleeps before it looks at the card
}

RESPONSECODE stopAwaiting(DWORD lun) {
  return onChannel(lun, [](Channel& channel) -> RESPONSECODE {
    channel.stopAwaiting();
    return IFD_SUCCESS;
  });
}

}  // namespace

extern "C" {

RESPONSECODE IFDHCreateChannelByName(DWORD Lun, LPSTR DeviceName) {
  if (DeviceName == nullptr) return IFD_COMMUNICATION_ERROR;
  return guarded([&]() -> RESPONSECODE {
    const auto index = zelta::pcsc::readerIndexOf(DeviceName);
    if (index) return table().open(Lun, *index);
    zelta::pcsc::logToDaemon(LogLevel::kError, std::string("DEVICENAME '") + DeviceName +
                                                   "' has no reader index after its colon");
    return IFD_NO_SUCH_DEVICE;
  });
}

RESPONSECODE IFDHCreateChannel(DWORD Lun, DWORD Channel) {
  if (Channel > UINT32_MAX) return IFD_NO_SUCH_DEVICE;
  return guarded([&] { return table().open(Lun, static_cast<std::uint32_t>(Channel)); });
}

RESPONSECODE IFDHCloseChannel(DWORD Lun) {
  return guarded([&] { return table().close(Lun); });
}

RESPONSECODE IFDHGetCapabilities(DWORD Lun, DWORD Tag, PDWORD Length, PUCHAR Value) {
  if (Length == nullptr || Value == nullptr) return IFD_COMMUNICATION_ERROR;
  return onChannel(Lun, [&](Channel& channel) -> RESPONSECODE {
    const Reply reply = zelta::pcsc::capability(channel, Tag, {awaitChange, stopAwaiting});
    return reply.code == IFD_SUCCESS ? copyOut(reply.bytes, Value, Length) : reply.code;
  });
}

RESPONSECODE IFDHSetCapabilities(DWORD Lun, DWORD Tag, DWORD Length, PUCHAR Value) {
  if (Value == nullptr && Length != 0) return IFD_COMMUNICATION_ERROR;
  if (Length > MAX_BUFFER_SIZE) return IFD_ERROR_SET_FAILURE;
  return onChannel(Lun, [&](Channel& channel) -> RESPONSECODE {
    return channel.setAttribute(Tag, Length == 0 ? Bytes() : Bytes(Value, Value + Length));
  });
}

// No negotiation of its own: the card is far away.
RESPONSECODE IFDHSetProtocolParameters(DWORD Lun, DWORD Protocol, UCHAR, UCHAR, UCHAR, UCHAR) {
  return onChannel(Lun, [&](Channel& channel) { return channel.setProtocol(Protocol); });
}

RESPONSECODE IFDHPowerICC(DWORD Lun, DWORD Action, PUCHAR Atr, PDWORD AtrLength) {
  if (Atr == nullptr || AtrLength == nullptr) return IFD_COMMUNICATION_ERROR;
  DWORD capacity = std::min<DWORD>(*AtrLength, MAX_ATR_SIZE);
  *AtrLength = 0;
  return onChannel(Lun, [&](Channel& channel) -> RESPONSECODE {
    const Reply reply = channel.power(Action);
    if (reply.code != IFD_SUCCESS) return reply.code;
    const RESPONSECODE copied = copyOut(reply.bytes, Atr, &capacity);
    if (copied == IFD_SUCCESS) *AtrLength = capacity;
    return copied;
  });
}

RESPONSECODE IFDHTransmitToICC(DWORD Lun, SCARD_IO_HEADER SendPci, PUCHAR TxBuffer, DWORD TxLength,
                               PUCHAR RxBuffer, PDWORD RxLength, PSCARD_IO_HEADER RecvPci) {
  if (RxLength == nullptr) return IFD_COMMUNICATION_ERROR;
  const DWORD capacity = std::min<DWORD>(*RxLength, MAX_BUFFER_SIZE_EXTENDED);
  *RxLength = 0;
  if (RxBuffer == nullptr || (TxBuffer == nullptr && TxLength != 0)) {
    return IFD_COMMUNICATION_ERROR;
  }
  if (TxLength > MAX_BUFFER_SIZE_EXTENDED) return IFD_ERROR_INSUFFICIENT_BUFFER;
  return onChannel(Lun, [&](Channel& channel) -> RESPONSECODE {
    const zelta::pcsc::TransmitReply reply =
        channel.transmit({SendPci.Protocol, {TxBuffer, TxLength}, {RxBuffer, capacity}});
    if (reply.code != IFD_SUCCESS) return reply.code;
    *RxLength = reply.answerSize;
    if (RecvPci != nullptr) *RecvPci = {SendPci.Protocol, sizeof *RecvPci};
    return IFD_SUCCESS;
  });
}

RESPONSECODE IFDHControl(DWORD Lun, DWORD dwControlCode, PUCHAR TxBuffer, DWORD TxLength,
                         PUCHAR RxBuffer, DWORD RxLength, LPDWORD pdwBytesReturned) {
  if (pdwBytesReturned == nullptr) return IFD_COMMUNICATION_ERROR;
  *pdwBytesReturned = 0;
  if ((RxBuffer == nullptr && RxLength != 0) || (TxBuffer == nullptr && TxLength != 0)) {
    return IFD_COMMUNICATION_ERROR;
  }
  return onChannel(Lun, [&](Channel&) -> RESPONSECODE {
    const zelta::pcsc::ControlReply reply = zelta::pcsc::answerControl(dwControlCode);
    if (reply.code != IFD_SUCCESS) return reply.code;
    DWORD length = RxLength;
    const RESPONSECODE copied = copyOut(reply.bytes, RxBuffer, &length);
    if (copied == IFD_SUCCESS) *pdwBytesReturned = length;
    return copied;
  });
}

RESPONSECODE IFDHICCPresence(DWORD Lun) {
  return onChannel(Lun, [](Channel& channel) { return channel.presence(); });
}

}  // extern "C"
