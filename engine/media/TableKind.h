#pragma once
// The partition-table kind when sector 0 may not have been read: shared by
// the media layer's readers of sectors 0 and 1, not part of its interface.
#include <cstdint>

#include "media/DMedia.h"

namespace ambrel {

// As partitionTableKindOf, but when sector 0 could not be read a GPT header
// in sector 1 still tells GPT, so that one bad sector does not hide every
// volume.
PartitionTableKind partitionTableKindOf(bool sector0Read, const uint8_t* sector0, const uint8_t* sector1);

}  // namespace ambrel
