"""scripts/abi-check: what it compares with, and what it lets pass. The libraries are this build's; the past is made up."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
BUILD = os.environ["ZR_BUILD_DIR"]
STORED = "packaging/abi/zr_platform.abi"
GONE = '<elf-symbol name="ZR_WasThere" type="func-type" binding="global-binding" visibility="default-visibility" is-defined="yes"/>'
OPERATION = "ZR_MediaPortReplay"


def removed(text):
    """An operation of today that the past did not have."""
    text = re.sub(rf"(?s)\s*<function-decl name='{OPERATION}'.*?</function-decl>", "", text)
    return re.sub(rf"\s*<elf-symbol name='{OPERATION}'[^>]*/>", "", text)


def added(text):
    """One of the past that is gone."""
    return re.sub(r"(<elf-function-symbols>)", rf"\1\n    {GONE}".replace('"', "'"), text)


class AbiTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = folder.name
        for name in ("scripts", "packaging/abi", "include", "platform", "embedded/include"):
            shutil.copytree(os.path.join(ROOT, name), os.path.join(self.root, name))
        self.git("init", "-q")
        self.commit()

    def git(self, *arguments):
        subprocess.run(("git", "-c", "user.name=test", "-c", "user.email=test@localhost", *arguments), cwd=self.root, check=True,
                       capture_output=True)

    def commit(self):
        self.git("add", "-A")
        self.git("commit", "-q", "--allow-empty", "-m", "as it was")

    def change(self, name, how):
        path = os.path.join(self.root, name)
        with open(path, encoding="utf-8") as file:
            before = file.read()
        after = how(before)
        self.assertNotEqual(before, after)
        with open(path, "w", encoding="utf-8") as file:
            file.write(after)

    def released(self, how, name=STORED):
        """Tags a past release whose file was another; the work tree keeps today's."""
        self.change(name, how)
        self.commit()
        self.git("tag", "v0.1.0")
        self.git("checkout", "-q", "HEAD~1", "--", name)
        self.commit()

    def check(self, *arguments):
        done = subprocess.run(("scripts/abi-check", *arguments, BUILD), cwd=self.root, capture_output=True, text=True, check=False)
        return done.returncode, done.stdout + done.stderr

    def expect(self, code, *words):
        found = self.check()
        self.assertEqual(found[0], code, found[1])
        for word in words:
            self.assertIn(word, found[1])

    def test_what_was_released_must_stay(self):
        self.released(added)
        self.expect(1, "ZR_WasThere", "hosts built with v0.1.0 would break")
        self.assertEqual(self.check("--update")[0], 1)  # storing does not mend it

    def test_something_new_is_no_break_and_needs_to_be_stored(self):
        self.released(removed)
        self.expect(0, "zr_platform: compatible with v0.1.0")
        self.change(STORED, removed)
        self.expect(1, OPERATION, f"{STORED} is out of date")
        self.assertEqual(self.check("--update")[0], 0)
        self.expect(0)

    def test_a_new_soname_may_break(self):
        self.released(lambda text: re.sub(r"soname='libzr_platform\.so\.\d+'", "soname='libzr_platform.so.999'", added(text)))
        self.expect(0, "the SONAME is new since v0.1.0")

    def test_before_a_release_what_is_stored_counts(self):
        self.change(STORED, added)
        self.expect(1, f"hosts built with {STORED} would break")

    def test_a_slot_in_the_middle_breaks_hosts(self):
        """What hosts compile against, not only what is exported; and the last tag counts, not one before."""
        self.git("tag", "v0.0.1")
        self.released(lambda text: text + "\n", "packaging/abi/interfaces.abi")
        self.change("include/zr_rtsp/media_ctrl.h", lambda text: re.sub(r"(class [A-Z_ ]*CIMediaCtrlEx\s*\{\s*public:\n)",
                                                                        r"\1    virtual void between() = 0;\n", text))
        self.expect(1, "hosts built with v0.1.0 would break")


if __name__ == "__main__":
    unittest.main()
