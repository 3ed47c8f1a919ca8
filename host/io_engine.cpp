#include "host/io_engine.h"

#include <utility>

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;
using platform::MutexLock;

IoEngine::IoEngine(SharedDriverErrors errors, ComPtr<WdfQueue> queue, Callbacks callbacks)
    : errors_(std::move(errors)),
      queue_(std::move(queue)),
      served_(queue_ && queue_->deviceIoControl() != nullptr),
      callbacks_(callbacks) {}

std::shared_ptr<IoOperation> IoEngine::submit(const ComPtr<WdfFile>& file, const IoControl& control,
                                              File::Completion completion) {
  auto operation = std::make_shared<Operation>(weak_from_this(), std::move(completion));
  const CallbackGate::Pass pass(gate_);
  if (!pass) {
    operation->finish(kDeviceGone);
    return operation;
  }
  const ComPtr<WdfRequest> request = make(file, control, operation);
  if (!request) {
    operation->finish(kOutOfMemory);
  } else {
    (void)dispatch(*request.get());
  }
  return operation;
}

ComPtr<WdfRequest> IoEngine::make(const ComPtr<WdfFile>& file, const IoControl& control,
                                  std::shared_ptr<Operation> operation) noexcept {
  try {
    return makeObject<WdfRequest>(errors_, *this, queue_, file, control, std::move(operation));
  } catch (const std::exception&) {  // the buffers' sizes are the caller's
    return nullptr;
  }
}

bool IoEngine::dispatch(WdfRequest& request) {
  if (served_) {
    request.dispatch();
  } else {
    request.completeByHost(kInvalidFunction);
  }
  return !request.keepUntilCompleted();
}

void IoEngine::cancel(const Operation& operation) {
  const CallbackGate::Pass pass(gate_);
  if (!pass) return;
  // Released before the pass: the last release may run the driver's cleanup.
  const ComPtr<WdfRequest> request = findKept(&operation);
  if (request) request->cancel();
}

void IoEngine::close() noexcept { gate_.close(); }

void IoEngine::awaitCallbacks() noexcept { gate_.awaitEmpty(); }

void IoEngine::abandon() noexcept {
  while (const ComPtr<WdfRequest> request = findKept(nullptr)) {
    request->completeByHost(kDeviceGone);
  }
  waiting_.close();
  waiting_.awaitEmpty();
}

void IoEngine::keep(WdfRequest& request) {
  const MutexLock lock(mutex_);
  request.AddRef();
  request.nextKept_ = kept_;
  kept_ = &request;
}

ComPtr<WdfRequest> IoEngine::release(WdfRequest& request) {
  const MutexLock lock(mutex_);
  for (WdfRequest** each = &kept_; *each != nullptr; each = &(*each)->nextKept_) {
    if (*each != &request) continue;
    *each = request.nextKept_;
    return ComPtr<WdfRequest>::adopt(&request);
  }
  return nullptr;
}

ComPtr<WdfRequest> IoEngine::findKept(const Operation* operation) {
  const MutexLock lock(mutex_);
  WdfRequest* found = kept_;
  while (found != nullptr && operation != nullptr && found->operation() != operation) {
    found = found->nextKept_;
  }
  return ComPtr<WdfRequest>(found);
}

BlockingControl::BlockingControl(IoEngine& engine, const ComPtr<WdfFile>& file,
                                 const IoControl& control, std::chrono::milliseconds limit)
    : inside_(engine.gate_) {
  completion_.status = kDeviceGone;
  if (!inside_) return;
  request_ = engine.make(file, control, nullptr);
  if (!request_) {
    completion_.status = kOutOfMemory;
    return;
  }
  if (!engine.dispatch(*request_.get()) && !awaitCompletion(engine, limit)) {
    completion_.status = kTimedOut;
    return;
  }
  completion_ = {request_->status(), request_->information()};
  output_ = request_->output();
}

bool BlockingControl::awaitCompletion(IoEngine& engine, std::chrono::milliseconds limit) {
  waiting_.enter(engine.waiting_);
  inside_.leave();
  if (request_->await(limit)) return true;
  const CallbackGate::Pass pass(engine.gate_);
  if (pass) request_->cancel();
  return false;
}

}  // namespace zelta::host
