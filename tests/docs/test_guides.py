"""The documents' code is compiled, their commands, links and files are there, and their pictures can be drawn."""

import glob
import json
import os
import re
import unittest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
PROGRAMS = os.environ["ZR_DOCUMENT_PROGRAMS"]  # where the documents' programs were put together
LANGUAGES = {"cpp", "cmake", "sh", "mermaid", ""}
LONGEST_EXAMPLE = 99
ELSEWHERE = {"host.cpp", "modules/access/live555.cpp"}  # files that are not ours


def read(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as file:
        return file.read()


def files(*patterns):
    found = [name for pattern in patterns for name in glob.glob(pattern, root_dir=ROOT, recursive=True)]
    return sorted(name for name in found if os.path.isfile(os.path.join(ROOT, name)))


def stems(pattern):
    return {os.path.splitext(os.path.basename(name))[0] for name in files(pattern)}


DOCUMENTS = files("*.md", "docs/*.md")


def blocks(document):
    """Language and text of each fenced block; whatever opens one otherwise than by three backticks has the language '?'."""
    language, lines = None, []
    for line in read(document).splitlines():
        fence = re.match(r"\s*(`{3,}|~{3,})\s*(.*)", line)
        if fence is None:
            lines.append(line)
        elif language is None:
            language, lines = fence[2] if line.startswith("```" + fence[2]) else "?", []
        else:
            yield language, "\n".join(lines)
            language = None
    if language is not None:
        yield "?", "no end"


def prose(document):
    return re.sub(r"(?ms)^```.*?^```$", "", read(document))


def slug(heading):
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


class BlocksTest(unittest.TestCase):
    def test_every_block_is_of_a_kind_that_is_checked(self):
        for document in DOCUMENTS:
            with self.subTest(document):
                self.assertEqual([kind for kind, _ in blocks(document) if kind not in LANGUAGES], [])

    def test_all_cpp_is_compiled(self):
        found = 0
        for document in DOCUMENTS:
            code = [text for kind, text in blocks(document) if kind == "cpp"]
            name = os.path.splitext(os.path.basename(document))[0].lower().replace("-", "_")
            program = os.path.join(PROGRAMS, f"example_{name}.cpp")
            with self.subTest(document):
                if code:
                    with open(program, encoding="utf-8") as file:
                        compiled = file.read()
                    self.assertEqual([text for text in code if text not in compiled], [])
            found += len(code)
        self.assertGreaterEqual(found, 11)

    def test_a_host_outside_is_built_as_the_guide_says(self):
        """The one block of CMake is the host guide's, which scripts/package-check takes from there."""
        places = [document for document in DOCUMENTS for kind, _ in blocks(document) if kind == "cmake"]
        self.assertEqual(places, ["docs/host-guide.md"])


class LinksTest(unittest.TestCase):
    def test_links_lead_somewhere(self):
        found = 0
        for document in DOCUMENTS:
            for target in re.findall(r"\]\(([^)]+)\)", prose(document)):
                if "://" in target:
                    continue
                path, _, anchor = target.partition("#")
                place = os.path.normpath(os.path.join(os.path.dirname(document), path)) if path else document
                with self.subTest(document, target=target):
                    self.assertTrue(os.path.exists(os.path.join(ROOT, place)))
                    if anchor:
                        self.assertIn(anchor, [slug(text) for text in re.findall(r"^#+ (.*)$", read(place), re.M)])
                found += 1
        self.assertGreater(found, 40)


    def test_files_are_there(self):
        """By their path, or the end of it."""
        there = [f"/{name}" for name in files("*", "[!b]*/**/*", "bench/*", ".*/*")]
        folders = {name.split("/")[1] for name in there if name.count("/") > 1}
        found = 0
        for document in DOCUMENTS:
            for span in re.findall(r"`([\w.*/-]+)`", prose(document)):
                if span.partition("/")[0] in folders and "/" in span or re.search(r"\.(cpp|h|cmake|py|toml|md|map)$", span):
                    found += 1
                    form = re.compile(re.escape("/" + span.rstrip("/")).replace(r"\*", r"\w*") + r"(/|(\.\w+)?$)")
                    with self.subTest(document, file=span):
                        self.assertTrue(span in ELSEWHERE or any(form.search(name) for name in there))
        self.assertGreater(found, 100)


class PicturesTest(unittest.TestCase):
    """No renderer, but the grammar of what the pictures use; ';' and '#' end a statement, 'end' a block."""

    name = r"\w+"
    lines = {
        "sequenceDiagram": [rf"participant ({name})( as [\w ]+)?", rf"({name})--?>>({name}): [^;#]+",
                            rf"Note (?:over|left of|right of) ({name})(?:,({name}))?: [^;#]+",
                            r"(?:loop|alt|opt|par|critical) [^;#]+", r"(?:else|and) [^;#]+", "end"],
        "classDiagram": [rf"class {name}( {{)?", r"\w+\([\w, ]*\)", "}",
                         rf"{name} (?:<\|\.\.|\.\.\|>|<\|--|o--|\*--|-->|--|\.\.>) {name}( : [^;#]+)?"]}

    def test_they_can_be_drawn(self):
        drawn = []
        for document in DOCUMENTS:
            for text in (text for kind, text in blocks(document) if kind == "mermaid"):
                kind, *rest = text.splitlines()
                drawn.append(kind)
                with self.subTest(document, picture=text[:60]):
                    self.assertIn(kind, self.lines)
                    self.draw(kind, [line.strip() for line in rest if line.strip()])
        self.assertGreaterEqual(drawn.count("sequenceDiagram"), 3)  # a playback, a late answer, deletion while waiting
        self.assertGreaterEqual(drawn.count("classDiagram"), 1)

    def draw(self, kind, lines):
        known, depth = set(), 0
        for line in lines:
            match = next((match for match in (re.fullmatch(form, line) for form in self.lines[kind]) if match), None)
            self.assertIsNotNone(match, line)
            depth += bool(re.match(r"(loop|alt|opt|par|critical) |class \w+ \{", line)) - (line in ("end", "}"))
            self.assertGreaterEqual(depth, 0, line)
            if kind == "sequenceDiagram":
                self.assertNotRegex(line.partition(":")[2], r"\bend\b")
                named = {name for name in match.groups() if name and re.fullmatch(self.name, name)}
                known |= named if line.startswith("participant") else set()
                self.assertEqual(named - known, set(), line)
        self.assertEqual(depth, 0)


class ExamplesTest(unittest.TestCase):
    def test_each_is_short(self):
        lengths = {name: read(name).count("\n") for name in files("examples/**/*.cpp", "examples/**/*.h")}
        self.assertGreaterEqual(len(lengths), 30)
        self.assertEqual({name: length for name, length in lengths.items() if length > LONGEST_EXAMPLE}, {})

    def test_the_platform_guide_tells_each_file(self):
        rows = re.findall(r"^\| [^|]*`(\w+\.h)`[^|]* \|([^|]*)\|$", read("docs/platform-guide.md"), re.M)
        told = ["main.cpp", "expect.h"] + [name for _, cell in rows for name in re.findall(r"`([\w.]+)`", cell)]
        there = [os.path.basename(name) for name in files("examples/own_platform/*.cpp", "examples/own_platform/*.h")]
        self.assertEqual(sorted(told), sorted(there))
        self.assertEqual({library for library, _ in rows}, {f"{stem}.h" for stem in stems("platform/*.h")} - {"zr_types.h"})


class ArchitectureTest(unittest.TestCase):
    told = set(re.findall(r"`([^`]+)`", prose("docs/architecture.md")))
    words = {os.path.splitext(os.path.basename(text))[0] for text in told}

    def tells(self, stem):
        return stem in self.words or any(text.endswith("*") and stem.startswith(text[:-1]) for text in self.told)

    def test_folders_and_documents(self):
        page = read("docs/architecture.md")
        folders = [name for name in sorted(os.listdir(ROOT)) if os.path.isdir(os.path.join(ROOT, name))
                   and not name.startswith(".") and name not in ("build", "demo-out")]
        folders += sorted(os.listdir(os.path.join(ROOT, "tests")))
        told = {part for text in self.told for part in re.split(r"[/,]", text)}
        self.assertEqual([name for name in folders if name not in told and "." not in name and name != "__pycache__"], [])
        documents = [os.path.basename(name) for name in files("docs/*.md") if name != "docs/architecture.md"]
        self.assertEqual([name for name in documents if f"({name})" not in page], [])

    def test_sources(self):
        """A header's name stands for its sources: connection.h for connection_opening.cpp as well."""
        sources = stems("src/**/*.h") | stems("src/**/*.cpp") | stems("embedded/zr_msg_dispatch/*.h")
        sources |= stems("embedded/zr_player/*.h")
        self.assertGreater(len(sources), 40)
        self.assertEqual(sorted(stem for stem in sources if not self.tells(stem)), [])


class VersionTest(unittest.TestCase):
    version = re.search(r"^project\(\w+ VERSION ([\d.]+) ", read("CMakeLists.txt"), re.M)[1]

    def test_it_stands_in_one_place(self):
        sources = files("CMakeLists.txt", "CMakePresets.json", "*/**/CMakeLists.txt", "cmake/*", "packaging/*", "packaging/programs/*",
                        "scripts/*", "include/**/*.h", "src/**/*", "platform/*", "embedded/**/*", "apps/**/*", ".devcontainer/*")
        places = [name for name in sources if re.search(rf"(?<![\d.]){re.escape(self.version)}(?![\d.])", read(name))
                  and not name.startswith("build/")]
        self.assertEqual(places, ["CMakeLists.txt"])

    def test_the_changelog_is_its(self):
        """What is not released yet tells which version it will be, as long as there are no released changes of it."""
        headings = re.findall(r"^## \[([^\]]+)\](?: - (\d{4}-\d\d-\d\d))?$", read("CHANGELOG.md"), re.M)
        self.assertEqual(len(headings), len(re.findall(r"^## ", read("CHANGELOG.md"), re.M)))
        coming = re.search(r"^## \[Unreleased\]\n\nWhat ([\d.]+) will be\.$", read("CHANGELOG.md"), re.M)
        released = [name for name, _ in headings if name != "Unreleased"]
        self.assertEqual(coming[1] if coming else released[0], self.version)
        self.assertTrue(all(day for name, day in headings if name != "Unreleased"))
        numbers = [tuple(map(int, name.split("."))) for name in ([coming[1]] if coming else []) + released]
        self.assertEqual(numbers, sorted(set(numbers), reverse=True))


class EditorsTest(unittest.TestCase):
    def test_the_container_finds_what_it_runs(self):
        container = json.loads(read(".devcontainer/devcontainer.json"))
        self.assertIn("scripts/setup", container["onCreateCommand"])
        presets = [preset["name"] for preset in json.loads(read("CMakePresets.json"))["configurePresets"]]
        self.assertIn(re.fullmatch(r"cmake --preset (\w+)", container["postCreateCommand"])[1], presets)


if __name__ == "__main__":
    unittest.main()
