// The behaviour of every registry: the system's and the double that the other tests use.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/process/error.h"
#include "platform/registry/registry.h"
#include "platform/registry/registry_file.h"
#include "platform/sync/event.h"
#include "tests/doubles/registry/fake_registry.h"
#include "tests/support/own_registry.h"
#include "tests/support/system.h"

namespace zelta::platform {
namespace {

using Bytes = std::vector<std::uint8_t>;

// How implementations may differ. The defaults are those of Linux.
struct Differences {
  // The result of reading a number from a value that is shorter, or longer, than a number.
  std::uint32_t readOfShortNumber = error::kInvalidData;
  std::uint32_t readOfLongNumber = error::kInvalidData;
  // A failed read leaves the number unchanged; otherwise it may be anything.
  bool failedReadLeavesTheNumber = true;
  // A notification comes at once for changes since the key was opened, and since the previous
  // notification.
  bool remembersChangesSinceOpening = true;
  bool remembersChangesBetween = true;
  // Writing the value that is there is a change.
  bool sameValueIsAChange = false;
  // Closing a key signals its pending notification.
  bool closingSignals = false;
  // An open key stays the one of its name when it is deleted and made again; otherwise its use
  // fails with ERROR_KEY_DELETED (1018).
  bool keyOutlivesDeletion = true;
};

#if defined(_WIN32)
Differences systemDifferences() {
  Differences differs;
  differs.readOfShortNumber = error::kSuccess;  // copies the existing bytes
  differs.readOfLongNumber = error::kMoreData;
  differs.failedReadLeavesTheNumber = false;
  differs.remembersChangesSinceOpening = false;
  // Wine loses a change that comes before the next notification is requested, and does not report
  // the same value as a change.
  differs.remembersChangesBetween = !test::underWine();
  differs.sameValueIsAChange = !test::underWine();
  differs.closingSignals = true;
  differs.keyOutlivesDeletion = false;
  return differs;
}
#else
Differences systemDifferences() { return {}; }
#endif

// A registry and a way to change it.
class Subject {
 public:
  virtual ~Subject() = default;
  virtual RegistryApi& api() = 0;
  virtual void createKey(const std::u16string& key) = 0;
  virtual void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                        const Bytes& data) = 0;
  virtual void deleteValue(const std::u16string& key, const std::u16string& name) = 0;
  virtual void deleteKey(const std::u16string& key) = 0;
};

RegistryApi& apiOf(test::FakeRegistry& fake) { return fake; }
RegistryApi& apiOf(test::OwnRegistry&) { return systemRegistry(); }

template <typename Registry>
class SubjectOf final : public Subject {
 public:
  static std::unique_ptr<Subject> make() { return std::make_unique<SubjectOf>(); }
  RegistryApi& api() override { return apiOf(registry_); }
  void createKey(const std::u16string& key) override { registry_.createKey(key); }
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const Bytes& data) override {
    registry_.setValue(key, name, type, data);
  }
  void deleteValue(const std::u16string& key, const std::u16string& name) override {
    registry_.deleteValue(key, name);
  }
  void deleteKey(const std::u16string& key) override { registry_.deleteKey(key); }

 private:
  Registry registry_;
};

struct Kind {
  const char* name;
  std::unique_ptr<Subject> (*make)();
  Differences differences;
};

class RegistryTest : public testing::TestWithParam<Kind> {
 protected:
  ~RegistryTest() override {
    for (const RegistryKey key : keys_) registry_.closeKey(key);
    for (const EventHandle event : events_) systemEvents().close(event);
  }

  void setDword(const std::u16string& key, const std::u16string& name, std::uint32_t value) {
    subject_->setValue(key, name, kRegDword, registryDword(value));
  }

  RegistryKey open(const std::u16string& path) {
    RegistryKey key = nullptr;
    EXPECT_EQ(registry_.openKey(path, &key), error::kSuccess);
    EXPECT_NE(key, nullptr);
    keys_.push_back(key);
    return key;
  }

  EventHandle event() {
    events_.push_back(systemEvents().create());
    return events_.back();
  }

  // Waits for an event; returns the index of the first signalled one.
  static std::uint32_t firstOf(const std::vector<EventHandle>& events) {
    return systemEvents().waitAny(events.data(), events.size());
  }

