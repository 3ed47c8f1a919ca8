// Asks a reader's agent about its card.
//
// Any thread.
#pragma once

#include <chrono>
#include <cstdint>

namespace zelta::pcsc {

// Whether an agent runs for the reader and has a card in, as it says at its control socket. False
// at once if no agent listens there, and at the deadline if one does not answer. Throws
// std::bad_alloc.
bool agentHasCard(std::uint32_t readerIndex, std::chrono::steady_clock::time_point deadline);

}  // namespace zelta::pcsc
