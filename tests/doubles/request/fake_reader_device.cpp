#include "tests/doubles/request/fake_reader_device.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace zelta::test {

FakeReaderDevice::~FakeReaderDevice() {
  EXPECT_EQ(callback_.references, 0) << "cancel callback not released";
}

platform::CriticalSection& FakeReaderDevice::deviceLock() {
  if (failsLock_) throw std::runtime_error("no lock");
  if (onLock) onLock();
  return lock_;
}

void FakeReaderDevice::noteCompletion(const IoRequest& request) {
  if (onCompletion) onCompletion();
  completed_.add(&request);
}

framework::HRESULT FakeReaderDevice::queryInterface(framework::REFIID iid, void** out) {
  *out = nullptr;
  const framework::HRESULT result = queryResult_;
  if (result != framework::kOk) return result;
  return callback_.QueryInterface(iid, out);
}

bool FakeReaderDevice::lockIsHeld() {
  bool held = true;
  std::thread([&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    if (!lock_.tryEnter()) return;
    held = false;
    lock_.leave();
  }).join();
  return held;
}

framework::HRESULT FakeReaderDevice::Callback::QueryInterface(framework::REFIID wanted,
                                                              void** out) {
  if (wanted != framework::kIidRequestCallbackCancel) return framework::kNoInterface;
  *out = static_cast<framework::IRequestCallbackCancel*>(this);
  AddRef();
  return framework::kOk;
}

framework::ULONG FakeReaderDevice::Callback::AddRef() {
  return static_cast<framework::ULONG>(++references);
}

framework::ULONG FakeReaderDevice::Callback::Release() {
  const int left = --references;
  EXPECT_GE(left, 0) << "cancel callback released too often";
  return static_cast<framework::ULONG>(left);
}

void FakeReaderDevice::Callback::OnCancel(framework::IWDFIoRequest* /*request*/) {
  ADD_FAILURE() << "requests of this device are not the framework's";
}

}  // namespace zelta::test
