#include "app/outcome_report.h"

#include <nlohmann/json.hpp>

#include "app/user_output.h"

namespace corvane {

void printOutcomeReports(const std::vector<OutcomeReport>& reports) {
  nlohmann::ordered_json items = nlohmann::ordered_json::array();
  for (const auto& report : reports) {
    nlohmann::ordered_json item;
    item["source"] = report.source;
    if (!report.target.empty()) item["target"] = report.target;
    item["outcome"] = report.outcome;
    if (!report.message.empty()) item["message"] = report.message;
    if (report.retainedOriginal) item["retainedOriginal"] = *report.retainedOriginal;
    if (report.leftBehind) item["leftBehind"] = *report.leftBehind;
    if (!report.recordSaved) item["recordSaved"] = false;
    items.push_back(item);
  }
  printLine(items.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace corvane
