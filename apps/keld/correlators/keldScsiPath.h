// Paths to SCSI devices, a part of the SCSI correlator. All of it runs on the SCSI agent's thread.
#ifndef KELD_SCSIPATH_H
#define KELD_SCSIPATH_H

#include "keldDomain.h"

#include <array>

// What is observed of paths: their states, their coming and going, their resets.
extern const std::array<KeldObservation, 7> keldScsiPathObservations;

#endif
