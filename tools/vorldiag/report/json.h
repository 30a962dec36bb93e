// Reports as JSON, for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/vorldiag/report/findings.h"

// What every command's JSON begins with: tool, version, command.
nlohmann::ordered_json JsonHead(const std::string& command);

// The report as docs/vorldiag.schema.json describes it.
nlohmann::ordered_json ToJson(const Report& report);

// The text of a document, one line end at its end.
std::string JsonText(const nlohmann::ordered_json& json);
