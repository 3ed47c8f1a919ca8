#include "agent/report_rule.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zelta::agent {
namespace {

using Report = ReportRule::Report;

// What happens, and the report that it gives.
enum class Input { Arrive, Depart, Begin, Atr, End, Grace };

struct Step {
  Input input;
  Report report = Report::Nothing;
};

struct Case {
  std::string name;
  bool cardIn;  // when the connection is made
  std::vector<Step> steps;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class ReportRuleTable : public testing::TestWithParam<Case> {};

TEST_P(ReportRuleTable, reports) {
  CardId card = GetParam().cardIn ? 1 : kNoCard;
  CardId last = 1;
  ReportRule rule(card);
  int number = 0;
  for (const Step& step : GetParam().steps) {
    Report report = Report::Nothing;
    switch (step.input) {
      case Input::Arrive:
        card = ++last;
        report = rule.arrived(card);
        break;
      case Input::Depart:
        card = kNoCard;
        report = rule.departed();
        break;
      case Input::Begin:
        rule.commandBegan();
        break;
      case Input::Atr:
        EXPECT_TRUE(rule.answeringAtr(card));
        break;
      case Input::End:
        report = rule.commandEnded();
        break;
      case Input::Grace:
        report = rule.graceOver();
        break;
    }
    EXPECT_EQ(report, step.report) << "step " << ++number;
  }
}

constexpr Step kArrive{Input::Arrive}, kDepart{Input::Depart}, kBegin{Input::Begin},
    kAtr{Input::Atr}, kEnd{Input::End}, kGrace{Input::Grace};
constexpr Step kReportedArrive{Input::Arrive, Report::Inserted},
    kReportedDepart{Input::Depart, Report::Removed}, kReportedEnd{Input::End, Report::Inserted},
    kReportedGrace{Input::Grace, Report::Inserted};

INSTANTIATE_TEST_SUITE_P(
    Cases, ReportRuleTable,
    testing::Values(
        Case{"CardInLearnedByFirstAtrIsNotReported", true, {kBegin, kAtr, kEnd, kGrace}},
        Case{"CardInIsReportedAfterFirstCommandWithoutAtr", true, {kBegin, kReportedEnd}},
        Case{"CardInIsReportedOnceOnly", true, {kBegin, kReportedEnd, kBegin, kEnd, kGrace}},
        Case{"CardInIsReportedWhenGraceIsOver", true, {kReportedGrace, kGrace}},
        Case{"CardReportedByGraceIsNotReportedByCommands",
             true,
             {kReportedGrace, kBegin, kEnd, kBegin, kAtr, kEnd}},
        Case{"GraceInsideTheFirstCommandDoesNothing", true, {kBegin, kGrace, kAtr, kEnd}},
        Case{"ArrivalBeforeFirstCommandIsKeptBack", false, {kArrive, kBegin, kAtr, kEnd}},
        Case{"ArrivalBeforeFirstCommandIsReportedAfterIt", false, {kArrive, kBegin, kReportedEnd}},
        Case{"ArrivalBeforeGraceIsReportedWithIt", false, {kArrive, kReportedGrace}},
        Case{"ArrivalAfterGraceIsReportedAtOnce", false, {kGrace, kReportedArrive}},
        Case{"ArrivalInsideFirstCommandIsReportedAtItsEnd", false, {kBegin, kArrive, kReportedEnd}},
        Case{"ArrivalAfterFirstCommandIsReportedAtOnce", false, {kBegin, kEnd, kReportedArrive}},
        Case{"ArrivalInsideALaterCommandIsReportedAtOnce",
             false,
             {kBegin, kEnd, kBegin, kReportedArrive, kEnd}},
        Case{"LearnedCardIsReportedGoneOnce", true, {kBegin, kAtr, kEnd, kReportedDepart, kDepart}},
        Case{"LearnedCardPulledBeforeItsCommandEndsIsReportedGone",
             true,
             {kBegin, kAtr, kReportedDepart, kEnd}},
        Case{"ReportedCardIsReportedGone", false, {kBegin, kEnd, kReportedArrive, kReportedDepart}},
        Case{"CardThatTheDriverNeverKnewIsNotReportedGone", true, {kDepart, kBegin, kEnd}},
        Case{"CardPulledInsideFirstCommandWithoutAnswerIsNotReportedGone",
             true,
             {kBegin, kDepart, kEnd}},
        Case{"SwapBeforeFirstCommandLeavesOneCardToLearn",
             true,
             {kDepart, kArrive, kBegin, kAtr, kEnd}},
        Case{"SwapOfALearnedCardIsReportedTwice",
             true,
             {kBegin, kAtr, kEnd, kReportedDepart, kReportedArrive}},
        Case{"SwapInsideFirstCommandIsReportedAtItsEnd",
             true,
             {kBegin, kAtr, kReportedDepart, kArrive, kReportedEnd}},
        Case{"AtrOfAReportedCardChangesNothing",
             false,
             {kBegin, kEnd, kReportedArrive, kBegin, kAtr, kEnd, kReportedDepart}}),
    [](const testing::TestParamInfo<Case>& tested) { return tested.param.name; });

TEST(ReportRule, atrOfACardThatIsGoneIsNotAnswered) {
  ReportRule rule(1);
  rule.commandBegan();
  EXPECT_EQ(rule.departed(), Report::Nothing);
  EXPECT_FALSE(rule.answeringAtr(1));
  EXPECT_EQ(rule.arrived(2), Report::Nothing);
  EXPECT_FALSE(rule.answeringAtr(1));
  EXPECT_EQ(rule.commandEnded(), Report::Inserted);
}

TEST(ReportRule, quietUntilFirstCommandOrGrace) {
  ReportRule first(kNoCard);
  EXPECT_TRUE(first.quiet());
  first.commandBegan();
  EXPECT_FALSE(first.quiet());
  ReportRule second(kNoCard);
  EXPECT_EQ(second.graceOver(), Report::Nothing);
  EXPECT_FALSE(second.quiet());
}

}  // namespace
}  // namespace zelta::agent
