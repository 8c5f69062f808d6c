# SPDX-License-Identifier: MIT
"""What users get from a build: the manual page, the installed tree with a
program built against it through pkg-config, the Debian packages (CPack's and
dpkg-buildpackage's, checked by lintian) and the README's install commands.

Environment (set by CMake): MORV_BUILD_DIR, MORV_CMAKE, MORV_CPACK, MORV_CXX,
MORV_EMULATOR (e.g. qemu-arm, may be empty), MORV_STATIC (1 when the build
links statically), MORV_DEB_ARCHITECTURE (empty: the host's), MORV_VERSION.
Run one group: test_dist.py ManPage|Install|Package|DebianPackage|ReadmeInstall
"""

import glob
import os
import re
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


def run(command, timeout=300, **kwargs):
    return subprocess.run(command, capture_output=True, timeout=timeout, **kwargs)


def deb_arch():
    return os.environ.get("MORV_DEB_ARCHITECTURE") or \
        run(["dpkg", "--print-architecture"]).stdout.decode().strip()


def cpack(test, out):
    result = run([os.environ["MORV_CPACK"], "--config", os.path.join(BUILD, "CPackConfig.cmake"),
                  "-B", out])
    test.assertEqual(result.returncode, 0, result.stdout + result.stderr)


def lintian(test, debs):
    """lintian with informational tags: none may be reported, and every
    override shown must come with its reason (the comment above it). Tags
    are read from the output: with overrides shown, lintian's exit status
    would count overridden tags too."""
    result = run(["lintian", "-I", "--show-overrides", "--fail-on", "none"] + debs)
    lines = result.stdout.decode().splitlines()
    test.assertEqual([line for line in lines if re.match(r"[EWIX]: ", line)], [], result.stdout)
    test.assertEqual(result.returncode, 0, result.stdout + result.stderr)
    for i, line in enumerate(lines):
        if line.startswith("O: "):
            test.assertTrue(i and lines[i - 1].startswith("N: "), "override without a reason: " + line)


def source_copy(dest):
    """The source tree without build trees: what git tracks or would track."""
    listing = run(["git", "-C", SOURCE, "ls-files", "-z", "-co", "--exclude-standard"])
    if listing.returncode != 0:
        shutil.copytree(SOURCE, dest, ignore=shutil.ignore_patterns("build", ".git"))
        return
    for name in listing.stdout.decode().split("\0"):
        source = os.path.join(SOURCE, name)
        if name and os.path.isfile(source):
            os.makedirs(os.path.dirname(os.path.join(dest, name)), exist_ok=True)
            shutil.copy2(source, os.path.join(dest, name))


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
        cpack(self, out)
        arch = deb_arch()
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

        lintian(self, sorted(glob.glob(os.path.join(out, "*.deb"))))

        root = self.path("root")
        deb = os.path.join(out, "morvlabel_%s_%s.deb" % (VERSION, arch))
        self.assertEqual(run(["dpkg", "-x", deb, root]).returncode, 0)
        tool = os.path.join(root, "usr", "sbin", "morvlabel")
        kind = run(["file", "-b", tool]).stdout.decode()
        self.assertIn("statically linked" if STATIC else "dynamically linked", kind)
        self.assertIn("stripped", kind.replace("not stripped", ""))
        self.exercise(tool)


CONTROL_FIELDS = ("Package", "Version", "Architecture", "Maintainer", "Section", "Priority",
                  "Multi-Arch", "Depends", "Description")


def deb_contents(deb):
    """The files and links of a package, directories left out."""
    listing = run(["dpkg-deb", "-c", deb]).stdout.decode().splitlines()
    return sorted(line.split(None, 5)[5].removeprefix("./") for line in listing if line[0] != "d")


