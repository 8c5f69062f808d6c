# SPDX-License-Identifier: MIT
"""End-to-end tests of the morvlabel binary on real volume images.

Images come from the project's image builder (tests/support/mkimage.py) and
from xorriso; blkid (util-linux) reads labels back independently and the
volume checker (tests/support/checkimage.py) checks every changed volume.

Environment: MORVLABEL and MORVLABEL_FAULTS (the tool and its
fault-injection build), MORV_EMULATOR (e.g. qemu-arm, may be empty).
Run one group: test_morvlabel.py CommandLine|Printing|Changing|Safety|Refusals
"""

import fcntl
import os
import re
import shutil
import subprocess
import sys
import time
import unicodedata
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import diskimage  # noqa: E402
from cli_support import (EMULATOR, TOOL, USAGE, ImageCase, blkid_label, build, build_hybrid_iso,  # noqa: E402
                         build_xorriso, check, contents, digest, hfs_decomposed, loop_device,
                         partx_partitions, tool, tool_in_mount_namespace, utf16_units)


def contents_to(path, data):
    with open(path, "wb") as f:
        f.write(data)


class CommandLine(ImageCase):
    def test_argument_errors_print_the_usage(self):
        image = self.path()
        build(image, "Args", "--size", 4 << 20)
        for args in ([], [image, "a", "b"], [image, "a", "b", "c"], ["--output-mode=raw"],
                     ["--output-mode=RAW", image], ["--output-mode=", image],
                     ["--output-mode=composedx", image], ["--output-mode=raw", image, "a", "b"]):
            with self.subTest(args=args):
                result = tool(*args)
                self.assertEqual(result.returncode, 1)
                self.assertEqual(result.stderr, USAGE)
                self.assertEqual(result.stdout, b"")

    def test_help_and_version_alone(self):
        version = USAGE.splitlines(keepends=True)[0]
        for args, out in ((["--help"], USAGE), (["-h"], USAGE), (["--version"], version), (["-V"], version)):
            with self.subTest(args=args):
                result = tool(*args)
                self.assertEqual((result.returncode, result.stdout, result.stderr), (0, out, b""))
        # With other arguments they are a device path, as before.
        self.assert_fails(tool("--version", self.path()), b"morvlabel: --version: No such file or directory\n")

    def test_open_failures_say_why(self):
        missing = self.path("missing.img")
        directory = self.path("dir")
        os.mkdir(directory)
        for path, reason in ((missing, b"No such file or directory"), (directory, b"Is a directory")):
            for args, mode in (([path], b"read"), ([path, "New"], b"read/write")):
                result = tool(*args)
                self.assertEqual((result.returncode, result.stderr),
                                 (1, b"Error while opening HFS+ volume in %s mode.\nmorvlabel: %s: %s\n"
                                  % (mode, os.fsencode(path), reason)))
        image = self.path()
        build(image, "Guarded", "--size", 4 << 20)
        before = digest(image)
        os.chmod(self.dir, 0o755)
        os.chmod(image, 0o600)
        if shutil.which("setpriv") and os.geteuid() == 0:
            nobody = tool(image, "New", wrapper=["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"])
            self.assertEqual(nobody.stderr, b"Error while opening HFS+ volume in read/write mode.\n"
                             b"morvlabel: %s: Permission denied\n" % os.fsencode(image))
        if subprocess.run(["chattr", "+i", image], capture_output=True).returncode == 0:
            try:
                self.assertEqual(tool(image, "New").stderr, b"Error while opening HFS+ volume in read/write "
                                 b"mode.\nmorvlabel: %s: Operation not permitted\n" % os.fsencode(image))
            finally:
                subprocess.run(["chattr", "-i", image], check=True)
        self.assertEqual(digest(image), before)

    def test_mounted_image_is_found_under_any_name(self):
        # The mount table writes the blank and the backslash as \040 and \134.
        image = self.path("mounted vol\\ume.img")
        build(image, "Mounted", "--size", 4 << 20)
        before = digest(image)
        os.symlink(image, self.path("link.img"))
        for name in ("mnt", "bound"):
            os.mkdir(self.path(name))
        # The image is the source of a mount, and its directory is bound elsewhere.
        script = ('mount -t tmpfs "$1" "$2" && mount --bind "$3" "$4" || exit 99; cd "$3"; shift 4; exec "$@"')
        names = [image, "./" + os.path.basename(image), self.path("link.img"),
                 self.dir + "//" + os.path.basename(image), os.path.join(self.path("bound"), os.path.basename(image))]
        for name in names:
            for args in ([name, "New"], [name]):
                with self.subTest(args=args):
                    result = tool_in_mount_namespace(self, script, [image, self.path("mnt"), self.dir,
                                                                    self.path("bound")], *args)
                    self.assertEqual((result.returncode, result.stdout, result.stderr),
                                     (1, b"", b"Refusing to open mounted file system.\n"))
        self.assertEqual(digest(image), before)
        # Unmounted, the same names reach the volume.
        self.assertEqual(tool(self.path("link.img")).stdout, b"Mounted\n")

    def test_mount_table_lines_are_read_as_getmntent_reads_them(self):
        image = self.path("vol ume\\x.img")
        build(image, "Listed", "--size", 4 << 20)
        escaped = image.replace("\\", "\\134").replace(" ", "\\040")
        other_escape = image.replace("\\", "\\\\").replace(" ", "\\040")
        # Lines longer than any read, with the image in a later field or first.
        long_line = "src /mnt tmpfs " + "o" * 40000 + " %s 0 0\n" % escaped
        long_first = "%s /mnt tmpfs %s 0 0\n" % (escaped, "o" * 40000)
        tables = [
            ("# comment\n\n" + long_line + "  \t" + escaped + " /mnt tmpfs rw 0 0", True),
            (long_line + other_escape + "\t/mnt tmpfs rw 0 0\n", True),
            (long_first + "src /mnt tmpfs rw 0 0\n", True),
            ("#" + escaped + " /mnt tmpfs rw 0 0\n" + long_line + escaped + "x /mnt tmpfs rw 0 0\n"
             + escaped[:-1] + " /mnt tmpfs rw 0 0\n" + image + " /mnt tmpfs rw 0 0\n", False),
        ]
        # The table is bound over this process's own mount table: /proc/mounts
        # is /proc/self/mounts, and the tool is exec'd in the shell's place.
        script = 'mount --bind "$1" /proc/$$/mounts || exit 99; shift; exec "$@"'
        for table, refused in tables:
            with self.subTest(table=table[:60], refused=refused):
                fake = self.path("mounts")
                with open(fake, "w") as f:
                    f.write(table)
                result = tool_in_mount_namespace(self, script, [fake], image)
                self.assertEqual(result.returncode, 1 if refused else 0, result.stderr)
                self.assertEqual(result.stdout, b"" if refused else b"Listed\n")
        # A table that opens but cannot be read (here the process's memory,
        # whose first page is unmapped) leaves the mount state unknown: the
        # run stops as if the table could not be opened.
        script = 'mount --bind /proc/$$/mem /proc/$$/mounts || exit 99; exec "$@"'
        result = tool_in_mount_namespace(self, script, [], image)
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (1, b"", b"Error while opening /proc/mounts for reading: Input/output error (5)\n"))

    def test_output_mode_is_ignored_when_changing(self):
        image = self.path()
        build(image, "Before", "--size", 4 << 20)
        result = tool("--output-mode=raw", image, "Caf\u00e9")
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        self.assert_prints(image, "Caf\u00e9")
        self.assert_prints(image, "Cafe\u0301", mode="raw")


