#include "host/io_engine.h"

#include <utility>

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;
using platform::MutexLock;

namespace {

// Completes an operation that never became a request.
void refuse(Operation& operation, HRESULT status) {
  operation.markDispatched();
  IoResult result;
  result.status = status;
  operation.finish(std::move(result));
}

void dropUnbegun(WdfRequest& request, HRESULT status) {
  request.operation()->markDispatched();
  request.completeByHost(status);
}

void dispatchOnThread(ComPtr<WdfRequest> request) {
  const std::shared_ptr<Operation> operation = request->operation();
  request->dispatch();
  request.reset();
  operation->markDispatched();
}

}  // namespace

IoEngine::IoEngine(SharedDriverErrors errors, ComPtr<WdfQueue> queue, std::size_t maximumThreads)
    : errors_(std::move(errors)),
      queue_(std::move(queue)),
      served_(queue_ && queue_->deviceIoControl() != nullptr),
      threads_(maximumThreads, dispatchOnThread) {}

std::shared_ptr<IoOperation> IoEngine::submit(const ComPtr<WdfFile>& file, const IoControl& control,
                                              File::Completion completion) {
  auto operation = std::make_shared<Operation>(weak_from_this(), std::move(completion));
  begin(operation, file, control);
  return operation;
}

void IoEngine::begin(const std::shared_ptr<Operation>& operation, const ComPtr<WdfFile>& file,
                     const IoControl& control) {
  ComPtr<WdfRequest> request;
  bool taken = false;
  try {
    request = makeObject<WdfRequest>(errors_, shared_from_this(), operation, queue_, file, control);
    taken = addToFlight(request);
  } catch (const std::exception&) {  // the buffers' sizes are the caller's
    return refuse(*operation, kOutOfMemory);
  }
  if (!taken) return refuse(*operation, kDeviceGone);
  if (!served_) return dropUnbegun(*request.get(), kInvalidFunction);
  // An accepted request is not referenced here any more: its last reference may run the driver's
  // cleanup, which must not happen on a thread that nobody waits for.
  switch (threads_.post(request)) {
    case DispatchThreads::PostResult::kAccepted:
      break;
    case DispatchThreads::PostResult::kStopped:
      dropUnbegun(*request.get(), kDeviceGone);
      break;
    case DispatchThreads::PostResult::kNoMemory:
      dropUnbegun(*request.get(), kOutOfMemory);
      break;
  }
}

bool IoEngine::addToFlight(const ComPtr<WdfRequest>& request) {
  MutexLock lock(mutex_);
  if (taking_) inFlight_.emplace(request->operation().get(), request);
  return taking_;
}

ComPtr<WdfRequest> IoEngine::retire(const WdfRequest& request) {
  MutexLock lock(mutex_);
  const auto entry = inFlight_.find(request.operation().get());
  if (entry == inFlight_.end()) return nullptr;
  ComPtr<WdfRequest> reference = std::move(entry->second);
  inFlight_.erase(entry);
  return reference;
}

ComPtr<WdfRequest> IoEngine::find(const Operation& operation) {
  MutexLock lock(mutex_);
  const auto entry = inFlight_.find(&operation);
  return entry == inFlight_.end() ? nullptr : entry->second;
}

void IoEngine::cancel(const Operation& operation) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) return;
  // The reference goes before the pass does: it may be the last, and run the driver's cleanup.
  const ComPtr<WdfRequest> request = find(operation);
  if (request) request->cancel();
}

void IoEngine::stop() noexcept {
  {
    MutexLock lock(mutex_);
    taking_ = false;
  }
  for (const ComPtr<WdfRequest>& request : threads_.close()) {
    dropUnbegun(*request.get(), kDeviceGone);
  }
  threads_.join();
  gate_.close();
}

void IoEngine::abandon() noexcept {
  while (const ComPtr<WdfRequest> request = takeAny()) request->completeByHost(kDeviceGone);
}

ComPtr<WdfRequest> IoEngine::takeAny() {
  MutexLock lock(mutex_);
  const auto entry = inFlight_.begin();
  if (entry == inFlight_.end()) return nullptr;
  ComPtr<WdfRequest> request = std::move(entry->second);
  inFlight_.erase(entry);
  return request;
}

}  // namespace zelta::host