class DebianPackage(Installed):
    def test_dpkg_buildpackage_gives_the_packages_cpack_gives(self):
        # dpkg-buildpackage writes beside the tree it builds: a copy in scratch.
        tree = self.path("morvlabel")
        source_copy(tree)
        result = run(["dpkg-buildpackage", "-us", "-uc", "-b"], cwd=tree, timeout=900)
        self.assertEqual(result.returncode, 0, result.stdout[-3000:] + result.stderr[-3000:])
        cpack(self, self.path("cpack"))
        arch = deb_arch()
        debs = []
        for name in ("morvlabel", "libmorv-dev"):
            with self.subTest(package=name):
                # Named by debian/changelog's version, which must be the project's.
                deb = self.path("%s_%s_%s.deb" % (name, VERSION, arch))
                self.assertTrue(os.path.isfile(deb), os.listdir(self.path("")))
                debs.append(deb)
                other = os.path.join(self.path("cpack"), os.path.basename(deb))
                for field in CONTROL_FIELDS:
                    self.assertEqual(run(["dpkg-deb", "-f", deb, field]).stdout,
                                     run(["dpkg-deb", "-f", other, field]).stdout, field)
                self.assertEqual(deb_contents(deb), deb_contents(other))
                # Besides the compiled files, the same bytes: what the library
                # packages of two architectures share must be identical for
                # Multi-Arch: same.
                sums = [[line for line in run(["dpkg-deb", "-I", d, "md5sums"]).stdout.splitlines()
                         if not re.search(rb" usr/(lib|sbin)/", line)] for d in (deb, other)]
                self.assertTrue(sums[0])
                self.assertEqual(sums[0], sums[1])
        self.assertEqual(run(["dpkg-deb", "-f", debs[1], "Multi-Arch"]).stdout, b"same\n")
        self.assertIn("lib/%s/pkgconfig/morv.pc" % run(["dpkg-architecture", "-qDEB_HOST_MULTIARCH"])
                      .stdout.decode().strip(), "\n".join(deb_contents(debs[1])))
        lintian(self, debs)

        # Installed together into a dpkg database of their own, the tool works.
        root = self.path("root")
        for d in ("var/lib/dpkg/info", "var/lib/dpkg/updates"):
            os.makedirs(os.path.join(root, d))
        for f in ("status", "available"):
            open(os.path.join(root, "var/lib/dpkg", f), "w").close()
        result = run(["dpkg", "--root=" + root, "--force-not-root", "--force-depends",
                      "--force-script-chrootless", "--log=/dev/null", "-i"] + debs)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        status = run(["dpkg", "--root=" + root, "-l", "morvlabel", "libmorv-dev"]).stdout.decode()
        self.assertEqual(len(re.findall(r"^ii ", status, re.M)), 2, status)
        self.exercise(os.path.join(root, "usr", "sbin", "morvlabel"))


def readme_install_commands():
    """The first indented block of the README's Install section."""
    with open(os.path.join(SOURCE, "README.md")) as readme:
        section = readme.read().split("\n## Install\n", 1)[1].split("\n## ", 1)[0]
    block = re.search(r"((?:^    .*\n)+)", section, re.M).group(1)
    return [line[4:] for line in block.splitlines()]


class ReadmeInstall(Installed):
    def test_readme_install_commands_build_and_install_a_working_tool(self):
        commands = readme_install_commands()
        self.assertTrue(commands and "--build" in commands[-2] and "--install" in commands[-1],
                        commands)
        tree = self.path("source")
        source_copy(tree)
        # Run as written: sudo only passes the command on, which installs
        # under DESTDIR rather than into this machine.
        bin_dir = self.path("bin")
        os.makedirs(bin_dir)
        with open(os.path.join(bin_dir, "sudo"), "w") as sudo:
            sudo.write('#!/bin/sh\nexec "$@"\n')
        os.chmod(os.path.join(bin_dir, "sudo"), 0o755)
        root = self.path("root")
        env = dict(os.environ, DESTDIR=root, PATH=bin_dir + os.pathsep + os.environ["PATH"])
        for name in ("CXXFLAGS", "CPPFLAGS", "LDFLAGS", "CMAKE_BUILD_TYPE", "CMAKE_GENERATOR"):
            env.pop(name, None)
        result = run(["bash", "-euc", "\n".join(commands)], cwd=tree, env=env, timeout=600)
        self.assertEqual(result.returncode, 0, result.stdout[-3000:] + result.stderr[-3000:])
        # A user's build makes no tests and so needs neither GoogleTest nor Python.
        builds = glob.glob(os.path.join(tree, "**", "CMakeCache.txt"), recursive=True)
        self.assertEqual(len(builds), 1, builds)
        with open(builds[0]) as cache:
            self.assertNotRegex(cache.read(), r"(?m)^(GTest_DIR|Python3_EXECUTABLE|BUILD_TESTING:BOOL=ON)")
        self.assertFalse(os.path.exists(os.path.join(os.path.dirname(builds[0]), "morv_unit_tests")))
        installed = {}
        for name in ("sbin/morvlabel", "man8/morvlabel.8.gz", "include/morv/volume.hpp",
                     "libmorv.a", "pkgconfig/morv.pc"):
            found = glob.glob(os.path.join(root, "**", name), recursive=True)
            self.assertEqual(len(found), 1, "%s: %s" % (name, found))
            installed[name] = found[0]
        self.exercise(installed["sbin/morvlabel"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=2)
