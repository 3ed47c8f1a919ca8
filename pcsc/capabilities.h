// IFDHGetCapabilities: answers pcscd's questions about the handler, and the card's and reader's
// attributes.
//
// | Tag                                    | Answer                                           |
// |----------------------------------------|--------------------------------------------------|
// | TAG_IFD_SIMULTANEOUS_ACCESS            | 16 readers                                       |
// | TAG_IFD_THREAD_SAFE, _SLOT_THREAD_SAFE | 1                                                |
// | TAG_IFD_SLOTS_NUMBER                   | 1                                                |
// | TAG_IFD_POLLING_THREAD_KILLABLE        | 0: cancellation would unwind through the handler |
// | TAG_IFD_POLLING_THREAD_WITH_TIMEOUT    | the polling function's address                   |
// | TAG_IFD_STOP_POLLING_THREAD            | the stop function's address                      |
// | TAG_IFD_ATR                            | as the attribute of the ATR                      |
// | friendly and system name               | IFD_ERROR_TAG: pcscd answers these itself        |
// | any other attribute                    | the driver's answer                              |
#pragma once

#include "pcsc/channel.h"

namespace zelta::pcsc {

struct PollingFunctions {
  RESPONSECODE (*await)(DWORD lun, int milliseconds) = nullptr;
  RESPONSECODE (*stop)(DWORD lun) = nullptr;
};

Reply capability(Channel& channel, DWORD tag, const PollingFunctions& polling);

}  // namespace zelta::pcsc
