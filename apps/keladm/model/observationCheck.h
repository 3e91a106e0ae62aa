// Checks observations against the catalogue before they are sent.
#ifndef KELADM_OBSERVATIONCHECK_H
#define KELADM_OBSERVATIONCHECK_H

#include "catalogue.h"
#include "observationWords.h"

#include <optional>
#include <span>
#include <string>

// The message format to send an observation with: the given one, or one that follows from the types of its
// arguments. Nothing when the format is to be guessed: the catalogue does not list the ID, but its agent
// posts something for any ID of its domain.
//
// Throws Failure for an ID that is no observation's, with the nearest one and what that takes; for too few
// or too many arguments; and for a format that has a text where a number belongs, or a number where a text
// does.
std::optional<std::string> CheckedFormat(const Catalogue &catalogue, const std::string &id,
                                         const std::optional<std::string> &format,
                                         std::span<const ArgumentWord> words);

// "kel.net.vmnic.linkstate.down takes: string nic (object)", for the end of a message.
std::string WhatItTakes(const CatalogueObservation &observation);

#endif
