// SPDX-License-Identifier: MIT
// The catalog file (CNID 4): the B-tree of every folder and file record, and
// the catalog record locators open on it.
//
// HFSPlusCatalogKey: keyLength (u16, 6 + 2 x name length), parentID (u32, the
// parent folder's CNID; for a thread record the item's own CNID), nodeName
// (u16 length, then that many big-endian UTF-16 units, decomposed). Records
// begin with a 16-bit type: 1 folder (88 bytes), 2 file (248 bytes), 3 folder
// thread and 4 file thread (10 + 2 x name length bytes: type, reserved,
// parentID, nodeName). A thread record's key is (the item's CNID, empty name),
// so a thread leads from a CNID to the item's folder or file record.
//
// File records that stand for links carry Finder codes: "slnk" "rhap" a
// symbolic link (its target in the data fork, UTF-8), "hlnk" "hfs+" a hard
// link to the indirect node file "iNode<number>" of the root's private
// folder "\0\0\0\0HFS+ Private Data", number in permissions.special.
#pragma once

#include <cstddef>
#include <cstdint>

#include "morv.hpp"

struct morv_device;
struct morv_extents;
struct morv_btree;
struct morv_btree_record_locator;
struct morv_rwlock;
struct morv_catalog_record_locator;

namespace catalog {
inline constexpr size_t kKeyLength = 0;
inline constexpr size_t kKeyParentId = 2;
inline constexpr size_t kKeyNameLength = 6;
inline constexpr size_t kKeyName = 8;
inline constexpr size_t kMinKeyLength = 6;   // parentID and an empty name
inline constexpr size_t kKeyBufferSize = 518;
inline constexpr size_t kMaxNameLength = 255;

inline constexpr uint16_t kFolderRecord = 1;
inline constexpr uint16_t kFileRecord = 2;
inline constexpr uint16_t kFolderThreadRecord = 3;
inline constexpr uint16_t kFileThreadRecord = 4;

inline constexpr size_t kFolderRecordSize = 88;
inline constexpr size_t kFileRecordSize = 248;
inline constexpr size_t kRecordType = 0;
inline constexpr size_t kRecordTypeSize = 2;
inline constexpr size_t kRecordFlags = 2;
inline constexpr size_t kFolderValence = 4;
inline constexpr size_t kRecordCnid = 8;  // folderID / fileID
inline constexpr size_t kFolderFolderCount = 84;
inline constexpr size_t kFileUserInfoType = 48;
inline constexpr size_t kFileUserInfoCreator = 52;
// File record fields: permissions.fileMode and permissions.special (a hard
// link's iNodeNum, an indirect node file's link count), userInfo.fdFlags,
// and the HFSPlusForkData of the data and resource forks.
inline constexpr size_t kFileMode = 42;
inline constexpr size_t kFileSpecial = 44;
inline constexpr size_t kFileFinderFlags = 56;
inline constexpr size_t kFileDataFork = 88;
inline constexpr size_t kFileResourceFork = 168;
inline constexpr size_t kThreadParentId = 4;
inline constexpr size_t kThreadName = 8;
inline constexpr size_t kThreadFixedSize = 10;

inline constexpr uint16_t kHasFolderCountFlag = 0x10;
inline constexpr uint16_t kDirectoryHardLinkFlag = 0x20;

// Finder type and creator codes of the file records that stand for links.
inline constexpr char kHardLinkType[] = "hlnk";
inline constexpr char kHardLinkCreator[] = "hfs+";
inline constexpr char kSymlinkType[] = "slnk";
inline constexpr char kSymlinkCreator[] = "rhap";
inline constexpr uint16_t kSymlinkFinderFlags = 0x8000;
inline constexpr uint16_t kSymlinkMode = 0xA1FF;  // S_IFLNK, every permission bit
// Longest symbolic link target, in UTF-8 bytes.
inline constexpr size_t kMaxSymlinkTarget = 255;

inline constexpr uint8_t kCompareCaseFolding = 0xCF;
inline constexpr uint8_t kCompareBinary = 0xBC;
}  // namespace catalog

