// An event's explanation as lines of text.
#ifndef KELADM_EXPLANATIONWORDS_H
#define KELADM_EXPLANATIONWORDS_H

#include "catalogue.h"
#include "eventRecord.h"

#include <string>
#include <string_view>

// A fact under a name, folded into lines of at most 100 columns that stand under one another:
//
//     Meaning     No path to naa.6 answers, ...
//                 The kernel starts a timer.
//
// Each line begins with a line feed; nothing for an empty text.
std::string Folded(std::string_view label, const std::string &text);

// Meaning, impact and action. What they say of arguments is shown as <nic>, or as the event has it; inside
// a command only when a shell takes it for one plain word.
std::string ExplanationText(const CatalogueEvent &entry, const EventRecord *event = nullptr);

// What ends a problem, or what a clear ends, and on which arguments; empty for an audit.
std::string EndText(const Catalogue &catalogue, const CatalogueEvent &entry);

#endif
