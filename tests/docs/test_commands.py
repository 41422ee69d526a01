"""What the documents tell to type: its programs, presets, targets, options, tests and files are there."""

import json
import os
import re
import shlex
import subprocess
import tomllib
import unittest

from test_guides import DOCUMENTS, ROOT, blocks, prose, read

BUILD = os.environ["ZR_BUILD_DIR"]
ELSEWHERE = {"g++", "mkdir", "doxygen", "apt-get", "apt", "export", "git", "./host"}  # not ours, or made; what they are given is looked at
COMMANDS = r"(?:cmake|ctest|mkdir|g\+\+|apt|doxygen|zr_rtsp_host|zr_rtsp_device|(?:\./|scripts/|packaging/|bench/|build/)\S+) \S"


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=60).stdout


def typed(document):
    """The commands of a document: its shell blocks, lines behind a $, and the code in its text that reads like one."""
    lines = [line for kind, code in blocks(document) if kind == "sh" for line in code.splitlines()]
    lines += [line[2:] for kind, code in blocks(document) if kind == "" for line in code.splitlines() if line.startswith("$ ")]
    lines += [span for span in re.findall(r"`([^`]+)`", prose(document).replace("\n", " ")) if re.match(COMMANDS, span)]
    for line in lines:
        for command in re.split(r"&&|\|", re.sub(r"\$\((.*)\)", "", line)):
            words = shlex.split(command, comments=True)
            if words:
                yield words


def placeholder(word):
    return re.fullmatch(r"\[?[A-Z][A-Z_.-]*\]?|.*\.\.\.\]?", word) is not None


class Checker:
    presets = json.loads(read("CMakePresets.json"))
    targets = set(re.findall(r"^([\w/.+-]+): ", output("cmake", "--build", BUILD, "--target", "help"), re.M))
    variables = set(re.findall(r"^(\w+):", open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8").read(), re.M))
    faults = [fault["name"] for fault in tomllib.loads(read("tests/system/faults.toml"))["fault"]]

    def has_preset(self, kind, name):
        return name in [preset["name"] for preset in self.presets[kind] if not preset.get("hidden")]

    def fault(self, words):
        """@return what is wrong with a command, or None"""
        while re.match(r"[A-Z_]+=", words[0]):
            name, _, value = words.pop(0).partition("=")
            if name != "ZR_FAULTS" or not any(value in fault for fault in self.faults):
                return f"{name}={value}"
        program, *rest = words
        if program == "cmake":
            return self.cmake(rest)
        if program == "ctest":
            return self.ctest(rest)
        if program in ("zr_rtsp_host", "zr_rtsp_device"):
            return self.ours(program, rest)
        if match := re.fullmatch(r"build/([\w-]+)/bin/(\w+)", program):
            return self.built(*match.groups(), rest)
        if program not in ELSEWHERE and not os.access(os.path.join(ROOT, program), os.X_OK):
            return program
        return self.paths(rest) or (None if program in ELSEWHERE else self.script(program, rest))

    def paths(self, words):
        """Names in a folder of ours are there; those in build/ are made."""
        folders = [name for name in os.listdir(ROOT) if os.path.isdir(os.path.join(ROOT, name)) and name != "build"]
        return next((word for word in words if word.partition("/")[0] in folders and "/" in word
                     and not os.path.exists(os.path.join(ROOT, word))), None)

    def script(self, program, words):
        options = [word.partition("=")[0] for word in words if word.startswith("-")]
        return next((option for option in options if option not in read(program)), None)

    def cmake(self, words):
        kind = {"--build": "buildPresets", "--workflow": "workflowPresets"}.get(words[0], "configurePresets")
        for at, word in enumerate(words):
            following = words[at + 1] if at + 1 < len(words) else ""
            if word == "--preset" and not self.has_preset(kind, following):
                return f"{word} {following}"
            if word == "--target" and following not in self.targets:
                return f"{word} {following}"
            if word.startswith("-D") and word[2:].partition("=")[0] not in self.variables:
                return word
            if word == "--install" and not self.has_preset("configurePresets", following.removeprefix("build/")):
                return f"{word} {following}"
        return None

    def ctest(self, words):
        options = dict(zip(words, words[1:]))
        if not self.has_preset("testPresets", options["--preset"]):
            return f"--preset {options['--preset']}"
        chosen = [part for option in ("-L", "-R") if option in options for part in (option, options[option])]
        tests = re.search(r"^Total Tests: (\d+)", output("ctest", "--test-dir", BUILD, "-N", *chosen), re.M)
        return None if tests and int(tests[1]) else f"no tests: {chosen}"

    def ours(self, program, words):
        path = os.path.join(BUILD, "bin", program)
        command = [word for word in words[:1] if re.fullmatch("[a-z]+", word)]
        page = output(path, *command, "--help-all" if command else "--help")
        if command and not re.search(rf"^Usage: {program} {command[0]} ", page, re.M):
            return command[0]
        options = [word for word in words if word.startswith("--") and word not in ("--help", "--help-all")]
        return next((option for option in options if not re.search(rf"(?<![\w-]){option}(?![\w-])", page)), None)

    def built(self, preset, name, words):
        path = os.path.join(BUILD, "bin", name)
        if not self.has_preset("configurePresets", preset) or name not in self.targets:
            return f"build/{preset}/bin/{name}"
        chosen = [word for word in words if word.startswith("--gtest_filter=")]
        if chosen and "  " not in output(path, "--gtest_list_tests", *chosen):
            return f"no tests: {chosen}"
        return None


class CommandsTest(unittest.TestCase):
    def test_they_are_there(self):
        checker, found = Checker(), 0
        for document in DOCUMENTS:
            for words in typed(document):
                found += 1
                with self.subTest(document, command=" ".join(words)):
                    self.assertIsNone(checker.fault([word for word in words if not placeholder(word)]))
        self.assertGreaterEqual(found, 35)

    def test_what_is_not_there_is_found(self):
        checker = Checker()
        for line in ("cmake --preset releases", "cmake --workflow --preset release", "cmake -DZR_PLATFORM_LIB=x", "scripts/set-up",
                     "cmake --build --preset release --target nothing", "ctest --preset debug -L corre", "packaging/generate --chek",
                     "ctest --preset debug -R NoSuchTest", "build/debug/bin/zr_core_test --gtest_filter=No.*", "./tests-all",
                     "build/debug/bin/zr_core", "zr_rtsp_host watched", "zr_rtsp_host play --snap x", "zr_rtsp_device --users x",
                     "doxygen docs/Doxyfiles", "ZR_FAULTS=none ctest --preset debug", "ZR_FAULT=LF ctest --preset debug"):
            with self.subTest(line):
                self.assertIsNotNone(checker.fault(shlex.split(line)))


if __name__ == "__main__":
    unittest.main()