class Printing(ImageCase):
    LABELS = ["Macintosh HD", "Caf\u00e9 \u00dcn\u00efc\u00f6de", "\ud55c\uad6d\uc5b4 \uc77c\ubcf8",
              "\u00c5ngstr\u00f6m \u1e9b", "x" * 255]

    def test_builder_volumes_print_composed_and_raw(self):
        for label in self.LABELS:
            for hfsx in (False, True):
                with self.subTest(label=label[:20], hfsx=hfsx):
                    image = self.path()
                    build(image, label, "--size", 8 << 20, "--files", 40,
                          *(["--hfsx"] if hfsx else []))
                    before = digest(image)
                    stored = hfs_decomposed(label)
                    self.assertEqual(blkid_label(image), stored.encode("utf-8"))
                    self.assert_prints(image, unicodedata.normalize("NFC", label))
                    self.assert_prints(image, stored, mode="raw")
                    self.assertEqual(digest(image), before, "printing wrote to the image")

    def test_xorriso_volumes(self):
        for label in ("XORRISO VOL", "R\u00e9sum\u00e9 \u00c9t\u00e9"):
            with self.subTest(label=label):
                image = self.path()
                build_xorriso(image, label, 30)
                # xorriso marks one unused block after the extents file.
                check(self, image, "--allow-orphan-blocks")
                stored = blkid_label(image)
                self.assertNotEqual(stored, b"")
                raw = tool("--output-mode=raw", image)
                self.assertEqual(raw.stdout, stored + b"\n")
                self.assert_prints(image, unicodedata.normalize("NFC", stored.decode("utf-8")))


