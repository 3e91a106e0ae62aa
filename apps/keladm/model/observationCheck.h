// Observations against the catalogue, before they are sent: what a tired hand gets wrong.
#ifndef KELADM_OBSERVATIONCHECK_H
#define KELADM_OBSERVATIONCHECK_H

#include "catalogue.h"
#include "observationWords.h"

#include <optional>
#include <span>
#include <string>

// The message format to send an observation with: the given one, or one that follows from the types of its
// arguments. Nothing, for a guess, where no catalogue lists the ID and an agent makes something of it all
// the same. Throws Failure, saying what is nearest and what it takes, for an ID that is no observation's,
// too few or too many arguments, and a format that has a text where a number belongs or a number where a
// text does.
std::optional<std::string> CheckedFormat(const Catalogue &catalogue, const std::string &id,
                                         const std::optional<std::string> &format,
                                         std::span<const ArgumentWord> words);

// "kel.net.vmnic.linkstate.down takes: string nic (object)", for the end of a message.
std::string WhatItTakes(const CatalogueObservation &observation);

#endif
