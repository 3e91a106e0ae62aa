#include "source.h"

std::span<const SourceKind *const> SourceKinds()
{
    static const SourceKind *const kinds[] = {&kLinkSource,   &kBlockSource,  &kFileSystemSource,
                                              &kClockSource,  &kMemorySource, &kServiceSource,
                                              &kJournalSource};
    return kinds;
}
