// SPDX-License-Identifier: MIT
// A program from outside the project, built against the installed library
// through pkg-config: prints an HFS+ volume's label, or changes it to an
// ASCII one when the volume's state allows.
//
//   consumer IMAGE [NEW-LABEL]
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <morv/btree.hpp>
#include <morv/catalog.hpp>
#include <morv/device_unix.hpp>
#include <morv/fork.hpp>
#include <morv/support_unix.hpp>
#include <morv/unicode.hpp>
#include <morv/volume.hpp>

namespace {

bool print_label(const morv_volume* volume) {
  uint16_t units[256];
  const size_t count = *volume->label_length;
  for (size_t i = 0; i < count; ++i) units[i] = load_be16(volume->label + 2 * i);
  char* utf8 = nullptr;
  size_t length = 0;
  if (morv_unistr_to_utf8(units, count, 0, &utf8, &length)) return false;
  printf("%.*s\n", static_cast<int>(length), utf8);
  morv_free(utf8);
  return true;
}

bool change_label(morv_volume* volume, const char* label) {
  morv_volume_state state = MORV_VOLUME_WRITABLE;
  if (morv_volume_check_state(volume, &state) || state != MORV_VOLUME_WRITABLE) return false;
  uint16_t units[255];  // ASCII: one unit per byte, stored big-endian
  const size_t count = strlen(label);
  if (count > 255) return false;
  for (size_t i = 0; i < count; ++i)
    store_be16(reinterpret_cast<uint8_t*>(&units[i]), static_cast<uint8_t>(label[i]));
  return morv_volume_set_label(volume, units, count) == MORV_OK &&
         morv_catalog_flush(volume->catalog) == MORV_OK;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) return 2;
  const bool change = argc == 3;
  const int fd = open(argv[1], change ? O_RDWR : O_RDONLY);
  morv_device* device = nullptr;
  morv_volume* volume = nullptr;
  if (fd < 0 || morv_device_create(fd, change ? 0 : 1, 512, 0, &device)) return 1;
  bool ok = morv_volume_create(device, 1, &volume) == MORV_OK;
  if (ok) ok = change ? change_label(volume, argv[2]) : print_label(volume);
  if (volume) morv_volume_destroy(&volume);
  morv_device_destroy(&device);
  close(fd);
  return ok ? 0 : 1;
}
