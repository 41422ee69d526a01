"""docs/codes.md has a row for every code of the sources, with its number, and no others."""

import os
import re
import unittest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
HOST_HEADERS = ("include/zr_rtsp/zr_rtsp.h", "include/zr_rtsp/media_ctrl.h", "embedded/include/zr_platform.h")
# a source, the enumerations whose codes are told, and how many codes there are at least
SOURCES = (("include/zr_rtsp/codes.h", r"tag\w+", 45),
           ("embedded/include/zr_platform.h", r"tag\w+(?:Code|Problem)", 25),
           ("embedded/velk_mdp/message_buffer.h", "Status", 10),
           ("embedded/zr_msg_dispatch/result_codes.h", "", 12),
           ("apps/host/failure.h", "class ExitCode", 10))


def read(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as file:
        return file.read()


def enumerators(source, name):
    """Name and number of all constants of the enumerations of that name."""
    for body in re.findall(rf"\benum (?=(?:{name})\s*[:{{])[^{{]*\{{(.*?)\}}", source, re.S):
        yield from re.findall(r"^\s*(\w+) = (\d+)", body, re.M)


class CodesTest(unittest.TestCase):
    page = read("docs/codes.md")
    rows = re.findall(r"^\| (\d+) \| `(\w+)` \|", page, re.M)

    def test_every_code_has_its_row_and_every_row_its_code(self):
        codes = []
        for source, name, least in SOURCES:
            found = [pair for pair in enumerators(read(source), name) if not pair[0].startswith("status")]
            self.assertGreaterEqual(len(found), least, source)
            codes += [(number, constant) for constant, number in found]
        self.assertEqual(sorted(codes), sorted(self.rows))

    def test_statuses(self):
        """Those that the platform gives and that the host program has words for."""
        told = re.findall(r"^\| (\d{3}) \| (?!`)", self.page, re.M)
        known = dict(enumerators(read("embedded/zr_msg_dispatch/result_codes.h"), ""))
        given = {number for constant, number in known.items() if constant.startswith("status")}
        given |= set(re.findall(r"^\s*\{(\d{3}), ExitCode", read("apps/host/failure.cpp"), re.M))
        self.assertEqual(sorted(given), sorted(told))

    def test_who_returns_it(self):
        """An operation whose header tells a code is named in that code's rows."""
        told = {}
        last = ""
        for number, rest in re.findall(r"^\| (\d*) ?\|(.*)$", self.page, re.M):
            last = number or last
            told[last] = told.get(last, "") + rest
        operations = 0
        for header in HOST_HEADERS:
            for comment, operation in re.findall(r"((?:^ *///.*\n)+)^[^/\n(]*ZR_ULONG (\w+)\(", read(header), re.M):
                result = re.sub(r"RFC \d+[^;)]*", "", comment.partition("@return")[2]).replace("///", "")
                operations += bool(result)
                for code in re.findall(r"(?<![\w.])(\d+)\b", result):
                    named = code == "0" or operation in told.get(code, "") or "| requests |" in told.get(code, "")
                    named = named or operation in ("ZR_SessionFacts", "ZR_SessionCheck", "ZR_SessionGiveUp") and operation in self.page
                    self.assertTrue(named, f"{header}: {operation} returns {code}, which its rows do not tell")
        self.assertGreater(operations, 20)

    def test_exit_codes(self):
        """The host program's help tells the same ones."""
        helped = re.findall(r"^  (\d+) +\w", read("apps/host/options_help.cpp").partition("Exit codes:")[2], re.M)
        self.assertEqual(sorted(helped), sorted(n for _, n in enumerators(read("apps/host/failure.h"), "class ExitCode")))


if __name__ == "__main__":
    unittest.main()
