// SPDX-License-Identifier: MIT
// What a file or device holds when it is not an HFS+ volume: the tool's one
// line of advice after a failed set-up.
#pragma once

// When `fd`, opened from `path`, does not start with an HFS+ volume header,
// writes one line on standard error, "morvlabel: PATH: ...", saying what it
// holds instead: a partition table (with each partition that holds HFS+ or
// HFSX, its number, byte offset and label, and the device to name instead),
// another file system, or too little to hold anything. Writes nothing when
// the file starts with an HFS+ volume header (set-up has already said what is
// wrong with the volume) or cannot be read.
void morvlabel_identify(int fd, const char* path);
