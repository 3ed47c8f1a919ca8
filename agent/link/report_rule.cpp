#include "agent/link/report_rule.h"

namespace zelta::agent {

ReportRule::Report ReportRule::reportUnknown() {
  if (stage_ != Stage::kSettled || card_ == kNoCard || known_) return Report::kNothing;
  known_ = true;
  return Report::kInserted;
}

ReportRule::Report ReportRule::arrived(CardId card) {
  card_ = card;
  known_ = false;
  return reportUnknown();
}

ReportRule::Report ReportRule::departed() {
  const Report report = known_ ? Report::kRemoved : Report::kNothing;
  card_ = kNoCard;
  known_ = false;
  return report;
}

void ReportRule::commandBegan() {
  if (stage_ == Stage::kQuiet) stage_ = Stage::kFirstCommand;
}

ReportRule::Report ReportRule::answeredWithAtr() {
  stage_ = Stage::kSettled;
  known_ = card_ != kNoCard;
  return Report::kNothing;
}

ReportRule::Report ReportRule::answeredOtherwise() {
  stage_ = Stage::kSettled;
  return reportUnknown();
}

ReportRule::Report ReportRule::graceOver() {
  if (stage_ != Stage::kQuiet) return Report::kNothing;
  stage_ = Stage::kSettled;
  return reportUnknown();
}

}  // namespace zelta::agent