  // True if `event` is not signalled.
  static bool isQuiet(EventHandle event) {
    const EventHandle sentinel = systemEvents().create();
    systemEvents().set(sentinel);
    const bool quiet = firstOf({event, sentinel}) == 1;
    systemEvents().close(sentinel);
    return quiet;
  }

  const Differences& differs_ = GetParam().differences;
  const std::unique_ptr<Subject> subject_ = GetParam().make();
  RegistryApi& registry_ = subject_->api();
  std::vector<RegistryKey> keys_;
  std::vector<EventHandle> events_;
};

TEST_P(RegistryTest, NumberBelowTheMachinesRoot_IsReadWithoutCaseAndAsItIsNow) {
  std::uint32_t value = 0;
  for (std::uint32_t i = 0xFEDCBA98; i < 0xFEDCBAA8; ++i) {
    setDword(u"SOFTWARE\\K", u"number", i);
    ASSERT_EQ(registry_.getDword(u"software\\k", u"NUMBER", &value), error::kSuccess);
    ASSERT_EQ(value, i);
  }
  subject_->deleteValue(u"SOFTWARE\\K", u"number");
  EXPECT_EQ(registry_.getDword(u"software\\k", u"NUMBER", &value), error::kFileNotFound);
}

TEST_P(RegistryTest, MissingKeyOrValue_IsNotFound) {
  std::uint32_t value = 7;
  EXPECT_EQ(registry_.getDword(u"K", u"x", &value), error::kFileNotFound);
  subject_->createKey(u"K");
  EXPECT_EQ(registry_.getDword(u"K", u"x", &value), error::kFileNotFound);
  std::uint32_t type = 0;
  std::uint32_t size = sizeof(value);
  EXPECT_EQ(registry_.queryValue(open(u"K"), u"x", &type, &value, &size), error::kFileNotFound);
  EXPECT_EQ(value, 7U);
}

TEST_P(RegistryTest, ValueOfAnotherTypeOrSize_IsNoNumber) {
  subject_->setValue(u"K", u"text", kRegSz, registryText(u"3"));
  subject_->setValue(u"K", u"bytes", kRegBinary, registryDword(3));
  subject_->setValue(u"K", u"short", kRegDword, {1});
  subject_->setValue(u"K", u"long", kRegDword, {1, 0, 0, 0, 0});
  std::uint32_t value = 7;
  EXPECT_EQ(registry_.getDword(u"K", u"text", &value), error::kUnsupportedType);
  EXPECT_EQ(registry_.getDword(u"K", u"bytes", &value), error::kUnsupportedType);
  EXPECT_EQ(registry_.getDword(u"K", u"long", &value), differs_.readOfLongNumber);
  if (differs_.failedReadLeavesTheNumber) {
    EXPECT_EQ(value, 7U);
  }
  value = 7;
  EXPECT_EQ(registry_.getDword(u"K", u"short", &value), differs_.readOfShortNumber);
  EXPECT_EQ(value, differs_.readOfShortNumber == error::kSuccess ? 1U : 7U);
}

TEST_P(RegistryTest, MissingKey_IsNotOpened) {
  RegistryKey key = this;
  EXPECT_EQ(registry_.openKey(u"A", &key), error::kFileNotFound);
  EXPECT_EQ(key, nullptr);
  subject_->createKey(u"A\\B");
  open(u"A");
  open(u"a\\b\\");
  open(u"");
  EXPECT_EQ(registry_.openKey(u"A\\B\\C", &key), error::kFileNotFound);
}

TEST_P(RegistryTest, QueriedValue_IsCopiedWithTypeAndSize) {
  const std::pair<std::uint32_t, Bytes> values[] = {
      {kRegExpandSz, registryText(u"ab")},
      {kRegSz, registryText(u"")},
      {kRegSz, {}},
      {kRegBinary, {1, 2, 3}},
  };
  for (const auto& [storedType, stored] : values) {
    subject_->setValue(u"K", u"value", storedType, stored);
    std::uint32_t type = 99;
    Bytes data(16, 0xEE);
    auto size = static_cast<std::uint32_t>(data.size());
    ASSERT_EQ(registry_.queryValue(open(u"K"), u"VALUE", &type, data.data(), &size),
              error::kSuccess);
    EXPECT_EQ(type, storedType);
    ASSERT_EQ(size, stored.size());
    Bytes expected(16, 0xEE);
    std::copy(stored.begin(), stored.end(), expected.begin());
    EXPECT_EQ(data, expected);
  }
}

