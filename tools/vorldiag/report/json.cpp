#include "tools/vorldiag/report/json.h"

#include <nlohmann/json.hpp>

#include "tools/vorldiag/text/utf8.h"

using Json = nlohmann::ordered_json;

Json JsonHead(const std::string& command) {
  return {{"tool", "vorldiag"}, {"version", VORL_VERSION}, {"command", command}};
}

Json ToJson(const Report& report) {
  Json json = JsonHead(report.command);
  json["verdict"] = VerdictWord(report.Worst());
  Json sections = Json::array();
  for (const Section& section : report.sections) {
    Json findings = Json::array();
    for (const Finding& finding : section.findings) {
      findings.push_back({{"id", finding.id},
                          {"title", finding.title},
                          {"verdict", VerdictWord(finding.verdict)},
                          {"value", ValidUtf8(finding.value)},
                          {"advice", ValidUtf8(finding.advice)}});
    }
    sections.push_back({{"id", section.id}, {"title", section.title}, {"findings", findings}});
  }
  json["sections"] = sections;
  return json;
}

std::string JsonText(const Json& json) {
  constexpr int indent = 2;
  return json.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}
