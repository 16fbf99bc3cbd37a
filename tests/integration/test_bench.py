"""scripts/bench: what it makes of the figures of many rounds."""

import pathlib
import subprocess
import sys
import unittest
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "scripts" / "lib"))

from figures import Rounds, compared, number, order, parsed_rows, with_spread  # noqa: E402
from performance_page import SECTIONS, between_markers  # noqa: E402
from svg_plot import plot  # noqa: E402


class FiguresTest(unittest.TestCase):
    def test_a_median_stands_with_the_smallest_and_the_largest(self):
        self.assertEqual(with_spread([9.0, 7.5, 8.25]), "8.25 (7.50 to 9.00)")
        self.assertEqual(with_spread([8.25]), "8.25")

    def test_numbers_have_three_digits_that_count(self):
        self.assertEqual([number(value) for value in (0.012345, 5.678, 123456.7, 0)],
                         ["0.0123", "5.68", "123,457", "0"])

    def test_rows_are_read_as_they_are_printed(self):
        self.assertEqual(parsed_rows("a cpu_us=1.5 posts=20\nb wakeups=0\n"),
                         {"a": {"cpu_us": 1.5, "posts": 20}, "b": {"wakeups": 0}})

    def test_builds_compare_round_by_round(self):
        before, after = Rounds(), Rounds()
        for old, new in ((10, 5), (20, 20), (40, 30)):  # a machine that becomes slower
            before.add("throughput/a", {"cpu_us": old, "events_per_s": old})
            after.add("throughput/a", {"cpu_us": new, "events_per_s": new})
        lines = compared(before, after, "HEAD~1").splitlines()
        self.assertEqual(len(lines), 2, lines)  # what is better when larger has no line
        self.assertEqual(lines[1].split(), ["throughput/a", "cpu_us", "0.750", "(0.500", "to", "1.000)"])

    def test_growth_is_what_is_added_to_the_smallest_cost(self):
        self.assertEqual(order([(1, 10), (10, 10.5), (100, 11)]), 0)
        self.assertAlmostEqual(order([(1, 10), (10, 19), (100, 109), (1000, 1009)]), 1, places=1)
        self.assertAlmostEqual(order([(1, 10), (10, 110), (100, 10010)]), 2, places=1)

    def test_only_what_is_between_the_markers_changes(self):
        text = "before\n<!-- a -->\nold\nold\n<!-- end of a -->\nafter\n"
        self.assertEqual(between_markers(text, "a", "new"), "before\n<!-- a -->\nnew\n<!-- end of a -->\nafter\n")
        with self.assertRaises(SystemExit):
            between_markers(text, "b", "new")

    def test_the_page_has_a_place_for_each_table(self):
        page = (ROOT / "docs" / "performance.md").read_text()
        for name in SECTIONS:
            between_markers(page, name, "")

    def test_a_plot_has_each_point_within_it(self):
        points = [(0, 5.0, 4.0, 6.0), (10, 8.0, 7.0, 9.5), (500, 21.0, 20.0, 22.0)]
        root = xml.etree.ElementTree.fromstring(plot("a < b", "filters", "µs", points))
        circles = root.findall("{http://www.w3.org/2000/svg}circle")
        heights = [float(circle.get("cy")) for circle in circles]
        self.assertEqual(heights, sorted(heights, reverse=True))
        self.assertEqual(len(heights), 3)
        self.assertTrue(all(0 < height < 320 for height in heights))


class CommandTest(unittest.TestCase):
    def bench(self, *options):
        return subprocess.run([ROOT / "scripts" / "bench", *options], capture_output=True, text=True, check=False)

    def test_wrong_calls_end_with_two(self):
        for options in (["--rounds", "0"], ["--unknown"], ["--rounds", "many"]):
            self.assertEqual(self.bench(*options).returncode, 2, options)
        self.assertEqual(self.bench("--help").returncode, 0)


if __name__ == "__main__":
    unittest.main()
