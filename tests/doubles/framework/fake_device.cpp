#include "tests/doubles/framework/fake_device.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace zelta::test::fake_driver {

using framework::DWORD;
using framework::IWDFMemory;
using platform::MutexLock;

namespace {

ComPtr<IWDFMemory> inputOf(IWDFIoRequest& request) {
  ComPtr<IWDFMemory> memory;
  request.GetInputMemory(memory.put());
  return memory;
}

ComPtr<IWDFMemory> outputOf(IWDFIoRequest& request) {
  ComPtr<IWDFMemory> memory;
  request.GetOutputMemory(memory.put());
  return memory;
}

std::uint32_t inputNumber(IWDFIoRequest& request) {
  std::uint32_t number = 0;
  if (const auto memory = inputOf(request)) memory->CopyToBuffer(0, &number, sizeof number);
  return number;
}

void answer(IWDFIoRequest& request, const void* data, std::size_t size) {
  if (const auto memory = outputOf(request)) memory->CopyFromBuffer(0, data, size);
  request.CompleteWithInformation(framework::kOk, size);
}

void answerNumbers(IWDFIoRequest& request, const std::vector<std::uint32_t>& numbers) {
  answer(request, numbers.data(), numbers.size() * sizeof numbers[0]);
}

// A context that counts its cleanup.
class CountingContext final
    : public framework::ComObject<CountingContext, framework::IObjectCleanup> {
 public:
  explicit CountingContext(std::atomic<std::uint32_t>& cleanups) : cleanups_(cleanups) {}
  void ZELTA_STDMETHODCALLTYPE OnCleanup(framework::IWDFObject* object) override {
    void* context = nullptr;
    // The object and its context are still there.
    object->AddRef();
    if (object->RetrieveContext(&context) == framework::kOk && context == this) ++cleanups_;
    object->Release();
  }

 private:
  Counted counted_;
  std::atomic<std::uint32_t>& cleanups_;
};

ComPtr<CountingContext> makeContext(std::atomic<std::uint32_t>& cleanups) {
  return ComPtr<CountingContext>::adopt(framework::createObject<CountingContext>(cleanups));
}

void answerFileName(IWDFIoRequest& request) {
  DWORD length = inputNumber(request);
  std::vector<wchar_t> name(length + 1, L'#');
  ComPtr<framework::IWDFFile> file;
  request.GetFileObject(file.put());
  const HRESULT result = file->RetrieveFileName(name.data(), &length);
  std::vector<std::uint32_t> numbers = {static_cast<std::uint32_t>(result), length};
  for (const wchar_t character : name) numbers.push_back(static_cast<std::uint32_t>(character));
  answerNumbers(request, numbers);
}

// Without a context; with the first and a second attempt to attach one; with a context.
void answerContexts(IWDFIoRequest& request, std::atomic<std::uint32_t>& cleanups) {
  void* context = nullptr;
  std::vector<std::uint32_t> results;
  const auto note = [&](HRESULT result) { results.push_back(static_cast<std::uint32_t>(result)); };
  note(request.RetrieveContext(&context));
  const auto cleanup = makeContext(cleanups);
  note(request.AssignContext(cleanup.get(), cleanup.get()));
  note(request.AssignContext(cleanup.get(), nullptr));
  note(request.RetrieveContext(&context) == framework::kOk && context == cleanup.get()
           ? framework::kOk
           : kFailure);
  answerNumbers(request, results);
}

template <typename Interface>
bool same(const ComPtr<Interface>& object, framework::IUnknown* expected) {
  ComPtr<framework::IUnknown> one;
  ComPtr<framework::IUnknown> other;
  if (!object || expected == nullptr) return false;
  object->QueryInterface(framework::IUnknown::iid, one.putVoid());
  expected->QueryInterface(framework::IUnknown::iid, other.putVoid());
  return one && one.get() == other.get();
}

std::size_t wrongGetters(framework::IWDFIoQueue& queue, IWDFIoRequest& request) {
  ComPtr<framework::IWDFIoQueue> requestQueue;
  ComPtr<framework::IWDFIoQueue> defaultQueue;
  ComPtr<IWDFDevice> device;
  ComPtr<IWDFDevice> fileDevice;
  ComPtr<framework::IWDFFile> file;
  ComPtr<framework::IWDFDriver> driver;
  ComPtr<framework::IWDFObject> object;
  request.GetIoQueue(requestQueue.put());
  queue.GetDevice(device.put());
  device->GetDefaultIoQueue(defaultQueue.put());
  request.GetFileObject(file.put());
  file->GetDevice(fileDevice.put());
  device->GetDriver(driver.put());
  request.QueryInterface(framework::IWDFObject::iid, object.putVoid());
  ComPtr<framework::IWDFFile> notAFile;
  const HRESULT noInterface = request.QueryInterface(framework::IWDFFile::iid, notAFile.putVoid());
  return std::size_t{!same(requestQueue, &queue)} + !same(defaultQueue, &queue) +
         !same(fileDevice, device.get()) + !driver + !same(object, &request) +
         (noInterface != framework::kNoInterface) +
         (request.GetType() != framework::kRequestTypeDeviceIoControl);
}

std::size_t unexpectedSuccesses(framework::IWDFIoQueue& queue, IWDFIoRequest& request) {
  ComPtr<IWDFDevice> device;
  queue.GetDevice(device.put());
  ComPtr<IWDFMemory> input = inputOf(request);
  ComPtr<framework::IWDFIoQueue> second;
  const std::array<HRESULT, 10> results = {
      request.DeleteWdfObject(),
      request.ForwardToIoQueue(&queue),
      request.Send(nullptr, 0, 0),
      queue.RetrieveNextRequest(nullptr),
      queue.ConfigureRequestDispatching(framework::kRequestTypeDeviceIoControl, 1),
      device->RetrieveDeviceName(nullptr, nullptr),
      device->CreateSymbolicLink(L"link"),
      device->CreateIoQueue(nullptr, 1, framework::kDispatchSequential, 0, 1, second.put()),
      device->CreateIoQueue(nullptr, 1, framework::kDispatchParallel, 0, 1, second.put()),
      input->CopyFromMemory(nullptr, nullptr)};
  return static_cast<std::size_t>(
      std::count_if(results.begin(), results.end(), framework::succeeded));
}

}  // namespace

