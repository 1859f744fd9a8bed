"""What `cmake --install` leaves: it works from any prefix, and from wherever that was moved to afterwards."""
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

BUILD = os.environ.get("QV_TEST_BUILD", "")
CMAKE = os.environ.get("QV_TEST_CMAKE", "cmake")
COMPILER = os.environ.get("QV_TEST_CC", "cc")

PROGRAM = """
#include <quorvel.h>
#include <stdio.h>
int main(void) {
  puts(QV_VERSION);
  return qv_untracked() != 0;
}
"""
PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(application LANGUAGES C)
find_package(quorvel {version} REQUIRED)
add_executable(application application.c)
target_link_libraries(application quorvel::quorvel)
"""


def run(*command, **environment):
    done = subprocess.run([str(word) for word in command], env={**os.environ, **environment}, capture_output=True, text=True,
                          timeout=120)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


class Install(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="quorveld-install-"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.source = self.folder / "application.c"
        self.source.write_text(PROGRAM)

    def found(self, below, name):
        paths = list(below.rglob(name))
        self.assertEqual(len(paths), 1, f"{name} below {below}: {paths}")
        return paths[0]

    def texts_with(self, below, text):
        """The installed files, programs and libraries aside, that hold `text`."""
        compiled = (b"\x7fELF", b"!<arch>")
        return [path for path in below.rglob("*") if path.is_file() and not path.read_bytes().startswith(compiled)
                and text.encode() in path.read_bytes()]

    def flags(self, below, **environment):
        packages = self.found(below, "quorvel.pc").parent
        return run("pkg-config", "--cflags", "--libs", "quorvel", PKG_CONFIG_PATH=str(packages), **environment).split()

    def version(self, flags):
        """Builds the program with `flags`, runs it, and returns what it says."""
        program = self.folder / "application"
        run(COMPILER, self.source, "-o", program, *flags)
        libraries = [flag[2:] for flag in flags if flag.startswith("-L")]
        return run(program, LD_LIBRARY_PATH=":".join(libraries)).strip()

    def test_a_prefix_is_all_that_units_and_packages_know(self):
        prefix = self.folder / "first"
        run(CMAKE, "--install", BUILD, "--prefix", prefix)
        for unit in prefix.rglob("*.service"):
            programs = re.findall(r"^Exec\w+=(/\S+)", unit.read_text(), re.MULTILINE)
            if unit.name != "quorveld-preferences.service":  # it runs the system's own, by their names
                self.assertTrue(programs)
            for program in programs:
                self.assertTrue(os.access(program, os.X_OK), f"{unit.name}: {program}")
                self.assertEqual(pathlib.Path(program).parent, prefix / "sbin")
        self.found(prefix, "quorveld.service")
        self.assertEqual({path.suffix for path in self.texts_with(prefix, str(prefix))}, {".service"})
        self.assertEqual(self.texts_with(prefix, BUILD), [])
        self.explains_its_messages(prefix)

        self.assertEqual(self.found(prefix, "qv_slot_begin.3").read_text(), ".so man3/libquorvel.3\n")
        for header in ("quorvel-glib.h", "quorvel-qt.hpp", "quorvel-sd-event.h", "hang_region.h"):
            self.found(prefix, header)

        version = self.version(self.flags(prefix))
        self.assertRegex(version, r"^\d+\.\d+\.\d+$")
        # An application needs the C library and nothing else, and can be linked as a whole.
        flags = [flag.replace("-lquorvel", "-l:libquorvel.a") for flag in self.flags(prefix)]
        self.assertEqual(self.version([*flags, "-static"]), version)
        for name in ("quorveld", "quorvelctl", "kelvanectl", "quorvel-sample"):
            for program in prefix.glob(f"*bin/{name}"):
                self.assertEqual(run(program, "--version"), f"{name} {version}\n")

        moved = self.folder / "second"
        prefix.rename(moved)
        self.assertEqual(self.version(self.flags(moved)), version)
        self.assertIn("--hang", run(self.found(moved, "quorvel-sample"), "--help"))  # it finds the library
        (self.folder / "CMakeLists.txt").write_text(PROJECT.format(version=version))
        tree = self.folder / "build"
        run(CMAKE, "-G", "Ninja", "-S", self.folder, "-B", tree, f"-DCMAKE_PREFIX_PATH={moved}", f"-DCMAKE_C_COMPILER={COMPILER}")
        run(CMAKE, "--build", tree)
        self.assertEqual(run(tree / "application").strip(), version)

    def explains_its_messages(self, prefix):
        """The journal's own tool reads the catalog, and finds in it what the daemon writes."""
        root = self.folder / "root"
        catalog = self.found(prefix, "quorveld.catalog")
        (root / "usr/lib/systemd/catalog").mkdir(parents=True)
        shutil.copy(catalog, root / "usr/lib/systemd/catalog")
        (root / "var/lib/systemd/catalog").mkdir(parents=True)
        run("journalctl", "--root", root, "--update-catalog")
        listed = run("journalctl", "--root", root, "--list-catalog")
        known = set(re.findall(r"^([0-9a-f]{32}) quorveld: \S", listed, re.MULTILINE))
        written = re.findall(rb"(?<![0-9a-f])[0-9a-f]{32}(?![0-9a-f])", (prefix / "sbin/quorveld").read_bytes())
        self.assertEqual(len(known), 8)
        self.assertLessEqual(known, {each.decode() for each in written})

    def test_an_image_is_named_in_nothing_that_is_installed_into_it(self):
        image = self.folder / "image"
        run(CMAKE, "--install", BUILD, "--prefix", "/usr", DESTDIR=str(image))
        self.assertIn("\nExecStart=/usr/sbin/quorveld\n", self.found(image, "quorveld.service").read_text())
        self.assertEqual(self.texts_with(image, str(image)), [])
        self.assertRegex(self.version(self.flags(image, PKG_CONFIG_SYSROOT_DIR=str(image))), r"^\d+\.\d+\.\d+$")


if __name__ == "__main__":
    unittest.main()
