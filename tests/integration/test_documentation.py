"""What the pages in docs/ say of files, links, options and keys holds."""

import pathlib
import re
import unittest

from harness import binary, run

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md")))
FOLDERS = "src|docs|tests|client|tools|scripts|packaging|fuzz|bench|cmake"
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z0-9-]*[a-z0-9]")

# The page that is a program's reference, and what to ask for help besides the program itself.
PROGRAMS = {"zunreportingd": ("operations.md", ()),
            "zunreportingctl": ("zunreportingctl.md", ("send", "watch", "upload", "upload-logs", "flush", "shared set",
                                                       "shared remove")),
            "zunstorebag": ("storebag.md", ("keygen", "sign", "verify", "show")),
            "zuncollector": ("zuncollector.md", ())}
GIVEN_TO_ALL = {"--help", "--version"}
OTHER_PROGRAMS = {"--output-fields", "--defined-only", "--peer", "--print-reply", "--dest", "--preset", "--build",
                  "--target", "--check", "--repeat", "--gtest", "--since"}


def text_of(page):
    return page.read_text(encoding="utf-8")


def anchors_of(page):
    """What a heading's link target is made of: its words, in lower case, with hyphens between them."""
    headings = re.findall(r"^#+ (.*)$", text_of(page), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def options_of(program):
    helps = [run(binary(program), *subcommand.split(), "--help").stdout for subcommand in ("", *PROGRAMS[program][1])]
    return {option for text in helps for option in re.findall(r"^ +(?:-\w,)?(--[a-z0-9-]+)", text, re.MULTILINE)}


class DocumentationTest(unittest.TestCase):
    def test_every_link_leads_to_a_file_and_a_heading(self):
        for page in PAGES:
            for file, anchor in re.findall(r"\]\(([^)#\s]*)#?([^)\s]*)\)", text_of(page)):
                if file.startswith("http"):
                    continue
                target = page.parent / file if file else page
                self.assertTrue(target.exists(), f"{page.name}: {file}")
                if anchor:
                    self.assertIn(anchor, anchors_of(target), f"{page.name}: {file}#{anchor}")

    def test_every_file_that_a_page_names_is_there(self):
        named = 0
        for page in PAGES:
            for name in re.findall(rf"(?<![\w/.-])((?:{FOLDERS})/[\w./-]*)", text_of(page)):
                self.assertTrue((ROOT / name.rstrip(".")).exists(), f"{page.name}: {name}")
                named += 1
        self.assertGreater(named, 50)

    def test_every_option_of_a_program_stands_in_its_page(self):
        for program, (page, _) in PROGRAMS.items():
            options = options_of(program)
            self.assertLessEqual(GIVEN_TO_ALL, options, program)
            missing = options - GIVEN_TO_ALL - set(OPTION.findall(text_of(ROOT / "docs" / page)))
            self.assertEqual(missing, set(), f"{page} does not tell of them")

    def test_every_option_in_a_page_is_one_of_a_program(self):
        options = {program: options_of(program) for program in PROGRAMS}
        for page in PAGES:
            own = {option for program, (reference, _) in PROGRAMS.items() if reference == page.name
                   for option in options[program]}
            # The pages of the other programs speak of the daemon's as well.
            known = (own | options["zunreportingd"]) if own else set().union(*options.values())
            unknown = set(OPTION.findall(text_of(page))) - known - GIVEN_TO_ALL - OTHER_PROGRAMS
            self.assertEqual(unknown, set(), page.name)

    def test_every_key_of_the_client_library_stands_in_the_protocol(self):
        protocol = text_of(ROOT / "docs/protocol.md")
        keys = re.findall(r'(kZunReporting\w+) = "([^"]*)"', text_of(ROOT / "client/include/zunreporting/Keys.h"))
        self.assertGreater(len(keys), 20)
        for constant, key in keys:
            self.assertIn(f"`{key}`", protocol, constant)

    def test_every_program_tells_its_version(self):
        (version,) = re.findall(r"^project\(\w+ VERSION ([\d.]+)", text_of(ROOT / "CMakeLists.txt"), re.MULTILINE)
        for program in PROGRAMS:
            self.assertEqual(run(binary(program), "--version").stdout, f"{program} {version}\n")


if __name__ == "__main__":
    unittest.main()
