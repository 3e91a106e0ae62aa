// Refused: RowError_TextDoesNotFitArguments
// A text with a placeholder more than there are arguments.
#include "keldTranslation.h"

constexpr Translation kRow{
    "kel.dsfs.volume.umounted", Args("%p", "fileSystem"),
    "@&!*@*@(nox.audit.dsfs.volume.umounted)File system %s on volume %s is un-mounted."};
