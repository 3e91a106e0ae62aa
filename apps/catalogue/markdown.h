// The catalogue as a page for people: docs/events.md.
#ifndef KELD_CATALOGUE_MARKDOWN_H
#define KELD_CATALOGUE_MARKDOWN_H

#include <nlohmann/json.hpp>
#include <string>

std::string Markdown(const nlohmann::ordered_json &catalogue);

#endif
