"""Looks at the pages of `zelfwtrace report` in a real browser: pages.py --build <build tree>.

With --pictures <directory> it makes the pictures of the documentation instead.
"""

import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

from browser import Browser

TREE = pathlib.Path(__file__).resolve().parents[2]
HOSTILE = "<img src=x onerror=alert(1)>\"'&{{x}}"
PULLED_CABLE = """
[[fault]]
device = "printer"
at = "record"
number = 60
action = "unplug"
"""

build = None  # the tree's programs


def run(*command, codes=(0,), directory=None):
    done = subprocess.run(
        [str(word) for word in command],
        cwd=directory,
        capture_output=True,
        text=True,
        check=False,
        timeout=120,
    )
    if done.returncode not in codes:
        raise RuntimeError("%s: %d: %s" % (command, done.returncode, done.stderr + done.stdout))
    return done


def trace_of(place, name, *arguments, more="", serial="PR40021", codes=(0,)):
    """A run on the simulated till, in virtual time: the path of its trace."""
    bus = (TREE / "sim/buses/demo.toml").read_text(encoding="utf-8")
    bus = bus.replace("PR40021", serial.replace('"', '\\"'))
    bus_file = place / (name + ".toml")
    bus_file.write_text(bus + more, encoding="utf-8")
    trace = place / (name + ".trace")
    run(
        *[build / "sim/zelfwsim", "run", "--virtual", "--seed", "7"],
        *["--state", name + ".state", bus_file.name, "--"],
        *["./zelfwupdate", *arguments, "-l", "0", "-t", trace.name],
        codes=codes,
        directory=place,
    )
    return trace


