#!/usr/bin/python3
"""Reading training recordings from a recorder's directory: the files it finishes are read, its
leftovers and the rows the library would refuse are skipped and named by file and line."""
import os
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import recordings  # noqa: E402

HEADER = recordings.HEADER + "\n"
GOOD = ["1000,10.0000000,20.0000000,0.5000000,0.1000000,0.2000000,0",
        "1004,11.5000000,21.0000000,0.6000000,0.1000000,0.2000000,2",
        "1008,13.0000000,22.0000000,0.6000000,0.1000000,0.2000000,1"]


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", newline="") as f:
        f.write(text)


class RowTest(unittest.TestCase):
    def test_bad_rows_are_skipped_with_their_line_and_reason(self):
        cases = [  # (row, reason)
            ("1002,1.0,2.0,0.5,0.1", "expected 7 fields, found 5"),
            ("1002,1.0,2.0,0.5,0.1,0.2,2,9", "expected 7 fields, found 8"),
            ("-5,1.0,2.0,0.5,0.1,0.2,2", "timestamp '-5' is not a whole non-negative number of milliseconds"),
            ("10.5,1.0,2.0,0.5,0.1,0.2,2", "timestamp '10.5' is not a whole"),
            ("1002,nan,2.0,0.5,0.1,0.2,2", "x_pos 'nan' is not a finite number"),
            ("1002,1.0,2.0,inf,0.1,0.2,2", "pressure 'inf' is not a finite number"),
            ("1002,1.0,2.0,0.5,0.1,abc,2", "orientation 'abc' is not a finite number"),
            ("1002,1.0,2.0,0.5,0.1,0.2,2.5", "tag '2.5' is not an integer"),
            ("999,1.0,2.0,0.5,0.1,0.2,2", "timestamp 999 goes backwards (previous row 1000)"),
        ]
        with tempfile.TemporaryDirectory() as tmp:
            for row, reason in cases:
                path = os.path.join(tmp, "r.dat")
                write(path, HEADER + GOOD[0] + "\n" + row + "\n" + "\n".join(GOOD[1:]) + "\n")
                skipped = recordings.Skipped()
                rec = recordings.read(path, skipped)
                self.assertEqual(len(skipped.rows), 1, row)
                self.assertEqual(skipped.rows[0][:2], (path, 3), row)
                self.assertTrue(skipped.rows[0][2].startswith(reason), (row, skipped.rows[0][2]))
                np.testing.assert_array_equal(rec.t, [1000, 1004, 1008])

    def test_the_recorders_rows_are_read_as_written(self):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "a.dat")
            # A byte-order mark, CRLF line ends and blank lines are accepted, as the library's reader does.
            write(path, "\ufeff" + HEADER.replace("\n", "\r\n") + "\r\n".join(GOOD[:2]) + "\r\n\r\n" + GOOD[2] + "\n")
            skipped = recordings.Skipped()
            rec = recordings.read(path, skipped)
        self.assertFalse(skipped)
        np.testing.assert_array_equal(rec.t, [1000, 1004, 1008])
        np.testing.assert_array_equal(rec.tag, [0, 2, 1])
        np.testing.assert_allclose(rec.x, [10.0, 11.5, 13.0])
        np.testing.assert_allclose(rec.orientation, [0.2, 0.2, 0.2], rtol=1e-7)
        self.assertEqual(rec.x.dtype, np.float32)

    def test_a_file_without_the_header_or_rows_is_skipped_whole(self):
        with tempfile.TemporaryDirectory() as tmp:
            for name, text, reason in (("noheader.dat", "\n".join(GOOD) + "\n", "first line is not the header"),
                                       ("empty.dat", "", "first line is not the header"),
                                       ("headeronly.dat", HEADER, "no sample rows")):
                skipped = recordings.Skipped()
                path = os.path.join(tmp, name)
                write(path, text)
                self.assertIsNone(recordings.read(path, skipped))
                self.assertEqual(len(skipped.files), 1)
                self.assertEqual(skipped.files[0][0], path)
                self.assertTrue(skipped.files[0][1].startswith(reason), skipped.files[0])


class DirectoryTest(unittest.TestCase):
    def test_a_recorders_directory_trains_as_it_is(self):
        with tempfile.TemporaryDirectory() as tmp:
            body = HEADER + "\n".join(GOOD) + "\n"
            write(os.path.join(tmp, "dev", "stylus_input_events_2026-01-02_10-00-00.dat"), body)
            write(os.path.join(tmp, "dev", "stylus_input_events_2026-01-01_09-00-00.dat"), body)
            write(os.path.join(tmp, "dev", "stylus_input_events_2026-01-02_11-00-00.dat.tmp"), body)
            write(os.path.join(tmp, "a_tablet", "session.csv"), body + "1,2\n")
            write(os.path.join(tmp, "dev", "notes.txt"), "not a recording")
            skipped = recordings.Skipped()
            # A file named again, on its own, counts once.
            again = os.path.join(tmp, "a_tablet", "session.csv")
            found = recordings.load([tmp, again], skipped)
            names = [os.path.relpath(p, tmp) for p, _ in found]
            self.assertEqual(names, ["a_tablet/session.csv", "dev/stylus_input_events_2026-01-01_09-00-00.dat",
                                     "dev/stylus_input_events_2026-01-02_10-00-00.dat"])
            self.assertEqual([os.path.basename(p) for p in skipped.leftovers],
                             ["stylus_input_events_2026-01-02_11-00-00.dat.tmp"])
            self.assertEqual([(os.path.relpath(p, tmp), n) for p, n, _ in skipped.rows], [("a_tablet/session.csv", 5)])
            report = skipped.report()
            self.assertEqual(report[0], "skipped 1 unfinished recorder file (.dat.tmp): %s" % skipped.leftovers[0])
            self.assertEqual(report[1], "skipped 1 bad row in 1 file:")
            self.assertEqual(report[2], "  %s:5: expected 7 fields, found 2" % again)
            # The reading processes report their rows, not the listing's leftovers.
            self.assertEqual(skipped.report(listing=False), report[1:])
            with self.assertRaises(FileNotFoundError):
                recordings.find([os.path.join(tmp, "missing")], skipped)

    def test_a_long_report_names_the_first_problems_and_counts_the_rest(self):
        skipped = recordings.Skipped()
        skipped.rows = [("f.dat", n, "why") for n in range(2, 2 + recordings.Skipped.SHOWN + 3)]
        report = skipped.report()
        self.assertEqual(report[0], "skipped %d bad rows in 1 file:" % (recordings.Skipped.SHOWN + 3))
        self.assertEqual(report[1], "  f.dat:2: why")
        self.assertEqual(report[-1], "  ... and 3 more")
        self.assertEqual(len(report), recordings.Skipped.SHOWN + 2)


if __name__ == "__main__":
    unittest.main()
