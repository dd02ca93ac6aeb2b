"""The benchmarks' command line."""
import unittest

import bench


class BenchTest(unittest.TestCase):
    def test_the_help_names_every_section(self):
        text = bench.argument_parser().format_help()
        self.assertEqual([name for name in bench.sections.STANDARD if name not in text], [])


if __name__ == "__main__":
    unittest.main()