class Changing(ImageCase):
    def test_volume_shapes(self):
        shapes = [
            # (block size, catalog node size, files, folders, fragments, hfsx, extra options)
            (4096, 4096, 1, 0, 1, False, []),
            (512, 1024, 300, 10, 1, False, ["--name-length", 20]),
            (4096, 8192, 2000, 40, 20, False, []),
            (1024, 4096, 500, 5, 12, True, []),
            (65536, 32768, 50, 2, 1, True, []),
        ]
        labels = ["New Name", "D\u00e9j\u00e0 vu \u00e0 M\u00fcnchen", "\ud55c\uae00 \ubcfc\ub968",
                  "L" * 255, "short"]
        for (block, node, files, folders, fragments, hfsx, extra), label in zip(shapes, labels):
            with self.subTest(block=block, node=node, files=files, hfsx=hfsx):
                image = self.path()
                info = build(image, "Old label", "--size", 64 << 20, "--block-size", block,
                             "--catalog-node-size", node, "--files", files, "--folders", folders,
                             "--catalog-fragments", fragments, *(["--hfsx"] if hfsx else []), *extra)
                self.change_and_verify(image, info, block, node, label)
                self.change_and_verify(image, info, block, node, "Back again")

    def test_long_names_split_nodes_and_replace_index_records(self):
        image = self.path()
        info = build(image, "A", "--size", 32 << 20, "--block-size", 512, "--catalog-node-size", 2048,
                     "--files", 3000, "--folders", 30, "--name-length", 120, "--free-catalog-nodes", 64)
        self.assertGreaterEqual(info["catalog"]["depth"], 4)
        for label in ("\u00e9" * 127, "B" * 255, "a", "Z" * 200):
            with self.subTest(label=label[:8]):
                self.change_and_verify(image, info, 512, 2048, label)

    def test_fifty_thousand_files(self):
        image = self.path()
        info = build(image, "Big volume", "--size", 256 << 20, "--files", 50000, "--folders", 200)
        self.change_and_verify(image, info, 4096, 4096, "Fifty thousand \u2603")

    def test_an_absurdly_deep_catalog(self):
        # 60 index nodes of one record each above the root: every level's
        # first key changes with the label, once.
        image = self.path()
        info = build(image, "Deep", "--size", 8 << 20, "--block-size", 512, "--catalog-node-size", 512,
                     "--files", 300, "--catalog-index-chain", 60)
        self.assertEqual(info["catalog"]["depth"], 64)
        start = time.monotonic()
        self.change_and_verify(image, info, 512, 512, "Deeper")
        self.assertLess(time.monotonic() - start, 60)

    def test_labels_that_name_nothing_or_are_not_utf8_are_refused(self):
        image = self.path()
        build(image, "Keep", "--size", 4 << 20)
        before = digest(image)
        for label in (b"", b".", b".."):
            with self.subTest(label=label):
                result = tool(image, label)
                self.assertEqual(result.returncode, 1)
                self.assertEqual(result.stderr, b'Invalid volume label "%s": a volume cannot be named '
                                 b'"", "." or "..".\n' % label)
        # Control characters would split the printed line or drive a terminal.
        for label, code, at in ((b"two\nlines", 0x0A, 4), (b"\ttab", 0x09, 1), (b"\x1b[31mred", 0x1B, 1),
                                (b"del\x7f", 0x7F, 4), (b"caf\xc3\xa9\x1f", 0x1F, 6)):
            with self.subTest(label=label):
                result = tool(image, label)
                self.assertEqual((result.returncode, result.stderr), (1, b"Invalid volume label: it contains the "
                                 b"control character U+%04X at byte %d; a label cannot hold control characters "
                                 b"(U+0000 to U+001F, U+007F).\n" % (code, at)))
        # A four-byte form above U+10FFFF, wherever it stands, and other invalid UTF-8.
        for label in (b"New\xf4\x90\x80\x80", b"\xf4\x90\x80\x80New", b"\xff", b"a\xc3", b"\xed\xa0\x80"):
            with self.subTest(label=label):
                self.assert_fails(tool(image, label), b"Error when converting volume label from UTF-8 to UTF-16.\n")
        # Too long once decomposed.
        for label in ("x" * 256, "\u00e9" * 200):
            with self.subTest(units=utf16_units(hfs_decomposed(label))):
                self.assert_fails(tool(image, label), b"Error while changing volume label.\n",
                                  b"Label length (%d) too large.\n" % utf16_units(hfs_decomposed(label)))
        self.assertEqual(digest(image), before)
        self.assert_prints(image, "Keep")


