// What names a file system on a block device.
#ifndef SOURCES_BLOCKTAGS_H
#define SOURCES_BLOCKTAGS_H

#include <string>

// Label and UUID of the file system on a block device, as libblkid reads them from node ("/dev/sda1");
// empty texts for those that it does not have, or that cannot be read.
struct BlockTags {
    std::string label;
    std::string uuid;
};
BlockTags ReadBlockTags(const std::string &node);

#endif
