// JSON as the tools write it: one object a line.
#ifndef KELADM_JSONLINE_H
#define KELADM_JSONLINE_H

#include <nlohmann/json.hpp>
#include <string>

// JSON on one line; what is not UTF-8 in it is replaced, never refused.
std::string JsonLine(const nlohmann::ordered_json &json);

#endif
