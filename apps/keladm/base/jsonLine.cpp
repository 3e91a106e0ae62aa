#include "jsonLine.h"

#include "text.h"

#include <fmt/format.h>

std::string JsonLine(const nlohmann::ordered_json &json)
{
    return json.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

nlohmann::ordered_json JsonText(const std::string &text)
{
    if (IsUtf8(text)) return text;
    std::string hex;
    for (char c : text)
        hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
    return {{"hex", hex}};
}
