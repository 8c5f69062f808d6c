// The extents overflow file. Until its B-tree can be opened, no fork can
// reach extents beyond the eight of its fork data.
#include "extents.hpp"

namespace {
constexpr const char* kLogSource = "extents";
}

morv_err morv_extents_get_next_extent_record(morv_extents* /*extents*/, uint8_t /*fork_type*/,
                                             uint32_t /*cnid*/, uint32_t /*start_block*/,
                                             int* /*found*/, uint8_t* /*record*/) {
  MORV_ERROR("The extents overflow tree is not available yet.\n");
  return MORV_ERR_UNSUPPORTED;
}