TEST_P(RegistryTest, TooSmallBuffer_GetsNothingButTheSizeNeeded) {
  subject_->setValue(u"K", u"text", kRegSz, registryText(u"abc"));
  const RegistryKey key = open(u"K");
  std::uint32_t type = 99;
  Bytes data(7, 0xEE);
  std::uint32_t size = 7;
  EXPECT_EQ(registry_.queryValue(key, u"text", &type, data.data(), &size), error::kMoreData);
  EXPECT_EQ(size, 8U);
  EXPECT_EQ(data, Bytes(7, 0xEE));
  size = 0;
  EXPECT_EQ(registry_.queryValue(key, u"text", &type, nullptr, &size), error::kSuccess);
  EXPECT_EQ(size, 8U);
  EXPECT_EQ(type, kRegSz);
}

TEST_P(RegistryTest, NullOrClosedKey_IsAnInvalidHandle) {
  std::uint32_t type = 0;
  std::uint32_t size = 0;
  EXPECT_EQ(registry_.queryValue(nullptr, u"x", &type, nullptr, &size), error::kInvalidHandle);
  EXPECT_EQ(registry_.notifyChange(nullptr, event()), error::kInvalidHandle);
  subject_->createKey(u"K");
  RegistryKey key = nullptr;
  ASSERT_EQ(registry_.openKey(u"K", &key), error::kSuccess);
  EXPECT_EQ(registry_.notifyChange(key, nullptr), error::kInvalidHandle);
  registry_.closeKey(key);
  EXPECT_EQ(registry_.queryValue(key, u"x", &type, nullptr, &size), error::kInvalidHandle);
  EXPECT_EQ(registry_.notifyChange(key, event()), error::kInvalidHandle);
  registry_.closeKey(key);
  registry_.closeKey(nullptr);
}

TEST_P(RegistryTest, ChangeAtOrBelowTheKey_SignalsOnce) {
  setDword(u"K", u"x", 1);
  const RegistryKey key = open(u"K");
  const EventHandle changed = event();
  const std::function<void()> changes[] = {
      [this] { setDword(u"K", u"x", 2); },
      [this] { setDword(u"K", u"new", 1); },
      [this] { subject_->deleteValue(u"K", u"new"); },
      [this] { subject_->setValue(u"K", u"x", kRegBinary, registryDword(2)); },
      [this] { subject_->createKey(u"K\\Sub"); },
      [this] { subject_->createKey(u"K\\Sub\\Subsub"); },
      [this] { setDword(u"K\\Sub\\Subsub", u"x", 1); },
      [this] { subject_->deleteKey(u"K\\Sub\\Subsub"); },
      [this] { subject_->deleteKey(u"K\\Sub"); },
  };
  for (const auto& change : changes) {
    ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
    ASSERT_TRUE(isQuiet(changed));
    change();
    ASSERT_EQ(firstOf({changed}), 0U);
    ASSERT_TRUE(isQuiet(changed));
  }
}

TEST_P(RegistryTest, OpenKeyThatIsDeleted_SignalsAndComesBackOrIsRefused) {
  constexpr std::uint32_t kKeyDeleted = 1018;
  setDword(u"K", u"x", 1);
  const RegistryKey key = open(u"K");
  const EventHandle changed = event();
  ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
  subject_->deleteKey(u"K");
  std::uint32_t type = 0;
  std::uint32_t size = 0;
  if (!differs_.keyOutlivesDeletion) {
    EXPECT_EQ(registry_.notifyChange(key, changed), kKeyDeleted);
    EXPECT_EQ(registry_.queryValue(key, u"x", &type, nullptr, &size), kKeyDeleted);
    return;
  }
  ASSERT_EQ(firstOf({changed}), 0U);
  EXPECT_EQ(registry_.queryValue(key, u"x", &type, nullptr, &size), error::kFileNotFound);
  ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
  ASSERT_TRUE(isQuiet(changed));
  subject_->createKey(u"K");
  EXPECT_EQ(firstOf({changed}), 0U);
}

