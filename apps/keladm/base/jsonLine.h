// JSON as the tools write it: one object a line.
#ifndef KELADM_JSONLINE_H
#define KELADM_JSONLINE_H

#include <nlohmann/json.hpp>
#include <string>

// JSON on one line, in ASCII: no terminal obeys anything in it. What is not UTF-8 is replaced, never
// refused.
std::string JsonLine(const nlohmann::ordered_json &json);

// A text that comes from elsewhere, so that nothing of it is lost: the text, or {"hex": "62ff"} where it is
// not UTF-8.
nlohmann::ordered_json JsonText(const std::string &text);

#endif
