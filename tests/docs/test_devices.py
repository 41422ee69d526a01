"""docs/devices.md names tests and sources that are there."""

import os
import re
import tomllib
import unittest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def sources(folder, suffix):
    return [(name[:-len(suffix)], read(folder, name)) for name in os.listdir(os.path.join(ROOT, folder)) if name.endswith(suffix)]


def known_tests():
    known = {f"fault: {fault['name']}" for fault in tomllib.loads(read("tests", "system", "faults.toml"))["fault"]}
    for _, text in sources("tests/embedded", ".cpp"):
        known |= {f"{suite}.{name}" for suite, name in re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", text, re.M)}
    for name, text in sources("tests/system", ".py"):
        for test_class, body in re.findall(r"^class (\w+)\(.*\n((?:(?!class ).*\n)*)", text, re.M):
            known |= {f"{name}.{test_class}.{test}" for test in re.findall(r"^    def (test_\w+)\(", body, re.M)}
    return known


class DevicesTest(unittest.TestCase):
    rows = [[cell.strip() for cell in line.split("|")[1:-1]]
            for line in read("docs", "devices.md").splitlines() if line.startswith("| ") and "| Test |" not in line]

    def test_each_row_is_held_by_tests(self):
        known = known_tests()
        self.assertGreaterEqual(len(known), 150)
        self.assertGreaterEqual(len(self.rows), 40)
        for row in self.rows:
            with self.subTest(row=row[0]):
                self.assertEqual(len(row), 4)
                self.assertTrue(all(row), "a column is empty")
                named = re.findall(r"`([^`]+)`", row[3])
                self.assertTrue(named)
                self.assertEqual([name for name in named if name not in known], [])

    def test_each_place_is_there(self):
        places = [place for row in self.rows for place in re.findall(r"`((?:embedded|apps)/[^`]+)`", row[2])]
        self.assertGreaterEqual(len(places), 20)
        self.assertEqual([place for place in places if not os.path.isfile(os.path.join(ROOT, place))], [])


if __name__ == "__main__":
    unittest.main()
