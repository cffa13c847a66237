#!/usr/bin/python3
"""What the collection decides on the controller: who goes first, when it stops, whom a rehearsal holds
back, and what it takes from a till."""

import base64
import importlib
import io
import os
import tarfile
import tempfile
import unittest
import unittest.mock

from light_tills import collections_path

os.environ["ANSIBLE_COLLECTIONS_PATH"] = collections_path("tree")
importlib.import_module("ansible.plugins.loader")  # from now on collections are found
from ansible_collections.zelfwupdate.fleet.plugins.action import zelfw_collect  # noqa: E402
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils import (  # noqa: E402
    rehearsal,
    report,
    rollout,
)

TILLS = ["a", "b", "c", "d", "e"]
UPDATE = {"product": "3c35", "component": 0, "serial": "PR1", "file": "printer.dat", "rc": 0}
FAILED = {"outcome": "failed", "msg": "broken", "exit_code": 6, "due": [], "changes": []}


def plan(updates, due_after=(), exit_code=0):
    return {"updates": updates, "due_after": list(due_after), "exit_code": exit_code}


class Canaries(unittest.TestCase):
    def test_are_a_number_of_tills_or_per_cent_rounded_up(self):
        for wanted, number in ((0, 0), (2, 2), ("3", 3), ("1%", 1), ("41%", 3), (99, 5)):
            self.assertEqual(rollout.chosen_canaries(wanted, TILLS, {}), TILLS[:number])

    def test_are_those_of_a_group_that_take_part_or_else_the_first(self):
        groups = {"first": ["e", "b", "x"], "elsewhere": ["x"]}
        self.assertEqual(rollout.chosen_canaries("first", TILLS, groups), ["b", "e"])
        self.assertEqual(rollout.chosen_canaries("elsewhere", TILLS, groups), ["a"])

    def test_are_nothing_else(self):
        for wanted in ("nobody", "", "-1", "1.5", "%", "1%%", "\u00b2"):
            self.assertIsNone(rollout.chosen_canaries(wanted, TILLS, {}))


class Limit(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.rollout = rollout.Rollout(place.name)

    def test_counts_each_till_once(self):
        self.rollout.begin(TILLS, [], 2)
        for till in ("a", "a"):
            self.rollout.put(till, FAILED)
        self.assertEqual(self.rollout.stop(), "")
        self.rollout.put("b", FAILED)
        self.assertIn("The limit of failures (2) was met by a, b", self.rollout.stop())

    def test_of_0_stops_nothing(self):
        self.rollout.begin(TILLS, [], 0)
        for till in TILLS:
            self.rollout.put(till, FAILED)
        self.assertEqual(self.rollout.stop(), "")

    def test_is_met_by_one_canary_that_fails(self):
        self.rollout.begin(TILLS, ["b"], 9)
        self.rollout.put("a", FAILED)
        self.assertEqual(self.rollout.stop(), "")
        self.rollout.put("b", FAILED)
        self.assertEqual(self.rollout.stop(), "The canary b failed: broken")

    def test_one_canary_that_was_tried_is_enough(self):
        self.rollout.begin(TILLS, ["a", "b"], 1)
        self.rollout.put("a", {**FAILED, "outcome": "unreachable"})
        self.assertEqual(self.rollout.stop_before(["a", "b"]), "")
        self.assertIn("No canary could be tried: a: broken; b: ", self.rollout.stop_before(["c"]))
        self.rollout.put("b", {**FAILED, "outcome": "updated"})
        self.assertEqual(self.rollout.stop_before(["c"]), "")

    def test_a_new_rollout_forgets_the_last_one_and_no_other_files(self):
        self.rollout.begin(TILLS, [], 1)
        self.rollout.put("a", FAILED)
        for name in ("trace.log", "notes"):
            with open(self.rollout.path("a", name), "w", encoding="utf-8"):
                pass
        self.rollout.begin(TILLS, [], 1)
        self.assertEqual((self.rollout.stop(), self.rollout.till("a")), ("", {}))
        self.assertEqual(os.listdir(self.rollout.directory("a")), ["notes"])

    def test_a_till_has_no_path_for_a_name(self):
        for name in ("..", "a/b", ""):
            self.assertRaises(ValueError, self.rollout.directory, name)


class Rehearsal(unittest.TestCase):
    def test_that_installs_what_is_due_holds_nobody_back(self):
        self.assertIsNone(rehearsal.reason_to_hold_back([UPDATE], plan([UPDATE])))

    def test_holds_back_for_an_update_that_fails_is_missing_or_is_due_again(self):
        for came, said in (
            (plan([{**UPDATE, "rc": 9}]), "these fail: printer.dat for SN PR1, rc=9"),
            (plan([]), "does not come to printer.dat"),
            (plan([UPDATE], due_after=[UPDATE]), "still due: printer.dat"),
            (plan([UPDATE], exit_code=6), "exit code 6"),
        ):
            self.assertIn(said, rehearsal.reason_to_hold_back([UPDATE], came))

    def test_counts_devices_without_a_serial_number(self):
        self.assertIn("does not", rehearsal.reason_to_hold_back([UPDATE] * 2, plan([UPDATE])))

    def test_takes_arguments_that_choose_devices_or_waits_and_no_others(self):
        given = ["-0", "1000", "-n", "3", "-s", "-f", "-a", "-d"]
        self.assertEqual(
            rehearsal.arguments_of_rehearsal(given, True), ["-0", "1000", "-s", "-f", "-a", "-f"]
        )


def archive_of(*members):
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode="w:gz") as archive:
        for name, kind, size in members:
            member = tarfile.TarInfo(name)
            member.type, member.size, member.linkname = kind, size, "/etc/passwd"
            archive.addfile(member, io.BytesIO(b"x" * size))
    return base64.b64encode(packed.getvalue())


class Archive(unittest.TestCase):
    def test_gives_plain_files_with_our_names_only(self):
        archive = archive_of(
            ("look.log", tarfile.REGTYPE, 3),
            ("../update.log", tarfile.REGTYPE, 3),
            ("till.json", tarfile.REGTYPE, 3),
            ("trace.log", tarfile.SYMTYPE, 0),
            ("result", tarfile.LNKTYPE, 0),
        )
        self.assertEqual(zelfw_collect.unpacked(archive), {"look.log": b"xxx"})

    def test_is_refused_when_it_unpacks_to_too_much(self):
        with unittest.mock.patch.object(zelfw_collect, "LONGEST", 1000):
            archive = archive_of(("a", tarfile.REGTYPE, 501), ("look.log", tarfile.REGTYPE, 500))
            self.assertRaises(ValueError, zelfw_collect.unpacked, archive)
            archive = archive_of(("a", tarfile.REGTYPE, 500), ("look.log", tarfile.REGTYPE, 500))
            self.assertEqual(list(zelfw_collect.unpacked(archive)), ["look.log"])


class Screen(unittest.TestCase):
    def test_of_many_tills_shows_those_that_need_somebody(self):
        rows = {"t%d" % n: {**FAILED, "outcome": "current"} for n in range(100)}
        rows["t7"] = FAILED
        lines = report.lines_to_show(rows)
        self.assertEqual(len(lines), 3)
        self.assertIn("broken", lines[1])
        self.assertEqual(lines[2], "100 tills: 99 current, 1 failed")


if __name__ == "__main__":
    unittest.main()
