// The allocation file (CNID 6): one bit per allocation block of the volume,
// block n at bit 7 - (n mod 8) of byte n / 8 (the most significant bit of byte
// 0 is block 0); a set bit means the block is allocated. It is opened as a
// fork whose I/O unit is a whole allocation block.
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_device;
struct morv_extents;
struct morv_fork;

struct morv_bitmap_private {
  morv_fork* fork;
};

struct morv_bitmap {
  morv_bitmap_private* priv;
};

[[nodiscard]] morv_err morv_bitmap_create(uint8_t* volume_header, morv_device* device,
                                          morv_extents* extents, morv_bitmap** out);
// Destroys the bitmap's fork without flushing it; clears the handle.
void morv_bitmap_destroy(morv_bitmap** bitmap);
// Writes the allocation file's modified cache blocks back.
[[nodiscard]] morv_err morv_bitmap_flush(morv_bitmap* bitmap);