bool failing(const char* what) {
  const char* wanted = std::getenv(kFailVariable);
  return wanted != nullptr && std::string(wanted) == what;
}

HRESULT resultOf(const char* what) { return failing(what) ? kFailure : framework::kOk; }

void trace(const char* callback) {
  const char* path = std::getenv(kTraceVariable);
  if (path == nullptr) return;
  std::FILE* file = std::fopen(path, "a");
  if (file == nullptr) return;
  (void)std::fprintf(file, "%s\n", callback);
  (void)std::fclose(file);
}

thread_local IWDFIoRequest* FakeDevice::marking_ = nullptr;

void FakeDevice::OnDeviceIoControl(framework::IWDFIoQueue* queue, IWDFIoRequest* request,
                                   ULONG code, SIZE_T inLength, SIZE_T outLength) {
  const Inside inside(*this);
  auto context = makeContext(counters_[kCleanups]);
  if (code != kContexts) request->AssignContext(context.get(), context.get());
  context.reset();
  if (code < kWait) {
    data(*queue, *request, code, inLength, outLength);
  } else {
    waiting(*request, code);
  }
}

void FakeDevice::data(framework::IWDFIoQueue& queue, IWDFIoRequest& request, ULONG code,
                      SIZE_T inLength, SIZE_T outLength) {
  switch (code) {
    case kGetters:
      return request.CompleteWithInformation(framework::kOk, wrongGetters(queue, request));
    case kUnimplemented:
      return request.CompleteWithInformation(framework::kOk, unexpectedSuccesses(queue, request));
    case kEcho: {
      const auto input = inputOf(request);
      return answer(request, input ? input->GetDataBuffer(nullptr) : nullptr, inLength);
    }
    case kMemoryShape:
      return request.CompleteWithInformation(
          framework::kOk,
          (inputOf(request) ? kHasInput : 0) | (outputOf(request) ? kHasOutput : 0));
    case kFileName:
      return answerFileName(request);
    case kOverrun:
      return request.CompleteWithInformation(framework::kOk, outLength + 100);
    case kWriteAt: {
      const std::uint8_t byte = 0xAA;
      outputOf(request)->CopyFromBuffer(inputNumber(request), &byte, sizeof byte);
      return request.CompleteWithInformation(framework::kOk, outLength);
    }
    case kReadOutput: {
      std::vector<std::uint8_t> bytes(outLength);
      outputOf(request)->CopyToBuffer(0, bytes.data(), bytes.size());
      SIZE_T size = 0;
      const auto* data = static_cast<const std::uint8_t*>(outputOf(request)->GetDataBuffer(&size));
      bytes.insert(bytes.end(), data, data + size);
      return request.CompleteWithInformation(framework::kOk,
                                             std::accumulate(bytes.begin(), bytes.end(), 0u));
    }
    case kCopyTooMuch: {
      const std::vector<std::uint8_t> bytes(outLength + 1, 0xAA);
      return request.Complete(outputOf(request)->CopyFromBuffer(0, bytes.data(), bytes.size()));
    }
    case kCopyBeyond: {
      const std::uint8_t byte = 0xAA;
      return request.Complete(outputOf(request)->CopyFromBuffer(SIZE_MAX, &byte, sizeof byte));
    }
    case kCompleteKeepCount:
      request.SetInformation(3);
      return request.Complete(framework::hresult(inputNumber(request)));
    case kCompleteTwice: {
      const ComPtr<IWDFIoRequest> keep(&request);
      request.CompleteWithInformation(framework::kOk, 1);
      return request.CompleteWithInformation(kFailure, 2);
    }
    case kReadFour: {
      const auto input = inputOf(request);
      SIZE_T size = 0;
      std::array<std::uint8_t, 4> bytes{};
      std::memcpy(bytes.data(), input->GetDataBuffer(&size), bytes.size());
      return answer(request, bytes.data(), bytes.size());
    }
    case kParameters: {
      ULONG told = 0;
      SIZE_T in = 0;
      SIZE_T out = 0;
      request.GetDeviceIoControlParameters(&told, &in, &out);
      return answerNumbers(request,
                           {told, static_cast<std::uint32_t>(in), static_cast<std::uint32_t>(out)});
    }
    case kContexts:
      return answerContexts(request, counters_[kCleanups]);
    case kCounters:
      return answerNumbers(request, {counters_.begin(), counters_.end()});
    default:
      return request.CompleteWithInformation(kFailure, 0);
  }
}

