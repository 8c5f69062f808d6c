// Opening and closing the allocation file.
#include "bitmap.hpp"

#include "fork.hpp"
#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "bitmap";
}

morv_err morv_bitmap_create(uint8_t* volume_header, morv_device* device, morv_extents* extents,
                            morv_bitmap** out) {
  morv::buffer<morv_bitmap> bitmap(static_cast<morv_bitmap*>(morv_malloc(sizeof(morv_bitmap))));
  if (!bitmap) {
    MORV_ERROR("Error while allocating %zu bytes of memory for morv_bitmap.\n", sizeof(morv_bitmap));
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<morv_bitmap_private> priv(
      static_cast<morv_bitmap_private*>(morv_malloc(sizeof(morv_bitmap_private))));
  if (!priv) {
    MORV_ERROR("Error while allocating %zu bytes of memory for morv_bitmap_private.\n",
               sizeof(morv_bitmap_private));
    return MORV_ERR_NO_MEMORY;
  }
  // A whole allocation block is the I/O unit of the bitmap.
  const uint32_t block_size = load_be32(volume_header + vh::kBlockSize);
  morv_fork* fork = nullptr;
  if (morv_err err = morv_fork_create(device, extents, 0, volume_header, kAllocationFileCnid,
                                      volume_header + vh::kAllocationFile, block_size, &fork)) {
    MORV_ERROR("Error while creating morv_fork for allocation file.\n");
    return err;
  }
  priv.get()->fork = fork;
  bitmap.get()->priv = priv.release();
  *out = bitmap.release();
  return MORV_OK;
}

void morv_bitmap_destroy(morv_bitmap** bitmap) {
  morv_fork_destroy(&(*bitmap)->priv->fork);
  morv_free((*bitmap)->priv);
  morv_free(*bitmap);
  *bitmap = nullptr;
}

morv_err morv_bitmap_flush(morv_bitmap* bitmap) { return morv_fork_flush(bitmap->priv->fork); }