struct morv_catalog_private;

struct morv_catalog {
  morv_catalog_private* priv;
};

struct morv_catalog_record_locator {
  morv_btree_record_locator* btree_locator;  // key and data of the record
  uint32_t record_type;   // low half: record type in host order after a path lookup
  morv_catalog_record_locator** parent;  // the parent locator field
  uint32_t reserved;      // always 0
  void* priv;
};

// Three words: as the engine's search result, with a catalog locator.
struct morv_catalog_search_result {
  uint32_t exact_match;
  uint32_t after_last_record;
  morv_catalog_record_locator* locator;
};

void morv_catalog_search_result_init(morv_catalog_search_result* result);
void morv_catalog_search_result_release(morv_catalog_search_result* result);

// Orders two on-disk catalog keys: parent ID, then name (case-folding for
// compare type 0xCF, binary for 0xBC). Negative when key_a sorts first.
int morv_catalog_compare_keys(const uint8_t* key_a, const uint8_t* key_b, uint32_t compare_type);

// The name length of a key held in `key_size` bytes (keyLength field
// included). MORV_ERR_CORRUPT when the key cannot hold a parent ID and a name
// length, or its name runs past keyLength.
[[nodiscard]] morv_err morv_catalog_key_name_length(const uint8_t* key, size_t key_size,
                                                    uint16_t* name_length);

[[nodiscard]] morv_err morv_catalog_create(morv_device* device, morv_extents* extents,
                                           uint8_t* volume_header, morv_catalog** out);
void morv_catalog_destroy(morv_catalog** catalog);
// The catalog's B-tree (owned by the catalog).
morv_btree* morv_catalog_btree(const morv_catalog* catalog);
// Writes the catalog file's modified cache blocks back.
[[nodiscard]] morv_err morv_catalog_flush(morv_catalog* catalog);
// Whether any catalog record locator is open on the catalog.
bool morv_catalog_has_open_locators(const morv_catalog* catalog);

[[nodiscard]] morv_err morv_catalog_record_locator_open(morv_catalog* catalog,
                                                        morv_btree_record_locator* btree_locator,
                                                        uint32_t word1,
                                                        morv_catalog_record_locator* parent,
                                                        uint32_t word3,
                                                        morv_catalog_record_locator** out);
morv_err morv_catalog_record_locator_close(morv_catalog_record_locator** locator);
void morv_catalog_record_locator_close_internal(morv_catalog_record_locator** locator);
[[nodiscard]] morv_err morv_catalog_record_locator_set_parent_locator(
    morv_catalog_record_locator* locator, morv_catalog_record_locator* parent);

// Lookups. On failure the result is left as it was and nothing stays open.
[[nodiscard]] morv_err morv_catalog_search_node(morv_catalog* catalog, const uint8_t* key,
                                                morv_catalog_search_result* result);
[[nodiscard]] morv_err morv_catalog_get_next_record(morv_catalog* catalog,
                                                    morv_catalog_record_locator* locator,
                                                    morv_catalog_record_locator** next);
[[nodiscard]] morv_err morv_catalog_insert_record(morv_catalog* catalog, const uint8_t* key,
                                                  const uint8_t* data, uint16_t data_length,
                                                  const morv_catalog_search_result* hint,
                                                  morv_catalog_record_locator** out);
[[nodiscard]] morv_err morv_catalog_follow_thread(morv_catalog* catalog,
                                                  morv_catalog_record_locator* thread,
                                                  morv_catalog_search_result* result);
[[nodiscard]] morv_err morv_catalog_search_by_cnid(morv_catalog* catalog, uint32_t cnid, int follow,
                                                   morv_catalog_search_result* result);

// Supplies the next path component as big-endian name units (at most
// `capacity`); *length 0 when the path has no more components.
using morv_catalog_component_source = morv_err (*)(void* context, uint16_t* destination,
                                                   size_t capacity, size_t* length);
