"""What scripts/coverage counts."""

import contextlib
import importlib.machinery
import importlib.util
import io
import pathlib
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "coverage"
HEADER = "inline int half(int a) {\n  if (a < 0)\n    return 0;\n  return a / 2;\n}\n"
HALVES_TWO = '#include "half.h"\nint two() {\n  return half(2);\n}\n'
HALVES_LESS = '#include "half.h"\nint two();\nint main() { return two() + half(-1) < 2 ? 0 : 1; }\n'
NEVER = "int never(int a) {\n  a += 1;\n  return a;\n}\n"
TWO = "int two() { return 2; }\n"
MAIN = "int two();\nint main() {\n  return two() == 2 ? 0 : 1;\n}\n"


def load_script():
    loader = importlib.machinery.SourceFileLoader("coverage", str(SCRIPT))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("coverage", loader))
    loader.exec_module(module)
    return module


class CoverageTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.script = load_script()
        self.root = self.script.ROOT = pathlib.Path(scratch.name).resolve()
        self.build_folder = self.script.BUILD = self.root / "build" / "dev"
        self.build_folder.mkdir(parents=True)

    def build(self, sources):
        """{path: text}; run when one of them has a main."""
        objects = []
        for name, text in sources.items():
            path = self.root / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
            path.with_name("half.h").write_text(HEADER)
            objects.append(name.replace("/", "_") + ".o")
            self.compile("-c", path, "-o", objects[-1])
        if any("main()" in text for text in sources.values()):
            self.compile(*objects, "-o", "program")
            subprocess.run([self.build_folder / "program"], check=True)

    def compile(self, *arguments):
        subprocess.run(["g++", "--coverage", *arguments], cwd=self.build_folder, check=True)

    def printed(self, printer):
        with contextlib.redirect_stdout(io.StringIO()) as text:
            printer(self.script.runs_by_line())
        return text.getvalue().splitlines()

    def test_a_headers_line_is_run_when_any_source_ran_it(self):
        self.build({"src/main.cpp": HALVES_LESS, "src/two.cpp": HALVES_TWO})
        self.assertEqual(self.printed(self.script.print_lines), [])

    def test_lines_that_did_not_run_are_told_by_file(self):
        self.build({"src/main.cpp": HALVES_LESS.replace("-1", "1"), "src/two.cpp": HALVES_TWO})
        self.assertEqual(self.printed(self.script.print_lines), ["src/half.h: 3"])

    def test_lines_of_an_object_that_never_ran_count_too(self):
        self.build({"src/never.cpp": NEVER})
        self.assertEqual(self.printed(self.script.print_lines), ["src/never.cpp: 1-3"])

    def test_shares_are_of_each_folder_and_of_all_and_of_src_alone(self):
        self.build({"tests/main.cpp": MAIN, "tests/never.cpp": NEVER.replace("never", "of_tests"),
                    "src/b/two.cpp": TWO, "src/a/c/never.cpp": NEVER})
        self.assertEqual([line.split() for line in self.printed(self.script.print_shares)[1:-1]],
                         [["a/c", "3", "0.0%"], ["b", "1", "100.0%"], ["all", "of", "src/", "4", "25.0%"]])


if __name__ == "__main__":
    unittest.main()
