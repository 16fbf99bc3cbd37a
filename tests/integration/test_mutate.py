"""Which faults scripts/mutate plants, and where it plants none."""

import importlib.machinery
import importlib.util
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts" / "lib"))
sys.dont_write_bytecode = True
from faults import faults_of  # noqa: E402


def load_script():
    loader = importlib.machinery.SourceFileLoader("mutate", str(ROOT / "scripts" / "mutate"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
    loader.exec_module(module)
    return module


mutate = load_script()


def mutants(source):
    return {(fault.kind, fault.plant(source)) for fault in faults_of(source)}


def inside(body):
    return f"int f(int a, int b) {{\n{body}\n}}\n"


class FaultsTest(unittest.TestCase):
    def assert_faults(self, body, *expected):
        self.assertEqual(mutants(inside(body)), {(kind, inside(text)) for kind, text in expected})

    def test_a_condition_is_negated_and_its_return_dropped(self):
        self.assert_faults("  if (a) return b;", ("condition", "  if (!(a)) return b;"),
                           ("return dropped", "  if (a) {}"))

    def test_a_condition_that_declares_is_negated_by_its_name(self):
        self.assert_faults("  if (const auto c = g(a)) h(c);",
                           ("condition", "  if (const auto c = g(a); !(c)) h(c);"),
                           ("statement left out", "  if (const auto c = g(a)) ;"))

    def test_a_comparison_is_made_strict_or_not(self):
        self.assert_faults("  return a <= b;", ("comparison", "  return a < b;"))

    def test_angle_brackets_of_templates_are_no_comparisons(self):
        self.assert_faults("  std::vector<int> c = g<int>(a);\n  return h(c);")

    def test_an_equality_is_negated_once(self):
        self.assert_faults("  if (a == b) g();\n  return h();", ("comparison", "  if (a != b) g();\n  return h();"),
                           ("statement left out", "  if (a == b) ;\n  return h();"))

    def test_a_call_is_left_out_and_swapped_with_the_next(self):
        self.assert_faults("  g(a);\n  h(b);", ("statement left out", "  ;\n  h(b);"),
                           ("statement left out", "  g(a);\n  ;"), ("calls swapped", "  h(b);\n  g(a);"))

    def test_two_assignments_are_not_swapped(self):
        self.assert_faults("  a = g(b);\n  b = h(a);", ("statement left out", "  ;\n  b = h(a);"),
                           ("statement left out", "  a = g(b);\n  ;"))

    def test_what_adds_and_what_sets_another_property_of_one_object_are_not_swapped(self):
        for one, other in (("a += g(b);", "b -= h(a);"), ("a.setOne(b);", "a.setOther(b);")):
            planted = mutants(inside(f"  {one}\n  {other}"))
            self.assertNotIn(("calls swapped", inside(f"  {other}\n  {one}")), planted)
        for one, other in (("a.setOne(b);", "b.setOther(a);"), ("a.setOne(b);", "a.start();")):
            planted = mutants(inside(f"  {one}\n  {other}"))
            self.assertIn(("calls swapped", inside(f"  {other}\n  {one}")), planted)

    def test_an_assignment_and_a_call_are_swapped(self):
        self.assertIn(("calls swapped", inside("  h(a);\n  a = b;")), mutants(inside("  a = b;\n  h(a);")))

    def test_room_made_in_advance_stays(self):
        self.assert_faults("  a.reserve(b);")

    def test_a_constant_is_changed(self):
        self.assert_faults("  return 49;", ("constant", "  return 50;"))
        self.assert_faults("  return true;", ("constant", "  return false;"))
        self.assert_faults("  return 1'000u;", ("constant", "  return 1001u;"))

    def test_the_return_that_ends_a_block_under_a_condition_is_dropped(self):
        self.assert_faults("  if (a) {\n    g();\n    return b;\n  }\n  return a;",
                           ("condition", "  if (!(a)) {\n    g();\n    return b;\n  }\n  return a;"),
                           ("statement left out", "  if (a) {\n    ;\n    return b;\n  }\n  return a;"),
                           ("return dropped", "  if (a) {\n    g();\n    ;\n  }\n  return a;"))

    def test_declarations_comments_texts_and_directives_stay(self):
        source = ('#include "a < b.h"\nclass A {\n  A();\n  void f(int a);\n  // if (a < b) return 1;\n};\n'
                  'void g() {\n  const std::string text = "a < b && 1";\n  std::lock_guard<std::mutex> lock(mutex);\n}\n')
        self.assertEqual(mutants(source), set())


class PlantingWorker(mutate.Worker):
    """Builds and runs nothing: tells what it was asked for, and fails at what it is told to."""

    def __init__(self, tree, not_built=None, failing=None, integration=False):
        self.tree, self.not_built, self.failing, self.integration = pathlib.Path(tree), not_built, failing, integration
        self.runs_as_before = dict.fromkeys(["session_tests", "daemon_tests", "integration"], 1.0)
        self.asked, self.planted = [], set()

    def compiles(self, program, jobs=1):
        self.planted.add((self.tree / NAME).read_text())
        return program != self.not_built

    def passes(self, program, seconds, output=None):
        self.asked.append((program, seconds))
        return program != self.failing


NAME = "src/session/A.cpp"
SOURCE = inside("  return 49;")


class VerdictTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        (pathlib.Path(self.folder.name) / NAME).parent.mkdir(parents=True)

    def verdict(self, **told):
        self.worker = PlantingWorker(self.folder.name, **told)
        (fault,) = faults_of(SOURCE)
        found = self.worker.verdict(NAME, fault, SOURCE)
        self.assertEqual(self.worker.planted, {inside("  return 50;")})
        self.assertEqual((self.worker.tree / NAME).read_text(), SOURCE, "the fault is taken out again")
        return found

    def test_what_no_program_notices_survives(self):
        self.assertEqual(self.verdict(), "survived")
        self.assertEqual([program for program, _ in self.worker.asked], ["session_tests", "daemon_tests"])

    def test_the_first_program_that_fails_has_killed_it_and_ends_the_search(self):
        self.assertEqual(self.verdict(failing="session_tests"), "killed by session_tests")
        self.assertEqual(self.worker.asked, [("session_tests", 25)])

    def test_a_program_that_does_not_build_has_killed_nothing_wherever_it_stands(self):
        self.assertEqual(self.verdict(not_built="session_tests"), "does not compile")
        self.assertEqual(self.verdict(not_built="daemon_tests"), "does not compile")

    def test_the_whole_daemon_is_asked_last_and_only_when_told(self):
        self.assertEqual(self.verdict(failing="integration"), "survived")
        self.assertEqual(self.verdict(failing="integration", integration=True), "killed by integration")

    def test_a_main_is_in_no_test_program(self):
        self.assertEqual(mutate.programs_for("src/daemon/main.cpp"), ["integration"])

    def test_a_program_that_does_not_end_is_ended(self):
        self.assertIsNone(mutate.run(["sleep", "600"], 0.1))


class MutateTest(unittest.TestCase):
    def mutate(self, *arguments):
        return subprocess.run([ROOT / "scripts" / "mutate", *arguments], capture_output=True, text=True, check=False,
                              cwd=ROOT)

    def test_a_seed_draws_the_same_faults_again(self):
        drawn = self.mutate("--list", "--sample", "5", "--seed", "7", "src/util")
        self.assertEqual(drawn.returncode, 0)
        self.assertEqual(len(drawn.stdout.splitlines()), 5)
        self.assertEqual(drawn.stdout, self.mutate("--list", "--sample", "5", "--seed", "7", "src/util").stdout)
        self.assertNotEqual(drawn.stdout, self.mutate("--list", "--sample", "5", "--seed", "8", "src/util").stdout)

    def test_what_has_no_faults_is_refused_by_name(self):
        refused = self.mutate("--list", "docs/security.md")
        self.assertNotEqual(refused.returncode, 0)
        self.assertEqual(refused.stderr, "mutate: docs/security.md: no source to plant faults in\n")


if __name__ == "__main__":
    unittest.main()