class Safety(ImageCase):
    # The tool's own last words on a failed print and a failed change.
    PRINT_FAILURES = (b"Error while opening volume in read mode.\n",
                      b"Error while opening device in read mode.\n",
                      b"Error while allocating memory for native-endian label.\n",
                      b"Error while converting UTF-16 string to UTF-8.\n")
    CHANGE_FAILURES = (b"Error while opening volume in read/write mode.\n",
                       b"Error while opening device in read/write mode.\n",
                       b"Error when converting volume label from UTF-8 to UTF-16.\n",
                       b"Error while changing volume label.\n",
                       b"Error while flushing changes to catalog file.\n")

    def test_injected_failures_leave_the_image_as_it_was(self):
        image = self.path()
        build(image, "Pristine", "--size", 8 << 20, "--block-size", 512, "--catalog-node-size", 512,
              "--files", 200, "--catalog-fragments", 10)
        pristine = contents(image)
        for ops in ("alloc", "read"):
            runs, _ = self.run_with_faults(ops, [image], image, self.PRINT_FAILURES)
            self.assertGreater(runs, 3)
            self.assertEqual(contents(image), pristine)
        for ops in ("alloc", "read", "write"):
            runs, (last_image, last_stderr) = self.run_with_faults(ops, [image, "Changed \u00e9"], image,
                                                                   self.CHANGE_FAILURES)
            self.assertGreater(runs, 1 if ops == "write" else 0)
            check(self, image)
            self.assertEqual(tool("--output-mode=raw", image).stdout, "Changed e\u0301\n".encode("utf-8"))
            if ops == "write":
                # The last write to fail is the sync after the flush: every
                # sector is out, yet the change is not known to be on stable
                # storage, so it is reported as a failed flush.
                self.assertIn(b"Error while syncing device", last_stderr)
                self.assertEqual(last_image, contents(image))

    def test_damaged_volumes_end_in_messages(self):
        # (corruption, what the library says about it, whether printing still works)
        cases = [
            ("root-name-length", b"name of 255 units runs past its keyLength of 20 bytes", False),
            ("root-thread-name-length", b"is too short for its name of 255 units", False),
            ("root-thread-no-data", b"Catalog record of 0 bytes is too short to hold a record type", False),
            ("root-folder-no-data", b"Catalog record of 0 bytes is too short to hold a record type", True),
            ("catalog-logical-size", b"is 4398046511104 bytes long, beyond its", False),
            ("extents-wrap", b"Extents reach beyond the fork's", False),
            ("extents-short-record", b"has 32 bytes; an extent record has 64", False),
            ("block-size", b"size 768 is not a power of two from 512 to 1048576", False),
            ("volume-beyond-device", b"Volume of 32768 allocation blocks of 512 bytes does not fit on its device of 8388608 bytes", False),
        ]
        for kind, message, prints in cases:
            with self.subTest(kind=kind):
                image = self.path()
                build(image, "Damaged", "--size", 8 << 20, "--block-size", 512,
                      "--catalog-node-size", 512, "--files", 50, "--catalog-fragments", 10,
                      "--corrupt", kind)
                before = digest(image)
                printed = tool(image)
                if prints:
                    self.assertEqual((printed.returncode, printed.stdout), (0, b"Damaged\n"))
                else:
                    self.assert_fails(printed, b"Error while opening volume in read mode.\n", message)
                self.assert_fails(tool(image, "New"), b"Error while changing volume label.\n" if prints else
                                  b"Error while opening volume in read/write mode.\n", message)
                self.assertEqual(digest(image), before)

    def test_a_label_the_catalog_cannot_hold(self):
        # A 255-unit name makes 518-byte keys. In 512-byte nodes no record can
        # hold one; in full 1024-byte nodes the index records that carry it
        # reach the root, which never splits. With 40-unit names the root
        # still has room for it and the change goes through. Full 4096-byte
        # nodes with none free cannot split for it.
        small = ["--block-size", 512, "--files", 400, "--folders", 10]
        cases = ((512, small + ["--name-length", 20],
                  b"Record cannot fit in a node given the B-tree's node size of 512 bytes"),
                 (1024, small + ["--name-length", 60], b"Unable to split root node.\n"),
                 (1024, small + ["--name-length", 40], None),
                 (4096, ["--files", 2000, "--free-catalog-nodes", 0, "--name-length", 40],
                  b"Need to expand B-tree, but this is not yet implemented.\n"))
        for node_size, options, refusal in cases:
            with self.subTest(node_size=node_size, options=options):
                image = self.path()
                build(image, "Small nodes", "--size", 16 << 20, "--catalog-node-size", node_size, *options)
                before = digest(image)
                result = tool(image, "B" * 255)
                if refusal is None:
                    self.assertEqual(result.returncode, 0, result.stderr)
                    check(self, image)
                    self.assertEqual(tool(image).stdout, b"B" * 255 + b"\n")
                    continue
                self.assert_fails(result, b"Error while changing volume label.\n", refusal)
                self.assertEqual(digest(image), before)
                self.assertEqual(tool(image).stdout, b"Small nodes\n")

    def test_a_change_waits_for_a_reader(self):
        image = self.path()
        build(image, "Shared", "--size", 4 << 20)
        with open(image, "rb") as reader:
            fcntl.flock(reader, fcntl.LOCK_SH)  # what a printing morvlabel holds
            self.assertEqual(tool(image).stdout, b"Shared\n")  # readers share
            command = EMULATOR + [TOOL, image, "Exclusive"]
            writer = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            time.sleep(0.7)
            self.assertIsNone(writer.poll(), "the change did not wait for the reader")
            fcntl.flock(reader, fcntl.LOCK_UN)
        out, err = writer.communicate(timeout=120)
        self.assertEqual((writer.returncode, err), (0, b""))
        self.assertEqual(tool(image).stdout, b"Exclusive\n")
        check(self, image)


