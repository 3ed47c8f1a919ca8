#include "agent/link/report_rule.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zelta::agent {
namespace {

using Report = ReportRule::Report;

// What happens, and the report that it gives.
enum class Input { kArrive, kDepart, kBegin, kAtr, kOther, kGrace };

struct Step {
  Input input;
  Report report = Report::kNothing;
};

struct Case {
  std::string name;
  bool cardIn;  // when the connection is made
  std::vector<Step> steps;
};

class ReportRuleTable : public testing::TestWithParam<Case> {};

TEST_P(ReportRuleTable, MovesAndCommands_DecideWhatIsReported) {
  CardId card = GetParam().cardIn ? 1 : kNoCard;
  CardId last = 1;
  ReportRule rule(card);
  int number = 0;
  for (const Step& step : GetParam().steps) {
    Report report = Report::kNothing;
    switch (step.input) {
      case Input::kArrive:
        card = ++last;
        report = rule.arrived(card);
        break;
      case Input::kDepart:
        card = kNoCard;
        report = rule.departed();
        break;
      case Input::kBegin:
        rule.commandBegan();
        break;
      case Input::kAtr:
        EXPECT_TRUE(rule.holds(card));
        report = rule.answeredWithAtr();
        break;
      case Input::kOther:
        report = rule.answeredOtherwise();
        break;
      case Input::kGrace:
        report = rule.graceOver();
        break;
    }
    EXPECT_EQ(report, step.report) << "step " << ++number;
  }
}

constexpr Step kArrive{Input::kArrive}, kDepart{Input::kDepart}, kBegin{Input::kBegin},
    kAtr{Input::kAtr}, kOther{Input::kOther}, kGrace{Input::kGrace};
constexpr Step kReportedArrive{Input::kArrive, Report::kInserted},
    kReportedDepart{Input::kDepart, Report::kRemoved},
    kReportedOther{Input::kOther, Report::kInserted},
    kReportedGrace{Input::kGrace, Report::kInserted};

INSTANTIATE_TEST_SUITE_P(
    Cases, ReportRuleTable,
    testing::Values(
        Case{"CardInLearnedByFirstAtrIsNotReported", true, {kBegin, kAtr, kGrace}},
        Case{"CardInIsReportedAfterFirstCommandWithoutAtr", true, {kBegin, kReportedOther}},
        Case{"CardInIsReportedOnceOnly", true, {kBegin, kReportedOther, kBegin, kOther, kGrace}},
        Case{"CardInIsReportedWhenGraceIsOver", true, {kReportedGrace, kGrace}},
        Case{"CardReportedByGraceIsNotReportedByCommands",
             true,
             {kReportedGrace, kBegin, kOther, kBegin, kAtr}},
        Case{"GraceInsideTheFirstCommandDoesNothing", true, {kBegin, kGrace, kAtr}},
        Case{"ArrivalBeforeFirstCommandIsKeptBack", false, {kArrive, kBegin, kAtr}},
        Case{
            "ArrivalBeforeFirstCommandIsReportedAfterIt", false, {kArrive, kBegin, kReportedOther}},
        Case{"ArrivalBeforeGraceIsReportedWithIt", false, {kArrive, kReportedGrace}},
        Case{"ArrivalAfterGraceIsReportedAtOnce", false, {kGrace, kReportedArrive}},
        Case{"ArrivalInsideFirstCommandIsReportedAtItsEnd",
             false,
             {kBegin, kArrive, kReportedOther}},
        Case{"ArrivalAfterFirstCommandIsReportedAtOnce", false, {kBegin, kOther, kReportedArrive}},
        Case{"ArrivalInsideALaterCommandIsReportedAtOnce",
             false,
             {kBegin, kOther, kBegin, kReportedArrive, kOther}},
        Case{"LearnedCardIsReportedGoneOnce", true, {kBegin, kAtr, kReportedDepart, kDepart}},
        Case{"LearnedCardPulledAtOnceIsReportedGone", true, {kBegin, kAtr, kReportedDepart}},
        Case{"ReportedCardIsReportedGone",
             false,
             {kBegin, kOther, kReportedArrive, kReportedDepart}},
        Case{"CardThatTheDriverNeverKnewIsNotReportedGone", true, {kDepart, kBegin, kOther}},
        Case{"CardPulledInsideFirstCommandWithoutAnswerIsNotReportedGone",
             true,
             {kBegin, kDepart, kOther}},
        Case{"SwapBeforeFirstCommandLeavesOneCardToLearn", true, {kDepart, kArrive, kBegin, kAtr}},
        Case{"SwapOfALearnedCardIsReportedTwice",
             true,
             {kBegin, kAtr, kReportedDepart, kReportedArrive}},
        Case{"SwapInsideFirstCommandIsReportedAtItsEnd",
             true,
             {kBegin, kDepart, kArrive, kReportedOther}},
        Case{"AtrOfAReportedCardChangesNothing",
             false,
             {kBegin, kOther, kReportedArrive, kBegin, kAtr, kReportedDepart}}),
    [](const testing::TestParamInfo<Case>& tested) { return tested.param.name; });

TEST(ReportRule, CardThatIsIn_IsTheOnlyOneHeld) {
  ReportRule rule(1);
  rule.commandBegan();
  EXPECT_TRUE(rule.holds(1));
  EXPECT_EQ(rule.departed(), Report::kNothing);
  EXPECT_FALSE(rule.holds(1));
  EXPECT_FALSE(rule.holds(kNoCard));
  EXPECT_EQ(rule.arrived(2), Report::kNothing);
  EXPECT_FALSE(rule.holds(1));
  EXPECT_TRUE(rule.holds(2));
}

TEST(ReportRule, FirstCommandOrGrace_EndsTheQuiet) {
  ReportRule first(kNoCard);
  EXPECT_TRUE(first.quiet());
  first.commandBegan();
  EXPECT_FALSE(first.quiet());
  ReportRule second(kNoCard);
  EXPECT_EQ(second.graceOver(), Report::kNothing);
  EXPECT_FALSE(second.quiet());
}

}  // namespace
}  // namespace zelta::agent