[[nodiscard]] morv_err morv_catalog_search_by_path(morv_catalog* catalog,
                                                   morv_catalog_component_source next_component,
                                                   void* context,
                                                   morv_catalog_record_locator* start_folder,
                                                   morv_catalog_search_result* result);

// Re-keys the record under *locator to (new_parent, new_name) and rebuilds its
// thread record. new_parent and the name units are in on-disk byte order.
// The locator is consumed.
[[nodiscard]] morv_err morv_catalog_rename_record(morv_catalog* catalog,
                                                  morv_catalog_record_locator** locator,
                                                  uint32_t new_parent, const uint16_t* new_name,
                                                  size_t new_name_length);
[[nodiscard]] morv_err morv_catalog_update_valence(morv_catalog* catalog,
                                                   const uint8_t* child_record,
                                                   morv_catalog_record_locator* parent_locator,
                                                   int increment);
[[nodiscard]] morv_err morv_catalog_increment_valence(morv_catalog* catalog,
                                                      const uint8_t* child_record,
                                                      morv_catalog_record_locator* parent_locator);
[[nodiscard]] morv_err morv_catalog_decrement_valence(morv_catalog* catalog,
                                                      const uint8_t* child_record,
                                                      morv_catalog_record_locator* parent_locator);

// ---- Deletion and file records ----

struct morv_volume;

// A catalog record's bytes as the caller holds them (a copy of a locator's
// data, typically), and how many there are.
struct morv_catalog_record {
  uint8_t* data;
  size_t size;
};

// Deletes the folder or file record under `locator` with its thread record,
// lowers its parent's valence and the volume header's counts, and frees
// every block a file owns (both forks, their extents overflow records
// included). The last hard link to a file takes the indirect node file with
// it; others lower its link count. A folder must be empty, and the root
// cannot go. All or nothing: the catalog, the extents overflow tree, the
// bitmap and the header change together or not at all. The locator stays
// the caller's (it names nothing any more).
[[nodiscard]] morv_err morv_catalog_delete(morv_catalog* catalog, morv_volume* volume,
                                           morv_catalog_record_locator* locator);
// *empty_out = 1 when the folder under `locator` has no children, else 0.
[[nodiscard]] morv_err morv_catalog_is_directory_empty(morv_catalog* catalog,
                                                       morv_catalog_record_locator* locator,
                                                       int* empty_out);
// *can_out = 0 for a folder with children, else 1.
[[nodiscard]] morv_err morv_catalog_can_delete_file(morv_catalog* catalog,
                                                    morv_catalog_record_locator* locator,
                                                    int* can_out);
// The data fork's logicalSize, or the resource fork's when that is 0; a hard
// link is followed first. 0 when the size cannot be had.
uint64_t morv_catalog_record_get_file_size(const morv_catalog_record* record,
                                           morv_catalog* catalog);
// Stores `size` as the data fork's logicalSize in the record's bytes.
void morv_catalog_record_set_file_size(morv_catalog_record* record, uint64_t size);
// Makes the file record under `locator`, whose data fork must be empty, a
// symbolic link to `target` (host-order UTF-16), held in one new block.
[[nodiscard]] morv_err morv_catalog_mksymlink(morv_catalog_record_locator* locator,
                                              const uint16_t* target, size_t target_length,
                                              morv_volume* volume);
// Finds the indirect node file that a hard link's record stands for.
[[nodiscard]] morv_err morv_catalog_follow_hard_link(morv_catalog* catalog,
                                                     const morv_catalog_record* record,
                                                     morv_catalog_search_result* result);
// Converts host-order UTF-16 to NUL-terminated UTF-8 in `buffer` (backslashes
// become slashes); the byte count without the terminator, 0 on failure.
size_t morv_catalog_widechar_to_utf8(const uint16_t* units, size_t count, char* buffer,
                                     size_t buffer_size);