class Refusals(ImageCase):
    """A change that the volume's own state makes unsafe is refused before
    anything is written; printing the same volume still works."""
    WHY = {
        "locked": b"the volume is software-locked, which tells every writer to leave it alone. "
                  b"Unlock it on the system that locked it (a hybrid ISO image stays locked: "
                  b"rebuild it with the new name), then try again.",
        "dirty": b"the volume's journal holds transactions that have not been replayed, and a Mac "
                 b"replaying them later would undo the change. Mount the volume on a Mac and "
                 b"eject it, then try again.",
        "elsewhere": b"the volume's journal is on another device, so it cannot be checked. Turn "
                     b"journaling off on a Mac (diskutil disableJournal), then try again.",
        "damaged": b"the volume's journal information is damaged, so the journal cannot be "
                   b"checked. Repair the volume on a Mac (First Aid in Disk Utility), then try again.",
        "inconsistent": b"the volume is marked inconsistent. Repair it (fsck.hfsplus, or First Aid "
                        b"in Disk Utility on a Mac), then try again.",
        "unmounted": b"the volume was not cleanly unmounted: it may be mounted elsewhere, for "
                     b"example under another name of the same device, or damaged. Unmount it "
                     b"everywhere, or repair it (fsck.hfsplus, or First Aid in Disk Utility on a "
                     b"Mac), then try again.",
    }

    def assert_refused(self, image, why, label):
        before = digest(image)
        result = tool(image, "Renamed")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, b"")
        self.assertEqual(result.stderr, b"Refusing to change the label: " + self.WHY[why] + b"\n")
        self.assertEqual(digest(image), before, "a refused change wrote to the volume")
        self.assert_prints(image, unicodedata.normalize("NFC", label))
        self.assert_prints(image, hfs_decomposed(label), mode="raw")

    def test_unsafe_states_refuse_a_change_and_still_print(self):
        cases = [
            (["--software-lock"], "locked"),
            (["--journal", "dirty"], "dirty"),
            (["--journal", "dirty", "--journal-byte-order", "big", "--block-size", 512], "dirty"),
            (["--journal", "other-device"], "elsewhere"),
            (["--journal", "damaged"], "damaged"),
            (["--inconsistent"], "inconsistent"),
            (["--not-unmounted"], "unmounted"),
            (["--not-unmounted", "--journal", "dirty", "--inconsistent"], "dirty"),
        ]
        for options, why in cases:
            with self.subTest(options=options):
                image = self.path()
                build(image, "Caf\u00e9 state", "--size", 8 << 20, "--files", 30, *options)
                self.assert_refused(image, why, "Caf\u00e9 state")

    def test_clean_and_uninitialised_journals_allow_a_change(self):
        for journal, order in (("clean", "little"), ("clean", "big"), ("uninitialised", "little")):
            with self.subTest(journal=journal, order=order):
                image = self.path()
                info = build(image, "Journaled", "--size", 8 << 20, "--files", 30, "--journal", journal,
                             "--journal-byte-order", order)
                journal_blocks = [(j["start"] * 4096, (j["start"] + j["blocks"]) * 4096)
                                  for j in info["journal"].values()]
                before = contents(image)
                result = tool(image, "R\u00e9nam\u00e9")
                self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
                check(self, image)
                self.assert_prints(image, "R\u00e9nam\u00e9")
                after = contents(image)
                for lo, hi in journal_blocks + [(0, 4096)]:
                    self.assertEqual(after[lo:hi], before[lo:hi], "journal or volume header changed")

    def test_xorriso_hybrids_are_software_locked(self):
        image = self.path()
        build_xorriso(image, "XORRISO VOL", 3)
        self.assert_refused(image, "locked", "XORRISO VOL")


