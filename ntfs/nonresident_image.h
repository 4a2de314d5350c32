#pragma once
// The non-resident form of a resident value: clusters taken from the
// volume hold the value, and a header of the same type, name and instance
// names them. The image goes into the record in the place of the resident
// header.
#include <cstdint>
#include <vector>

#include "ntfs/ntfs_records.h"
#include "ntfs/run_list.h"

namespace ntfs {

class NTFSDriver;

struct NonresidentImage {
    std::vector<unsigned char> bytes;  // the header, its length a multiple of 8
    RunList runs;                      // the clusters, to be freed if the image isn't used

    AttributeRecord* header() { return reinterpret_cast<AttributeRecord*>(bytes.data()); }
};

// Takes the clusters (FILE_DISK_FULL when the volume has too few), writes
// the `length` bytes of `value` into them and builds the header after
// `resident`.
NonresidentImage MakeNonresidentImage(NTFSDriver* driver, const AttributeRecord* resident,
                                      const unsigned char* value, std::uint32_t length);

}  // namespace ntfs