def traces_in(place):
    """Five kinds of runs, and one with a hostile name."""
    # Short names, as on a till.
    (place / "zelfwupdate").symlink_to(build / "zelfwupdate")
    (place / "firmware").symlink_to(build / "firmware")
    update = ["-U", "-p", "firmware"]
    traces = {
        "updated": trace_of(place, "updated", *update),
        "failed": trace_of(place, "failed", *update, more=PULLED_CABLE, codes=(6,)),
        "listed": trace_of(place, "listed", "-L"),
        "restarted": trace_of(place, "restarted", "-R"),
        "hostile": trace_of(place, "hostile", *update, serial=HOSTILE[:30]),
    }
    # The power went away in the middle of it.
    whole = traces["updated"].read_bytes()
    traces["cut"] = place / "cut.trace"
    traces["cut"].write_bytes(whole[: len(whole) // 5])
    return traces


def report(page, *operands, codes=(0,)):
    command = [build / "zelfwtrace", "report", "--utc", *operands, "-o", page]
    run(*command, codes=codes, directory=page.parent)
    return page


def fleet_in(place, traces, more=()):
    tills = [
        {"name": "till-01", "state": "updated", "trace": "updated.trace", "report": "updated.html"},
        {
            "name": "till-02",
            "state": "failed",
            "reason": "After the update these are still due: printer-main.dat",
            "trace": str(traces["failed"]),
            "report": "failed.html",
        },
        {"name": "till-03", "state": "current", "trace": "listed.trace", "report": "listed.html"},
        {"name": "till-04", "state": "unreachable", "reason": "No route to host"},
        {"name": "till-05", "state": "held back", "reason": "till-02 of its batch failed"},
        {"name": "till-06", "state": "not begun"},
        *more,
    ]
    (place / "tills.json").write_text(json.dumps(tills), encoding="utf-8")
    page = place / "report.html"
    run(build / "zelfwtrace", "report", "--tills", place / "tills.json", "-o", page)
    return page


class Pages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.directory.cleanup)
        place = pathlib.Path(cls.directory.name)
        traces = traces_in(place)
        cls.pages = {
            name: report(place / (name + ".html"), "till-7=" + str(trace), codes=(0, 1))
            for name, trace in traces.items()
        }
        cls.pages["several"] = report(
            place / "several.html", traces["failed"], traces["listed"], traces["restarted"]
        )
        hostile = {"name": HOSTILE, "state": "not begun", "report": "javascript:alert(1)"}
        cls.pages["fleet"] = fleet_in(place, traces, [hostile])
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.__exit__)

    def seen(self, name, **view):
        self.browser.open(self.pages[name], **view)
        probe = (pathlib.Path(__file__).parent / "probe.js").read_text(encoding="utf-8")
        return json.loads(self.browser.evaluate(probe))

    def test_pages_ask_for_nothing_and_complain_of_nothing(self):
        for name in self.pages:
            with self.subTest(page=name):
                page = self.seen(name)
                self.assertEqual(self.browser.asked_for(), [self.pages[name].as_uri()])
                self.assertEqual(self.browser.complaints(), [])
                self.assertEqual((page["scripts"], page["foreign"], page["handlers"]), (0, 0, 0))

    def test_pages_fit_every_width_and_can_be_read_in_the_dark(self):
        for name in self.pages:
            with self.subTest(page=name):
                for width, dark in [(1280, True), (375, False)]:
                    page = self.seen(name, width=width, dark=dark)
                    self.assertLessEqual(page["width"], width)
                    self.assertEqual(page["faint"], [])

    def test_pages_are_clear_without_eyes(self):
        for name in self.pages:
            with self.subTest(page=name):
                page = self.seen(name)
                self.assertGreater(page["tables"], 0)
                for fault in ["bare_tables", "bare_heads", "bare_drawings", "dead_links"]:
                    self.assertEqual(page[fault], 0, fault)
                self.assertEqual((page["dead_labels"], page["skipped_levels"]), (0, 0))
                self.assertEqual(page["repeated"], [])

    def test_pages_are_valid(self):
        for name in self.pages:
            with self.subTest(page=name):
                done = run("tidy", "-quiet", "-errors", "-utf8", self.pages[name], codes=(0, 1, 2))
                self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_pages_can_be_printed(self):
        for name in ["failed", "fleet"]:
            self.seen(name)
            self.assertGreater(self.browser.printed_pages(), 0)

    def test_update_shows_devices_phases_and_answer_times(self):
        page = self.seen("updated")
        self.assertEqual(page["title"], "till-7 - zelfwupdate")
        self.assertIn("7 of 7 components updated", page["text"])
        self.assertIn("zelfwupdate -U -p firmware", page["text"])
        self.assertEqual(page["failures"], [])
        self.assertTrue(
            page["rows"][0].startswith("3c35/0 PR40021 printer-main.dat 01.02.03 01.05.01 ✓ well")
        )
        self.assertEqual((page["lanes"], page["charts"], page["marks"]), (4, 7, 0))
        self.assertEqual(
            set(page["blocks"]), {"list", "erase", "records", "checksum", "reset", "sleep"}
        )
        self.assertGreater(page["talk"], 100)
        self.assertEqual(page["open_details"], 0)

    def test_failure_has_its_paragraph_behind_its_mark(self):
        page = self.seen("failed")
        self.assertEqual((len(page["failures"]), page["marks"]), (1, 1))
        for part in [
            "3c35 COMP 0 (SN='PR40021')",
            "The device left the bus",
            "To do: Look at plug, cable, hub and power supply",
            "record 60 of 123, offset ",
            "Read device not connected, rc=-4",
        ]:
            self.assertIn(part, page["failures"][0])
        self.assertIn("✕ failed", page["rows"][0])
        self.browser.evaluate("document.querySelector('.lane a.sign').click()")
        self.assertEqual(
            self.browser.evaluate("document.querySelector(':target').className"), "failure bad"
        )

    def test_list_shows_levels(self):
        page = self.seen("listed")
        self.assertIn("7 components listed", page["text"])
        self.assertIn("3c35/0 PR40021 FW 01.02.03", page["rows"])
        self.assertEqual(page["blocks"], ["list"])

    def test_reset_shows_each_device(self):
        page = self.seen("restarted")
        self.assertIn("4 of 4 devices reset", page["text"])
        self.assertEqual(page["lanes"], 4)
        self.assertIn("reset", page["blocks"])

    def test_run_without_an_end_is_unfinished(self):
        page = self.seen("cut")
        self.assertIn("✕ unfinished", page["text"])
        self.assertIn("The trace is damaged", page["text"])
        self.assertIn("incomplete", page["failures"][-1])

    def test_names_from_devices_are_text(self):
        page = self.seen("hostile")
        self.assertIn("<img src=x onerror=alert(1)>", page["text"])
        page = self.seen("fleet")
        self.assertIn(HOSTILE, page["text"])
        self.assertIn("./javascript%3Aalert%281%29", page["links"])

    def test_page_of_several_runs_leads_to_each(self):
        page = self.seen("several")
        self.assertIn("3 files, 3 runs", page["text"])
        self.assertEqual(page["links"][:3], ["#run1", "#run2", "#run3"])

    def test_fleet_shows_each_till_with_its_levels_and_cause(self):
        page = self.seen("fleet")
        self.assertEqual(page["title"], "7 tills - zelfwupdate")
        self.assertEqual(page["links"][0], "./failed.html")
        self.assertIn("After the update these are still due", page["rows"][0])
        self.assertIn("The device left the bus", page["rows"][0])
        self.assertIn("3c35/0 PR40021 01.02.03 failed", page["rows"][0])
        self.assertEqual(page["rows"][1], "till-04 ? unreachable No route to host")
        self.assertIn("till-05 ! held back till-02 of its batch failed", page["rows"])
        updated = [row for row in page["rows"] if row.startswith("till-01")][0]
        self.assertIn("✓ updated", updated)
        self.assertIn("3c35/0 PR40021 01.02.03 → to 01.05.01", updated)


def make_pictures(directory):
    """The pictures of the documentation."""
    views = [
        ("failed", "report", 1280, False, 1420),
        ("failed", "report-dark", 1280, True, 1420),
        ("failed", "report-narrow", 375, False, 2300),
        ("fleet", "report-fleet", 1280, False, 1000),
        ("fleet", "report-fleet-narrow", 375, True, 1500),
    ]
    with tempfile.TemporaryDirectory() as name, Browser() as browser:
        place = pathlib.Path(name)
        traces = traces_in(place)
        pages = {
            "failed": report(place / "failed.html", "till-7=" + str(traces["failed"].relative_to(place))),
            "fleet": fleet_in(place, traces),
        }
        for page, picture, width, dark, height in views:
            browser.open(pages[page], width=width, dark=dark)
            whole = browser.evaluate("document.documentElement.scrollHeight")
            file = pathlib.Path(directory) / (picture + ".png")
            browser.picture(file, width, min(height, whole))
            if shutil.which("pngquant"):
                run("pngquant", "--force", "--ext", ".png", "--strip", "64", file)
            print(file, os.path.getsize(file))


def main():
    global build
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, type=pathlib.Path)
    parser.add_argument("--pictures")
    arguments, rest = parser.parse_known_args()
    build = arguments.build.resolve()
    if arguments.pictures:
        make_pictures(arguments.pictures)
        return
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
