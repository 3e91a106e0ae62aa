#include "blockTags.h"

#include <blkid/blkid.h>
#include <memory>

BlockTags ReadBlockTags(const std::string &node)
{
    BlockTags tags;
    const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(
        blkid_new_probe_from_filename(node.c_str()), blkid_free_probe);
    if (probe == nullptr) return tags;
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID);
    if (blkid_do_safeprobe(probe.get()) != 0) return tags;
    const char *text = nullptr;
    if (blkid_probe_lookup_value(probe.get(), "LABEL", &text, nullptr) == 0) tags.label = text;
    if (blkid_probe_lookup_value(probe.get(), "UUID", &text, nullptr) == 0) tags.uuid = text;
    return tags;
}
