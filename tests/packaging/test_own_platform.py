"""The plug-in on a platform that is not the embedded one, built and installed as docs/platform-guide.md says."""

import os
import re
import shlex
import subprocess
import tempfile
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
LIBRARIES = os.environ["ZR_LIBRARIES"]  # of this build, libown_platform.so among them


def commands():
    with open(os.path.join(ROOT, "docs", "platform-guide.md"), encoding="utf-8") as file:
        block = re.search(r"\n```sh\n(cmake [^`]*-DZR_BUILD_PLATFORM=OFF[^`]*)\n```", file.read())[1]
    return [shlex.split(line, comments=True) for line in block.splitlines()]


class OwnPlatformTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.build = os.path.join(folder.name, "mine")
        self.environment = dict(os.environ)

    def run_in_root(self, *command):
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False, env=self.environment)
        self.assertEqual(done.returncode, 0, f"{shlex.join(command)}\n{done.stdout[-4000:]}\n{done.stderr[-4000:]}")
        return done.stdout

    def guided(self, platform):
        """The guide's own lines, in another folder and with this platform."""
        for words in commands():
            self.run_in_root(*(word.replace("build/mine", self.build).replace("/opt/mine/lib/libmine.so", platform) for word in words))

    def needed(self, library):
        return re.findall(r"\(NEEDED\).*\[(.*)\]", self.run_in_root("readelf", "-d", library))

    def test_a_library_that_is_there(self):
        self.guided(os.path.join(LIBRARIES, "libown_platform.so"))
        needed = self.needed(os.path.join(self.build, "lib", "libzr_rtsp.so"))
        self.assertTrue(any(name.startswith("libown_platform.so") for name in needed), needed)
        self.assertFalse(any(name.startswith("libzr_platform") for name in needed), needed)

    def test_a_target_of_the_same_build_is_installed_and_hosts_run_on_it(self):
        self.guided("own_platform")
        prefix = os.path.join(self.build, "installed")
        self.run_in_root("cmake", "--build", self.build, "--target", "own_platform", "example_own_platform")
        self.run_in_root("cmake", "--install", self.build, "--prefix", prefix)
        self.environment["PKG_CONFIG_PATH"] = self.run_in_root("find", prefix, "-name", "pkgconfig").strip()
        flags = shlex.split(self.run_in_root("pkg-config", "--cflags", "--libs", "zr_rtsp"))
        self.assertIn("-lown_platform", flags)
        host = os.path.join(self.build, "host")
        self.run_in_root("g++", "-std=c++17", "-o", host, "examples/own_platform/main.cpp", *flags)
        self.environment["LD_LIBRARY_PATH"] = os.path.dirname(self.environment["PKG_CONFIG_PATH"])
        self.assertRegex(self.run_in_root(host), r"\nall right\n$")


if __name__ == "__main__":
    unittest.main()
