#include "pcsc/card_presence.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/waiting_thread.h"

namespace zelta::pcsc {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kShort{30};
constexpr milliseconds kLong{120000};

// Each test tells a story in words; the test's thread plays pcscd's polling thread.
class CardPresenceTest : public testing::Test {
 protected:
  void tell(const std::string& story) {
    std::istringstream words(story);
    std::string told;
    for (std::string word; words >> word;) {
      told += word + " ";
      SCOPED_TRACE("at the end of: " + told);
      const auto found = words_.find(word);
      ASSERT_NE(found, words_.end()) << "no such word";
      found->second();
    }
  }
  bool pollEndsWithin(milliseconds limit, milliseconds bound) {
    const auto begun = Clock::now();
    presence_.awaitChange(limit);
    return Clock::now() - begun < bound;
  }

  CardPresence presence_;
  CardNumber seen_ = kNoCard;  // the latest card of "card" and "new"
  std::optional<CardUse> use_;
  Clock::time_point refused_;

 private:
  void see() {
    seen_ = presence_.reportCard();
    EXPECT_NE(seen_, kNoCard);
    EXPECT_EQ(presence_.card(), seen_);
  }

  const std::map<std::string, std::function<void()>> words_{
      // The driver's reports.
      {"enter",
       [this] {
         presence_.expectCard();
         EXPECT_TRUE(presence_.cardEntered());
       }},
      {"leaves-early",
       [this] {
         presence_.expectCard();
         presence_.cardLeft();
         EXPECT_FALSE(presence_.cardEntered());
       }},
      {"leave", [this] { presence_.cardLeft(); }},
      // pcscd's calls.
      {"stop", [this] { presence_.stopAwaiting(); }},
      {"close", [this] { presence_.close(); }},
      {"refuse",
       [this] {
         refused_ = Clock::now();
         presence_.noteRefusal();
       }},
      {"reinsert", [this] { presence_.reinsert(presence_.card()); }},
      {"reinsert-another",
       [this] {
         presence_.reinsert(presence_.card() + 1);
         presence_.reinsert(kNoCard);
       }},
      {"client-asks", [this] { std::thread([this] { presence_.reportCard(); }).join(); }},
      {"use", [this] { use_.emplace(presence_); }},
      {"used", [this] { use_.reset(); }},
      // Checks of the polling thread.
      {"told", [this] { EXPECT_TRUE(pollEndsWithin(kLong, kLong / 2)); }},
      {"quiet", [this] { EXPECT_FALSE(pollEndsWithin(kShort, kShort)); }},
      {"past-limit", [this] { EXPECT_TRUE(pollEndsWithin(milliseconds(-1), kLong)); }},
      {"none", [this] { EXPECT_EQ(presence_.reportCard(), kNoCard); }},
      {"card", [this] { see(); }},
      {"same", [this] { EXPECT_EQ(presence_.reportCard(), seen_); }},
      {"new",
       [this] {
         const CardNumber before = seen_;
         see();
         EXPECT_NE(seen_, before);
       }},
      {"late", [this] { EXPECT_GE(Clock::now() - refused_, CardPresence::kSettlingTime); }},
      // Checks of a call that works with the card.
      {"usable",
       [this] {
         EXPECT_TRUE(presence_.isShown(seen_));
         EXPECT_FALSE(presence_.isShown(seen_ + 1));
         EXPECT_FALSE(presence_.isShown(kNoCard));
       }},
      {"unusable",
       [this] {
         EXPECT_FALSE(presence_.isShown(seen_));
         EXPECT_EQ(presence_.card(), kNoCard);
       }},
  };
};

struct Story {
  const char* name;
  const char* words;
};

const Story kStories[] = {
    {"AtFirst_NoCardIsShown", "none quiet"},
    {"CardThatEntered_IsShown", "enter card"},
    {"CardThatLeftBeforeItWasShown_NeverIs", "leaves-early none quiet enter card"},
    {"CardNotAskedFor_EndsOnePoll", "enter told quiet"},
    {"CardSeenByThePollingThread_EndsNoPoll", "enter card quiet"},
    {"CardSeenByAClientsThread_StillEndsAPoll", "enter client-asks told quiet"},
    {"Removal_HidesTheCardAtOnce", "enter card leave unusable told quiet"},
    {"CardThatIsBack_IsHiddenUntilPollingIsEnteredAgain",
     "enter card leave enter told none none told new quiet"},
    {"CardThatCameAndWentWhileHidden_IsNeverShown",
     "enter card leave enter leave told none quiet none enter told card"},
    {"StopBeforeThePoll_EndsOne", "stop told quiet"},
    {"StopBeforeARemoval_DoesNotSwallowIt", "enter card stop leave told none"},
    {"StopWhileTheCardIsHidden_EndsThePoll",
     "enter card leave enter told refuse stop told none told card"},
    {"AfterClose_EveryPollEnds", "close told told"},
    {"NegativeLimit_EndsThePollAtOnce", "past-limit"},
    {"RefusalAfterARemoval_ShowsTheNextCardLater",
     "enter card leave refuse enter told none told late new"},
    {"RefusalBeforeTheInsertion_ShowsTheCardLater", "refuse enter told late card"},
    {"RefusalWhileTheCardIsShown_DoesNotHideIt", "enter refuse card"},
    {"Reinsertion_MakesTheCardLeaveAndEnterOnce",
     "enter card reinsert unusable told none told new quiet"},
    {"ReinsertionAfterARefusal_ShowsTheCardLater",
     "enter card refuse reinsert told told late card"},
    {"ReinsertionOfACardNoLongerShown_DoesNothing", "enter card reinsert-another same quiet"},
    {"RemovalDuringAReinsertion_LeavesNoCard", "enter card reinsert leave told none quiet none"},
    {"CardInUse_IsUsableUntilItLeaves", "enter card use usable same quiet leave unusable"},
    {"CardInUse_IsUsableUntilTheChannelCloses", "enter card use usable close unusable"},
    {"NextCard_IsShownAfterTheCallWithTheOldOne",
     "enter card use leave enter told none quiet none used told new"},
    {"CardThatEntersDuringARefusedCall_IsShownAfterIt",
     "use enter quiet none refuse used told late card"},
};

class CardPresenceStoryTest : public CardPresenceTest, public testing::WithParamInterface<Story> {};

TEST_P(CardPresenceStoryTest, EventsAndCalls_ShowTheCardAndEndPolls) { tell(GetParam().words); }

INSTANTIATE_TEST_SUITE_P(Stories, CardPresenceStoryTest, testing::ValuesIn(kStories),
                         [](const auto& each) { return each.param.name; });

struct Wake {
  const char* name;
  const char* before;
  const char* event;  // ends a poll that waits
};

const Wake kWakes[] = {
    {"Insertion", "", "enter"},
    {"Removal", "enter told", "leave"},
    {"Stop", "", "stop"},
    {"Close", "", "close"},
    {"EndOfTheLastUseOfARemovedCard", "enter card use leave enter told", "used"},
};

class CardPresenceWakeTest : public CardPresenceTest, public testing::WithParamInterface<Wake> {};

TEST_P(CardPresenceWakeTest, EndsAPollThatWaits) {
  tell(GetParam().before);
  test::WaitingThread polling([this] { presence_.awaitChange(kLong); });
  ASSERT_TRUE(polling.waits());
  tell(GetParam().event);
  EXPECT_TRUE(polling.ends());
}

INSTANTIATE_TEST_SUITE_P(Events, CardPresenceWakeTest, testing::ValuesIn(kWakes),
                         [](const auto& each) { return each.param.name; });

TEST_F(CardPresenceTest, RefusalsThatGoOn_DoNotHideACardForEver) {
  tell("refuse enter");
  auto polled = std::async(std::launch::async, [this] { presence_.awaitChange(kLong); });
  while (polled.wait_for(milliseconds(1)) != std::future_status::ready) presence_.noteRefusal();
  EXPECT_NE(presence_.card(), kNoCard);
}

}  // namespace
}  // namespace zelta::pcsc
