"""The benchmarks' own arithmetic."""
import unittest

import entries
import measure


def figures(seconds):
    return {"seconds": seconds, "processor": seconds, "process_seconds": seconds}


class MeasureTest(unittest.TestCase):
    def test_the_median_of_each_figure_counts(self):
        runs = [{"seconds": 3.0, "peak_kib": 10}, {"seconds": 1.0, "peak_kib": 30}, {"seconds": 2.0, "peak_kib": 20}]
        self.assertEqual(measure.medians(runs), {"seconds": 2.0, "peak_kib": 20})

    def test_a_short_run_is_repeated_in_its_turn(self):
        long, short, tiny = measure.TURN_SECONDS, measure.TURN_SECONDS / 2, measure.TURN_SECONDS / 1000
        lengths = [len(measure.take_turn(lambda: figures(seconds))) for seconds in (long, short, tiny)]
        self.assertEqual(lengths, [1, 2, measure.TURN_RUNS])

    def test_the_fastest_run_of_all_turns_is_kept(self):
        turns = [[figures(3), figures(4)], [figures(2)]]
        found = measure.summary(turns, turns)
        self.assertEqual((found["fastest"], found["runs"], found["seconds"]), (2, 3, 3))

    def test_clients_take_turns(self):
        order = []
        tasks = {name: lambda name=name: order.append(name) or figures(1) for name in "ab"}
        measure.interleaved(tasks, 2, lambda _: "a")
        self.assertEqual(order, ["a", "b", "a", "b"])

    def test_a_slow_client_runs_once(self):
        tasks = {"slow": lambda: figures(measure.SLOW_SECONDS + 1), "fast": lambda: figures(1)}
        found = measure.interleaved(tasks, 3, lambda _: "fast")
        self.assertEqual((found["slow"]["runs"], found["fast"]["runs"]), (1, 3))

    def test_what_starting_costs_cancels_out_of_an_entry(self):
        self.assertEqual(measure.per_entry(5000 + 1000 * 7, 5000 + 4000 * 7, 1000, 4000), 7)

    def test_only_more_than_the_tolerance_exceeds_the_baseline(self):
        self.assertFalse(measure.exceeds(1030, 1000, 0.03))
        self.assertTrue(measure.exceeds(1031, 1000, 0.03))
        self.assertFalse(measure.exceeds(500, 1000, 0.03))

    def test_a_ratio_is_to_the_yardstick_of_the_same_round(self):
        ours, its = [[figures(1)], [figures(10)], [figures(3)]], [[figures(2)], [figures(20)], [figures(4)]]
        self.assertEqual(measure.ratios(ours, its), {"seconds": 0.5, "processor": 0.5})

    def test_a_client_that_has_read_too_little_ends_the_benchmark(self):
        part, client = entries.users(10), measure.Client("client", [])
        measure.check(client, part, {"entries": 10, "values": 30})
        for too_little in ({"entries": 9, "values": 30}, {"entries": 10, "values": 29}):
            with self.assertRaises(SystemExit):
                measure.check(client, part, too_little)

    def test_a_client_that_reads_the_set_twice_has_twice_as_much(self):
        with self.assertRaises(SystemExit):
            measure.check(measure.Client("client", [], copies=2), entries.users(10), {"entries": 10, "values": 30})

    def test_the_values_that_ldapsearch_prints_are_counted(self):
        output = "dn: uid=a,dc=x\nuid: a\nmail: a@x\n\ndn: uid=b,dc=x\nuid: b\n\n# pagedresults: cookie=\n"
        self.assertEqual(measure.LdapSearch().figures(output), {"entries": 2, "values": 3})


if __name__ == "__main__":
    unittest.main()
