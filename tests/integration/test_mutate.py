"""Which faults scripts/mutate plants, and where it plants none."""

import pathlib
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts" / "lib"))
from faults import faults_of  # noqa: E402


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
