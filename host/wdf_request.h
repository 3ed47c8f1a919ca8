// One I/O control as a framework request: parameters, memory, completion, cancellation.
//
// Lifetime: the dispatching thread holds a reference until it releases the result; if the request
// is not completed when its dispatch callback returns, the engine holds another until it is. The
// object and the driver's context are destroyed with the last reference.
// Memory: a buffer of length 0 has no memory object, as on the operating system's own host; the
// getters then yield null. Input and output are separate buffers in one piece of storage that is
// not initialised (see wdf_memory.h). Nothing is allocated after the request has been made.
// Cancellation: a cancelled request is passed to the callback that it is or becomes marked with,
// exactly once, on the cancelling or the marking thread. Of the host's locks only the turn of its
// callbacks is held then (see io_engine.h).
// Threads: any.
#pragma once

#include <chrono>
#include <memory>

#include "host/io_operation.h"
#include "host/wdf_file.h"
#include "host/wdf_memory.h"
#include "host/wdf_queue.h"

namespace zelta::host {

class IoEngine;

// The caller's parameters.
struct IoControl {
  std::uint32_t code = 0;
  InputParts input;
  std::size_t outputCapacity = 0;  // bytes
};

class WdfRequest final : public WdfObject<WdfRequest, framework::IWDFIoRequest> {
 public:
  // Throws std::bad_alloc or std::length_error if the buffers cannot be allocated. `operation` is
  // told of the completion; null if a thread waits for the request itself. `engine` lives until the
  // request is completed.
  WdfRequest(SharedDriverErrors errors, IoEngine& engine, framework::ComPtr<WdfQueue> queue,
             framework::ComPtr<WdfFile> file, const IoControl& control,
             std::shared_ptr<Operation> operation);

  // Completes exactly once; later calls are reported and change nothing.
  void ZELTA_STDMETHODCALLTYPE CompleteWithInformation(framework::HRESULT status,
                                                       framework::SIZE_T information) override;
  void ZELTA_STDMETHODCALLTYPE SetInformation(framework::ULONG_PTR information) override;
  void ZELTA_STDMETHODCALLTYPE Complete(framework::HRESULT status) override;

  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetType() override {
    return framework::kRequestTypeDeviceIoControl;
  }
  // Each out argument may be null.
  void ZELTA_STDMETHODCALLTYPE GetDeviceIoControlParameters(framework::ULONG* code,
                                                            framework::SIZE_T* inLength,
                                                            framework::SIZE_T* outLength) override;
  void ZELTA_STDMETHODCALLTYPE GetOutputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetInputMemory(framework::IWDFMemory** memory) override;
  void ZELTA_STDMETHODCALLTYPE GetFileObject(framework::IWDFFile** file) override;
  void ZELTA_STDMETHODCALLTYPE GetIoQueue(framework::IWDFIoQueue** queue) override;

  // Calls the callback before it returns if the request is cancelled already.
  void ZELTA_STDMETHODCALLTYPE MarkCancelable(framework::IRequestCallbackCancel* callback) override;
  // ERROR_CANCELLED (1223) once the request was handed to its callback; ERROR_NOT_FOUND (1168)
  // if it is not marked.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE UnmarkCancelable() override;

  void ZELTA_STDMETHODCALLTYPE SetCompletionCallback(framework::IUnknown* callback,
                                                     void* context) override;
  void ZELTA_STDMETHODCALLTYPE GetCreateParameters(framework::ULONG* options,
                                                   std::uint16_t* fileAttributes,
                                                   std::uint16_t* shareAccess) override;
  void ZELTA_STDMETHODCALLTYPE GetReadParameters(framework::SIZE_T* length, std::int64_t* offset,
                                                 framework::ULONG* key) override;
  void ZELTA_STDMETHODCALLTYPE GetWriteParameters(framework::SIZE_T* length, std::int64_t* offset,
                                                  framework::ULONG* key) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE CancelSentRequest() override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ForwardToIoQueue(framework::IWDFIoQueue*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE Send(void* target, framework::ULONG flags,
                                                  std::int64_t timeout) override;
  void ZELTA_STDMETHODCALLTYPE FormatUsingCurrentType() override;
  framework::ULONG ZELTA_STDMETHODCALLTYPE GetRequestorProcessId() override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE Impersonate(framework::EnumValue level,
                                                         framework::IUnknown* callback,
                                                         void* context) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE IsFrom32BitProcess() override;
  void ZELTA_STDMETHODCALLTYPE GetCompletionParams(void** parameters) override;

  // For the host. Passes the request to the queue's callback and waits for its return.
  void dispatch();
  // Call after `dispatch`: the engine keeps the request until it is completed. False if it is
  // already.
  bool keepUntilCompleted() ZELTA_EXCLUDES(mutex_);
  // Waits for the completion; false when the time ran out.
  bool await(std::chrono::milliseconds limit) ZELTA_EXCLUDES(mutex_);
  // Passes the request to its cancel callback, now or when it is marked.
  void cancel() ZELTA_EXCLUDES(mutex_);
  // Completes the request in the driver's place, without output; harmless when it is completed.
  void completeByHost(framework::HRESULT status);
  // For a completed request: its status and its valid output.
  framework::HRESULT status() ZELTA_EXCLUDES(mutex_);
  std::size_t information() ZELTA_EXCLUDES(mutex_);
  ConstBytes output() ZELTA_EXCLUDES(mutex_);
  const Operation* operation() const { return operation_.get(); }

 private:
  friend class WdfObject<WdfRequest, framework::IWDFIoRequest>;
  enum class Marking { kMarked, kCancelledBefore, kAgainstTheRules };

  friend class IoEngine;

  void disposeChildren();
  Marking mark(framework::IRequestCallbackCancel* callback) ZELTA_EXCLUDES(mutex_);
  // False if the request was completed before.
  bool finish(framework::HRESULT status, std::size_t information, bool withOutput)
      ZELTA_EXCLUDES(mutex_);

  IoEngine& engine_;
  const framework::ComPtr<WdfQueue> queue_;
  const framework::ComPtr<WdfFile> file_;
  const std::shared_ptr<Operation> operation_;
  const std::uint32_t code_;
  std::unique_ptr<std::uint8_t[]> storage_;  // of both memories
  WdfMemory input_;
  WdfMemory output_;
  WdfRequest* nextKept_ = nullptr;  // for the engine, guarded by its mutex

  platform::Mutex mutex_;
  platform::ConditionVariable ended_;
  bool completed_ ZELTA_GUARDED_BY(mutex_) = false;
  framework::HRESULT status_ ZELTA_GUARDED_BY(mutex_) = framework::kOk;
  std::size_t valid_ ZELTA_GUARDED_BY(mutex_) = 0;  // bytes of the output at completion
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
  bool handedToCallback_ ZELTA_GUARDED_BY(mutex_) = false;
  std::size_t information_ ZELTA_GUARDED_BY(mutex_) = 0;
  framework::ComPtr<framework::IRequestCallbackCancel> cancelCallback_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::host