TEST_P(RegistryTest, ChangeElsewhere_DoesNotSignal) {
  setDword(u"A\\K", u"x", 1);
  setDword(u"B", u"x", 1);
  const RegistryKey watched = open(u"A\\K");
  const RegistryKey other = open(u"B");
  const EventHandle changed = event();
  const EventHandle otherChanged = event();
  ASSERT_EQ(registry_.notifyChange(watched, changed), error::kSuccess);
  const std::function<void()> changes[] = {
      [this] { setDword(u"A", u"x", 2); },
      [this] { setDword(u"A\\K2", u"x", 2); },
      [this] { setDword(u"A\\K!", u"x", 2); },
      [this] { subject_->deleteKey(u"A\\K2"); },
  };
  for (const auto& change : changes) {
    ASSERT_EQ(registry_.notifyChange(other, otherChanged), error::kSuccess);
    change();
    static std::uint32_t next = 100;
    setDword(u"B", u"x", ++next);
    ASSERT_EQ(firstOf({changed, otherChanged}), 1U);
  }
}

TEST_P(RegistryTest, SameValueWrittenAgain_SignalsOnlyIfItCountsAsAChange) {
  setDword(u"A", u"x", 1);
  setDword(u"B", u"x", 1);
  const RegistryKey watched = open(u"A");
  const RegistryKey other = open(u"B");
  const EventHandle changed = event();
  const EventHandle otherChanged = event();
  ASSERT_EQ(registry_.notifyChange(watched, changed), error::kSuccess);
  ASSERT_EQ(registry_.notifyChange(other, otherChanged), error::kSuccess);
  setDword(u"A", u"x", 1);
  setDword(u"a", u"X", 1);
  setDword(u"B", u"x", 2);
  EXPECT_EQ(firstOf({changed, otherChanged}), differs_.sameValueIsAChange ? 0U : 1U);
}

TEST_P(RegistryTest, ChangeBeforeArming_SignalsAtOnceIfItIsRemembered) {
  setDword(u"K", u"x", 1);
  const RegistryKey key = open(u"K");
  const EventHandle changed = event();
  setDword(u"K", u"x", 2);  // between opening and the first
  ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
  if (differs_.remembersChangesSinceOpening) {
    ASSERT_EQ(firstOf({changed}), 0U);
  } else {
    ASSERT_TRUE(isQuiet(changed));
    setDword(u"K", u"x", 3);
    ASSERT_EQ(firstOf({changed}), 0U);
  }
  setDword(u"K", u"x", 4);  // between the first and the second
  ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
  if (!differs_.remembersChangesBetween) {
    EXPECT_TRUE(isQuiet(changed));
    return;
  }
  ASSERT_EQ(firstOf({changed}), 0U);
  ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
  EXPECT_TRUE(isQuiet(changed));
}

TEST_P(RegistryTest, SeveralKeys_EachHaveANotificationOfTheirOwn) {
  setDword(u"K", u"x", 1);
  const RegistryKey first = open(u"K");
  const RegistryKey second = open(u"K");
  const RegistryKey root = open(u"");
  const EventHandle changed[] = {event(), event(), event()};
  ASSERT_EQ(registry_.notifyChange(first, changed[0]), error::kSuccess);
  ASSERT_EQ(registry_.notifyChange(second, changed[1]), error::kSuccess);
  ASSERT_EQ(registry_.notifyChange(root, changed[2]), error::kSuccess);
  setDword(u"K", u"x", 2);
  for (const EventHandle each : changed) EXPECT_EQ(firstOf({each}), 0U);
}

TEST_P(RegistryTest, ClosedKey_EndsItsPendingNotification) {
  setDword(u"A", u"x", 1);
  RegistryKey key = nullptr;
  ASSERT_EQ(registry_.openKey(u"A", &key), error::kSuccess);
  const RegistryKey other = open(u"A");
  const EventHandle changed = event();
  const EventHandle otherChanged = event();
  ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
  ASSERT_EQ(registry_.notifyChange(other, otherChanged), error::kSuccess);
  registry_.closeKey(key);
  EXPECT_EQ(isQuiet(changed), !differs_.closingSignals);
  setDword(u"A", u"x", 2);
  EXPECT_EQ(firstOf({changed, otherChanged}), 1U);
}

INSTANTIATE_TEST_SUITE_P(, RegistryTest,
                         testing::Values(Kind{"System", &SubjectOf<test::OwnRegistry>::make,
                                              systemDifferences()},
                                         Kind{"Fake", &SubjectOf<test::FakeRegistry>::make, {}}),
                         [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace zelta::platform
