// A driver module for tests of the host: I/O controls select each behaviour that the host must cope
// with. Numbers in its input and output are 32 bits in the machine's order.
//
// Environment, read while the module is loaded: $ZELTA_FAKE_DRIVER_TRACE names a file to which one
// line per callback of the bring-up and the tear-down is appended; $ZELTA_FAKE_DRIVER_FAIL names
// one step that fails (the kFail... texts).
#pragma once

#include <cstdint>

namespace zelta::test::fake_driver {

inline constexpr char kTraceVariable[] = "ZELTA_FAKE_DRIVER_TRACE";
inline constexpr char kFailVariable[] = "ZELTA_FAKE_DRIVER_FAIL";

inline constexpr char kFailClass[] = "class";
inline constexpr char kFailClassObject[] = "class-object";
inline constexpr char kFailCreateInstance[] = "create-instance";
inline constexpr char kFailInitialize[] = "initialize";
inline constexpr char kFailDeviceAdd[] = "device-add";
inline constexpr char kFailNoDevice[] = "no-device";
inline constexpr char kFailPrepare[] = "prepare";
inline constexpr char kFailD0Entry[] = "d0-entry";
inline constexpr char kFailNoQueue[] = "no-queue";
inline constexpr char kFailConstraint[] = "constraint";
inline constexpr char kFailUnload[] = "unload";

// The status that a failing callback gives.
inline constexpr std::uint32_t kFailureCode = 0x8007001F;  // ERROR_GEN_FAILURE (31)

enum Control : std::uint32_t {
  kEcho = 1,           // the input as output
  kMemoryShape,        // completes with a byte count made of the kHas... bits
  kFileName,           // in: capacity; out: status, length, then one number per character
  kOverrun,            // completes with 100 bytes more than the output holds
  kWriteAt,            // in: offset; writes one byte there and completes with all of the output
  kReadOutput,         // completes with the sum of the output's bytes before anything is written
  kCopyTooMuch,        // completes with what copying one byte too many into the output gives
  kCopyBeyond,         // the same for an offset beyond the end of the output
  kCompleteKeepCount,  // in: status; sets the byte count to 3 and completes with the status
  kCompleteTwice,      // success, then failure
  kReadFour,           // out: the four bytes at the start of the input, whatever its length
  kGetters,            // completes with the count of getters that gave the wrong object
  kUnimplemented,      // completes with the count of unused operations that did not fail
  kParameters,         // out: code, input and output length as the request tells them
  kContexts,           // out: the statuses of four context calls (see fake_driver.cpp)
  kCounters,           // out: see Counter
  // Controls about waiting:
  kWait,            // waits, cancelable
  kMarkTwice,       // waits, cancelable; marks the request once more, against the rules
  kWaitForEver,     // waits, not cancelable, until OnDeinitialize
  kReleaseWaiting,  // in: status; completes waiting requests; out: completed, refused
  kBlock,           // stays in the dispatch callback until kUnblock or OnD0Exit
  kKeepUnmarked,    // waits, not cancelable yet; one at a time
  kMarkKept,        // that one becomes cancelable
  kCompleteKept,    // that one is completed with success
  kBlocked,         // in: a number; waits until so many are blocked, or for OnD0Exit
  kUnblock,         // releases all that are blocked at that moment
};

inline constexpr std::size_t kHasInput = 1;
inline constexpr std::size_t kHasOutput = 2;

// The numbers that kCounters gives, in this order.
enum Counter : std::size_t {
  kCleanups,             // cleanup callbacks of request contexts
  kCancels,              // cancel callbacks
  kCancelsWhileMarking,  // those that ran before MarkCancelable returned
  kUnmarkedInCancel,     // requests that could be unmarked in their cancel callback
  kMostAtOnce,           // the most dispatch and cancel callbacks at the same time
  kKeptForEver,          // requests that wait for ever
  kCounterCount
};

}  // namespace zelta::test::fake_driver
