#include "framework/com_object.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "framework/wdf.h"

namespace zelta::framework {
namespace {

// Two interfaces, so that their tables lie at different places of the object.
class TwoFaced final : public ComObject<TwoFaced, IObjectCleanup, IRequestCallbackCancel> {
 public:
  explicit TwoFaced(int& living) : living_(living) { ++living_; }
  ~TwoFaced() { --living_; }

  void ZELTA_STDMETHODCALLTYPE OnCleanup(IWDFObject*) override { last = "OnCleanup"; }
  void ZELTA_STDMETHODCALLTYPE OnCancel(IWDFIoRequest*) override { last = "OnCancel"; }

  std::string last;

 private:
  int& living_;
};

class Memoryless final : public ComObject<Memoryless, IObjectCleanup> {
 public:
  Memoryless() { throw std::bad_alloc(); }
  void ZELTA_STDMETHODCALLTYPE OnCleanup(IWDFObject*) override {}
};

TEST(ComObject, NewObject_BelongsToItsCreator) {
  int living = 0;
  TwoFaced* object = createObject<TwoFaced>(living);
  // The analyzer does not follow reference counts.
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->AddRef(), 2u);
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
  EXPECT_EQ(object->Release(), 1u);
  EXPECT_EQ(living, 1);
  EXPECT_EQ(object->Release(), 0u);
  EXPECT_EQ(living, 0);
}

TEST(ComObject, QueryInterface_GivesANewReferenceOnEachInterface) {
  int living = 0;
  const auto object = ComPtr<TwoFaced>::adopt(createObject<TwoFaced>(living));
  ComPtr<IObjectCleanup> cleanup;
  ComPtr<IRequestCallbackCancel> cancel;
  ASSERT_EQ(object->QueryInterface(IObjectCleanup::iid, cleanup.putVoid()), kOk);
  ASSERT_EQ(object->QueryInterface(IRequestCallbackCancel::iid, cancel.putVoid()), kOk);
  EXPECT_EQ(object->AddRef(), 4u);
  object->Release();
  cleanup->OnCleanup(nullptr);
  EXPECT_EQ(object->last, "OnCleanup");
  cancel->OnCancel(nullptr);
  EXPECT_EQ(object->last, "OnCancel");
}

TEST(ComObject, EveryInterface_HasTheSameIdentity) {
  int living = 0;
  const auto object = ComPtr<TwoFaced>::adopt(createObject<TwoFaced>(living));
  ComPtr<IRequestCallbackCancel> cancel;
  ASSERT_EQ(object->QueryInterface(IRequestCallbackCancel::iid, cancel.putVoid()), kOk);
  ComPtr<IUnknown> first;
  ComPtr<IUnknown> second;
  ASSERT_EQ(object->QueryInterface(IUnknown::iid, first.putVoid()), kOk);
  ASSERT_EQ(cancel->QueryInterface(IUnknown::iid, second.putVoid()), kOk);
  EXPECT_EQ(first.get(), second.get());
}

TEST(ComObject, OtherInterfaces_AreRefusedAndTheResultCleared) {
  int living = 0;
  const auto object = ComPtr<TwoFaced>::adopt(createObject<TwoFaced>(living));
  void* out = &living;
  EXPECT_EQ(object->QueryInterface(IDriverEntry::iid, &out), kNoInterface);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(object->QueryInterface(IUnknown::iid, nullptr), kPointer);
  EXPECT_EQ(object->AddRef(), 2u);
  object->Release();
}

TEST(ComObject, NoMemoryForItsMembers_IsNull) { EXPECT_EQ(createObject<Memoryless>(), nullptr); }

TEST(ComObject, ReferencesOfSeveralThreads_AreCounted) {
  int living = 0;
  TwoFaced* object = createObject<TwoFaced>(living);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    object->AddRef();
    threads.emplace_back([object] {
      for (int round = 0; round < 1000; ++round) {
        object->AddRef();
        object->Release();
      }
      object->Release();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(living, 1);
  EXPECT_EQ(object->Release(), 0u);
  EXPECT_EQ(living, 0);
}

TEST(ComPtr, CopiedMovedAndDetached_OwnsOneReferenceEach) {
  int living = 0;
  TwoFaced* object = createObject<TwoFaced>(living);
  {
    const ComPtr<TwoFaced> own(object);
    EXPECT_EQ(object->Release(), 1u);  // the creator's
    ComPtr<TwoFaced> copy = own;
    ComPtr<TwoFaced> moved = std::move(copy);
    EXPECT_FALSE(copy);  // NOLINT(bugprone-use-after-move): what moving leaves is what is tested
    EXPECT_TRUE(moved);
    TwoFaced* detached = moved.detach();
    EXPECT_EQ(detached, object);
    EXPECT_FALSE(moved);
    EXPECT_EQ(detached->Release(), 1u);
    moved = own;
    moved = nullptr;
    EXPECT_EQ(living, 1);
  }
  EXPECT_EQ(living, 0);
}

}  // namespace
}  // namespace zelta::framework
