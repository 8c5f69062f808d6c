"""What users get from a build: the manual page, the installed tree with a
program built against it through pkg-config, and the Debian packages.

Environment (set by CMake): MORV_BUILD_DIR, MORV_CMAKE, MORV_CPACK, MORV_CXX,
MORV_EMULATOR (e.g. qemu-arm, may be empty), MORV_STATIC (1 when the build
links statically), MORV_DEB_ARCHITECTURE (empty: the host's), MORV_VERSION.
Run one group: test_dist.py ManPage|Install|Package
"""

import glob
import os
import shutil
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(SOURCE, "tests", "support"))
from cli_support import EMULATOR, ImageCase, build, check  # noqa: E402

BUILD = os.environ.get("MORV_BUILD_DIR", "")
VERSION = os.environ.get("MORV_VERSION", "")
STATIC = os.environ.get("MORV_STATIC") == "1"
MAN_PAGE = os.path.join(SOURCE, "doc", "morvlabel.8")
SECTIONS = ["NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "REFUSALS", "FILES",
            "EXAMPLES", "SEE ALSO"]


def run(command, **kwargs):
    return subprocess.run(command, capture_output=True, timeout=300, **kwargs)


class ManPage(unittest.TestCase):
    def test_lints_clean_and_renders_every_section(self):
        for lint in (["mandoc", "-T", "lint", "-W", "warning", MAN_PAGE],
                     ["groff", "-man", "-ww", "-z", MAN_PAGE]):
            with self.subTest(lint=lint[0]):
                result = run(lint)
                self.assertEqual((result.returncode, result.stdout + result.stderr), (0, b""))
        result = run(["man", "--warnings", "-l", MAN_PAGE], env=dict(os.environ, MANWIDTH="80"))
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        lines = result.stdout.decode().splitlines()
        self.assertEqual([line for line in lines if line and not line[0].isspace()][1:-1], SECTIONS)
        self.assertIn("morvlabel " + VERSION, lines[-1], "the page names another version")
        text = result.stdout.decode()
        for needed in ("/proc/mounts", "blkid(8)", "255", "--output-mode=raw|composed"):
            self.assertIn(needed, text)


class Installed(ImageCase):
    """Runs the installed tool and a program on a volume: print, change,
    print again, check."""

    def exercise(self, tool, consumer=None):
        image = self.path("volume.img")
        build(image, "Installed", "--size", 8 << 20, "--files", 50)
        for program in [tool] + ([consumer] if consumer else []):
            result = run(EMULATOR + [program, image])
            self.assertEqual((result.returncode, result.stdout), (0, b"Installed\n"), result.stderr)
        result = run(EMULATOR + [consumer or tool, image, "Renamed"])
        self.assertEqual(result.returncode, 0, result.stderr)
        check(self, image)
        self.assertEqual(run(EMULATOR + [tool, image]).stdout, b"Renamed\n")
        locked = self.path("locked.img")
        build(locked, "Locked", "--size", 4 << 20, "--software-lock")
        self.assertEqual(run(EMULATOR + [consumer or tool, locked, "Nope"]).returncode, 1)


class Install(Installed):
    def test_install_tree_and_a_program_built_against_it(self):
        root = self.path("root")
        result = run([os.environ["MORV_CMAKE"], "--install", BUILD, "--prefix", "/usr"],
                     env=dict(os.environ, DESTDIR=root))
        self.assertEqual(result.returncode, 0, result.stderr)
        for path in ("usr/sbin/morvlabel", "usr/share/man/man8/morvlabel.8.gz",
                     "usr/include/morv/morv.hpp", "usr/include/morv/volume.hpp",
                     "usr/include/morv/catalog.hpp"):
            self.assertTrue(os.path.isfile(os.path.join(root, path)), path)
        archives = glob.glob(os.path.join(root, "usr", "lib*", "**", "libmorv.a"), recursive=True)
        pc_files = glob.glob(os.path.join(root, "usr", "lib*", "**", "pkgconfig", "morv.pc"),
                             recursive=True)
        self.assertEqual((len(archives), len(pc_files)), (1, 1))

        # Only the installed tree is visible to pkg-config.
        env = dict(os.environ, PKG_CONFIG_LIBDIR=os.path.dirname(pc_files[0]))
        env.pop("PKG_CONFIG_PATH", None)
        flags = run(["pkg-config", "--cflags", "--libs", "morv"], env=env)
        self.assertEqual(flags.returncode, 0, flags.stderr)
        self.assertEqual(run(["pkg-config", "--modversion", "morv"], env=env).stdout.strip(),
                         VERSION.encode())
        consumer = self.path("consumer")
        compile_ = run([os.environ["MORV_CXX"], "-std=c++20", os.path.join(HERE, "consumer.cpp"),
                        "-o", consumer] + flags.stdout.decode().split() + (["-static"] if STATIC else []))
        self.assertEqual(compile_.returncode, 0, compile_.stderr)
        self.exercise(os.path.join(root, "usr", "sbin", "morvlabel"), consumer)


class Package(Installed):
    def test_debian_packages(self):
        out = self.path("packages")
        result = run([os.environ["MORV_CPACK"], "--config", os.path.join(BUILD, "CPackConfig.cmake"),
                      "-B", out])
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        arch = os.environ.get("MORV_DEB_ARCHITECTURE") or \
            run(["dpkg", "--print-architecture"]).stdout.decode().strip()
        expected = {
            "morvlabel": ["./usr/sbin/morvlabel", "./usr/share/man/man8/morvlabel.8.gz"],
            "libmorv-dev": ["./usr/include/morv/volume.hpp", "libmorv.a", "pkgconfig/morv.pc"],
        }
        for name, paths in expected.items():
            with self.subTest(package=name):
                deb = os.path.join(out, "%s_%s_%s.deb" % (name, VERSION, arch))
                self.assertTrue(os.path.isfile(deb), os.listdir(out))
                info = run(["dpkg-deb", "-I", deb]).stdout.decode()
                for field in ("Package: " + name, "Version: " + VERSION, "Architecture: " + arch,
                              "Maintainer: ", "Section: ", "Description: "):
                    self.assertIn("\n " + field, info)
                depends = [line for line in info.splitlines() if line.startswith(" Depends: ")]
                if name == "morvlabel" and not STATIC:
                    self.assertEqual(len(depends), 1, info)
                    self.assertIn("libc6 (>= ", depends[0])
                else:
                    self.assertEqual(depends, [], "a static build depends on nothing")
                listing = run(["dpkg-deb", "-c", deb]).stdout.decode()
                files = [line.split()[-1] for line in listing.splitlines()]
                for path in paths:
                    self.assertTrue(any(f == path or f.endswith("/" + path) for f in files),
                                    "%s not in %s" % (path, files))

        root = self.path("root")
        deb = os.path.join(out, "morvlabel_%s_%s.deb" % (VERSION, arch))
        self.assertEqual(run(["dpkg", "-x", deb, root]).returncode, 0)
        tool = os.path.join(root, "usr", "sbin", "morvlabel")
        kind = run(["file", "-b", tool]).stdout.decode()
        self.assertIn("statically linked" if STATIC else "dynamically linked", kind)
        self.assertIn("stripped", kind.replace("not stripped", ""))
        self.exercise(tool)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=2)