void FakeDevice::waiting(IWDFIoRequest& request, ULONG code) {
  switch (code) {
    case kWait:
      return wait(request);
    case kMarkTwice: {
      const ComPtr<IWDFIoRequest> keep(&request);
      wait(request);
      return request.MarkCancelable(this);
    }
    case kWaitForEver: {
      request.AddRef();
      const MutexLock lock(mutex_);
      forEver_.push_back(&request);
      ++counters_[kKeptForEver];
      return;
    }
    case kReleaseWaiting: {
      const auto counts = releaseWaiting(framework::hresult(inputNumber(request)));
      return answerNumbers(request, {counts[0], counts[1]});
    }
    case kBlock:
      block();
      return request.CompleteWithInformation(framework::kOk, 0);
    case kKeepUnmarked:
      kept_ = &request;
      return;
    case kMarkKept:
      wait(*kept_.load());
      return request.CompleteWithInformation(framework::kOk, 0);
    case kCompleteKept:
      kept_.load()->CompleteWithInformation(framework::kOk, 0);
      return request.CompleteWithInformation(framework::kOk, 0);
    case kBlocked:
      waitForBlocked(inputNumber(request));
      return request.CompleteWithInformation(framework::kOk, 0);
    default:  // kUnblock
      unblock();
      return request.CompleteWithInformation(framework::kOk, 0);
  }
}

}  // namespace zelta::test::fake_driver