class Identification(ImageCase):
    """A file that holds no HFS+ volume is named for what it holds."""

    def assert_named(self, image, line):
        before = digest(image)
        for args, mode in (([image], b"read"), ([image, "New"], b"read/write")):
            with self.subTest(image=os.path.basename(image), mode=mode):
                result = tool(*args)
                self.assertNotIn(b"Sanitizer", result.stderr)
                self.assert_fails(result, b"Error while opening volume in %s mode.\nmorvlabel: %s: %s\n"
                                  % (mode, os.fsencode(image), line.encode("utf-8")))
        self.assertEqual(digest(image), before, "a file that is not HFS+ was written")

    def test_file_systems_and_short_files(self):
        volume = self.path("volume.img")
        build(volume, "Wrapped", "--size", 4 << 20)
        makers = [
            ("empty", lambda p: open(p, "wb").close(), "not an HFS+ volume but an empty file"),
            ("short", lambda p: contents_to(p, b"x" * 1535), "not an HFS+ volume but a file of 1535 bytes, "
                                                              "too short to hold one"),
            ("zeros", lambda p: contents_to(p, bytes(1 << 20)), "not an HFS+ volume: its first 68 KiB are all zeros"),
            ("fat12", lambda p: diskimage.fat(p, "FAT12", "FLOPPY"), 'not an HFS+ volume but a FAT12 file system labelled "FLOPPY"'),
            ("fat32", lambda p: diskimage.fat(p, "FAT32", "NO NAME"), "not an HFS+ volume but a FAT32 file system"),
            ("exfat", lambda p: diskimage.boot_sector(p, "EXFAT"), "not an HFS+ volume but an exFAT file system"),
            ("ntfs", lambda p: diskimage.boot_sector(p, "NTFS"), "not an HFS+ volume but an NTFS file system"),
            ("iso", lambda p: diskimage.iso9660(p, "CD\x1b[2J"),
             'not an HFS+ volume but an ISO 9660 image labelled "CD\\x1B[2J" with no HFS+ volume'),
            ("hfs", lambda p: diskimage.hfs(p, "Caf\u00e9"), 'not an HFS+ volume but a plain HFS (Mac OS Standard) '
             'volume labelled "Caf\\x8E", which morvlabel does not handle'),
            ("wrapper", lambda p: diskimage.hfs(p, "Outer", 16 << 20, wrapped=volume),
             'not an HFS+ volume but an HFS wrapper around one: HFS+ volume "Wrapped" starts at byte 65536. '
             'Attach it with "losetup --find --show --offset 65536 %s" and name the loop device it prints'),
        ]
        if shutil.which("mkfs.ext4"):
            makers += [(kind, lambda p, k=kind, label=label: subprocess.run(
                            ["mkfs.ext4", "-q", "-t", k, "-L", label, p, "8M"], check=True, capture_output=True), line)
                       for kind, label, line in (("ext2", "", "not an HFS+ volume but an ext2 file system"),
                                                 ("ext4", "ORIG", 'not an HFS+ volume but an ext4 file system '
                                                  'labelled "ORIG"'))]
        for name, make, line in makers:
            image = self.path(name + ".img")
            make(image)
            self.assert_named(image, line.replace("%s", image))

    def test_disks_name_their_hfs_partitions(self):
        mb = 1 << 20
        plus, hfsx, damaged = self.path("plus.img"), self.path("hfsx.img"), self.path("damaged.img")
        build(plus, "Data \u00e9t\u00e9", "--size", 8 << 20)
        build(hfsx, "Other", "--size", 4 << 20, "--hfsx")
        build(damaged, "Lost", "--size", 4 << 20, "--corrupt", "root-thread-no-data")
        gpt, mbr, iso = self.path("gpt.img"), self.path("mbr.img"), self.path("hybrid.iso")
        diskimage.gpt_disk(gpt, 32 * mb, [(1, mb, 8 * mb, diskimage.HFS_PLUS_TYPE, plus, "Mac"),
                                          (2, 9 * mb, 4 * mb, diskimage.LINUX_DATA_TYPE, None, "Linux"),
                                          (4, 20 * mb, 4 * mb, diskimage.HFS_PLUS_TYPE, damaged, "Lost")])
        diskimage.mbr_disk(mbr, 32 * mb, [(mb, 8 * mb, 0x83, None)],
                           [(10 * mb, 4 * mb, 0x83, None), (16 * mb, 4 * mb, 0xAF, hfsx)])
        build_hybrid_iso(iso, "HYBRID VOL")
        advice = '. Attach the image with "losetup --find --show --partscan %s" and name partition %d of the ' \
                 'loop device it prints (/dev/loopNp%d)'
        cases = [
            (gpt, 'a GUID partition table: partition 1 at byte 1048576 holds HFS+ volume "Data \u00e9t\u00e9", '
             'partition 4 at byte 20971520 holds an HFS+ volume whose label cannot be read', 1),
            (mbr, 'an MBR partition table: partition 6 at byte 16777216 holds HFSX volume "Other"', 6),
            (iso, 'an Apple partition map: partition 3 at byte 65536 holds HFS+ volume "HYBRID VOL"', 3),
        ]
        for image, table, first in cases:
            self.assert_named(image, "not an HFS+ volume but a disk with " + table + advice % (image, first, first))
            # util-linux finds the same partitions at the same offsets.
            found = partx_partitions(image)
            for number, offset in re.findall(r"partition (\d+) at byte (\d+) holds", table):
                self.assertEqual(found[int(number)], int(offset))

    def test_damaged_tables_end_in_a_line(self):
        mb = 1 << 20
        tables = [
            ("count", dict(count=0xFFFFFFFF), "a GUID partition table and no HFS+ partition"),
            ("entry-size", dict(entry_size=0x80000000), "a GUID partition table and no HFS+ partition"),
            ("entries-beyond", dict(entries_at=1 << 60), "a GUID partition table and no HFS+ partition"),
        ]
        for name, damage, table in tables:
            image = self.path(name + ".img")
            diskimage.gpt_disk(image, 8 * mb, [(1, mb, 4 * mb, diskimage.HFS_PLUS_TYPE, None, "x")], **damage)
            self.assert_named(image, "not an HFS+ volume but a disk with " + table)
        beyond = self.path("beyond.img")
        diskimage.gpt_disk(beyond, 8 * mb, [(1, 6 * mb, 4 * mb, diskimage.HFS_PLUS_TYPE, None, "x")])
        self.assert_named(beyond, "not an HFS+ volume but a disk with a GUID partition table and no HFS+ partition")
        looped = self.path("loop.img")
        diskimage.ebr_loop(looped, 8 * mb)
        self.assert_named(looped, "not an HFS+ volume but a disk with an MBR partition table and no HFS+ partition")


