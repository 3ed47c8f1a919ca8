"""The benchmarks' tables, page and chart from known values."""

import collections
import unittest
import xml.etree.ElementTree

import report

Time = collections.namedtuple("Time", "median p90 count")

BARE, AT_ONCE = 10, 20


def results(short, calls=None):
    long = {"null, 65 kB": Time(25, 30, 9), "reader, 65 kB": Time(101, 110, 9)}
    ours = {"bare exchange": Time(BARE, 12, 9), "null, short": Time(AT_ONCE, 25, 9),
            "reader, short": Time(short, 90, 9), **long}
    movements = {"insertion": Time(800, 900, 9), "removal": Time(401, 500, 9), "swaps": 1000,
                 "missed": 0, "after burst": 500_000.0, "seen": True}
    return report.Results({"bare exchange": Time(BARE, 12, 9), "GET_STATE": Time(5, 6, 9)},
                          {"one processor": (ours, ours)}, movements, calls, "2 x <CPU>")


class Report(unittest.TestCase):
    def verdicts(self, **values):
        return {row.what: report.verdict(row) for rows in report.groups(results(**values)).values()
                for row in rows}

    def test_short_command_may_cost_the_handler_and_two_and_a_half_exchanges(self):
        what = "short command, reader, our agent"
        self.assertEqual(self.verdicts(short=45)[what], "at once + 2.5 x bare: 45.0, kept")
        self.assertEqual(self.verdicts(short=45.1)[what], "at once + 2.5 x bare: 45.0, MISSED")

    def test_each_target_is_compared_with_its_limit(self):
        verdicts = self.verdicts(short=45)
        self.assertEqual(verdicts["65 kB answer, reader, our agent"], "4 x at once: 100, MISSED")
        self.assertEqual(verdicts["insertion seen by a client"], "0.8 ms: 800, kept")
        self.assertEqual(verdicts["removal seen by a client"], "0.4 ms: 400, MISSED")
        self.assertIn("kept", verdicts["card seen as it is after 1000 swaps in a row"])
        self.assertIn("kept", verdicts["quick swaps missed, of 1000 one by one"])

    def test_missed_targets_are_named(self):
        self.assertEqual(report.missed(results(short=45)),
                         ["Through pcscd, on one processor: 65 kB answer, reader, our agent",
                          "A card that comes and goes: removal seen by a client"])

    def test_times_are_shown_beside_the_bare_exchange(self):
        self.assertRegex(report.text(results(short=45)),
                         r"\| short command, reader, our agent +\| +45\.0 \| +90\.0 \| +4\.5 \|")

    def test_system_calls_are_shown_by_process(self):
        calls = {"pcscd": {"read": 3.0, "brk": 0.01}, "agent": {"sendto": 2.0}}
        text = report.text(results(short=45, calls=calls))
        self.assertRegex(text, r"\| sendto +\| +0\.0 \| +2\.0 \|")
        self.assertRegex(text, r"\| all +\| +3\.0 \| +2\.0 \|")
        self.assertNotIn("brk", text)

    def test_page_keeps_everything_but_what_stands_between_the_marks(self):
        page = f"before\n{report.BEGIN}\nold\n{report.END}\nafter\n"
        page = report.rewritten(page, results(short=45))
        self.assertRegex(page, r"(?s)^before\n<!--.*-->\nafter\n$")
        self.assertNotIn("old", page)
        self.assertEqual(report.rewritten(page, results(short=45)), page)

    def test_page_without_marks_is_refused(self):
        with self.assertRaises(ValueError):
            report.rewritten("a page", results(short=45))

    def test_chart_has_a_bar_for_each_value_and_a_line_for_each_target(self):
        chart = xml.etree.ElementTree.fromstring(report.chart(results(short=45)))
        kinds = collections.Counter(element.tag.partition("}")[2] for element in chart)
        self.assertEqual(kinds["rect"], 1 + 9)
        self.assertEqual(kinds["line"], 4)


if __name__ == "__main__":
    unittest.main(verbosity=2)
