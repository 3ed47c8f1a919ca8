#include "agent/link/report_rule.h"

namespace zelta::agent {

ReportRule::Report ReportRule::reportUnknown() {
  if (stage_ != Stage::Settled || card_ == kNoCard || known_) return Report::Nothing;
  known_ = true;
  return Report::Inserted;
}

ReportRule::Report ReportRule::arrived(CardId card) {
  card_ = card;
  known_ = false;
  return reportUnknown();
}

ReportRule::Report ReportRule::departed() {
  const Report report = known_ ? Report::Removed : Report::Nothing;
  card_ = kNoCard;
  known_ = false;
  return report;
}

void ReportRule::commandBegan() {
  if (stage_ == Stage::Quiet) stage_ = Stage::FirstCommand;
}

ReportRule::Report ReportRule::answeredWithAtr() {
  stage_ = Stage::Settled;
  known_ = card_ != kNoCard;
  return Report::Nothing;
}

ReportRule::Report ReportRule::answeredOtherwise() {
  stage_ = Stage::Settled;
  return reportUnknown();
}

ReportRule::Report ReportRule::graceOver() {
  if (stage_ != Stage::Quiet) return Report::Nothing;
  stage_ = Stage::Settled;
  return reportUnknown();
}

}  // namespace zelta::agent