class LoopDevices(ImageCase):
    """An image behind a loop device that is mounted or held is refused by
    every name; a whole disk named by its device is told its partition."""

    def test_images_behind_loop_devices(self):
        image = self.path()
        build(image, "Looped", "--size", 4 << 20)
        before = digest(image)
        mountpoint = self.path("mnt")
        os.mkdir(mountpoint)
        os.symlink(image, self.path("link.img"))
        refused = (1, b"", b"Refusing to open mounted file system.\n")
        with loop_device(self, image) as loop:
            os.symlink(loop, self.path("loop-link"))
            # Attached but unused, the image is no one's.
            self.assertEqual(tool(image).stdout, b"Looped\n")
            script = 'mount -t tmpfs "$1" "$2" || exit 99; shift 2; exec "$@"'
            for args in ([image, "New"], [self.path("link.img")], [self.path("loop-link"), "New"]):
                with self.subTest(mounted=args):
                    result = tool_in_mount_namespace(self, script, [loop, mountpoint], *args)
                    self.assertEqual((result.returncode, result.stdout, result.stderr), refused)
            holder = os.open(loop, os.O_RDONLY | os.O_EXCL)
            try:
                result = tool(image, "New")
                self.assertEqual((result.returncode, result.stdout, result.stderr), refused)
                self.assertEqual(tool(loop, "New").stderr, b"Refusing to open mounted file system.\n"
                                 b"morvlabel: %s: Device or resource busy\n" % loop.encode())
            finally:
                os.close(holder)
            self.assertEqual(digest(image), before)
            # Free again, the loop device itself can be changed.
            self.assertEqual(tool(loop, "Via loop").returncode, 0)
        self.assertEqual(tool(image).stdout, b"Via loop\n")
        check(self, image)

    def test_a_mounted_loop_device_and_a_whole_disk_device(self):
        ext4 = self.path("ext4.img")
        subprocess.run(["mkfs.ext4", "-q", "-L", "Linux", ext4, "8M"], check=True, capture_output=True)
        before = digest(ext4)
        mountpoint = self.path("mnt")
        os.mkdir(mountpoint)
        # Where loop devices cannot be had, mount fails and the test is skipped.
        script = 'mount -o loop,ro "$1" "$2" || exit 99; shift 2; exec "$@"'
        result = tool_in_mount_namespace(self, script, [ext4, mountpoint], ext4, "New")
        self.assertEqual((result.returncode, result.stderr), (1, b"Refusing to open mounted file system.\n"))
        self.assertEqual(digest(ext4), before)
        volume, disk = self.path("volume.img"), self.path("disk.img")
        build(volume, "Inside", "--size", 4 << 20)
        diskimage.gpt_disk(disk, 16 << 20, [(2, 1 << 20, 4 << 20, diskimage.HFS_PLUS_TYPE, volume, "Mac")])
        with loop_device(self, disk) as loop:
            result = tool(loop)
            self.assertTrue(result.stderr.endswith(b'partition 2 at byte 1048576 holds HFS+ volume "Inside". '
                                                   b"Name the partition instead: %sp2\n" % loop.encode()),
                            result.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=2)
