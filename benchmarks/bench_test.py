"""The benchmarks' command line, and how they read what other programs print."""
import unittest

import bench
import count

ANNOTATED = """\
3,000,000 (100.0%)  PROGRAM TOTALS
2,100,000 (70.00%)  ???:ldap_result [/usr/lib/libldap-2.5.so]
  400,000 (13.33%)  ???:ldap_result'2 [/usr/lib/libldap-2.5.so]
  300,000 (10.00%)  ???:QString::fromUtf8(QByteArrayView) [/usr/lib/libQt6Core.so]
   20,000 ( 0.67%)  ???:ldap_search_ext_s [/usr/lib/libldap-2.5.so]
"""


class BenchTest(unittest.TestCase):
    def test_the_help_names_every_section(self):
        text = bench.argument_parser().format_help()
        self.assertEqual([name for name in bench.sections.STANDARD if name not in text], [])

    def test_the_instructions_of_a_call_are_found_by_its_name(self):
        found = {name: number for name, number in count.inclusive(ANNOTATED).items() if number}
        self.assertEqual(found, {"ldap_result": 2100000, "QString::fromUtf8": 300000})


if __name__ == "__main__":
    unittest.main()
