"""What the role's module makes of the updater's exit codes and console."""

import importlib.util
import pathlib
import unittest

MODULE = pathlib.Path(__file__).parents[3] / "deploy/ansible/plugins/modules/zelfw_update.py"
found = importlib.util.spec_from_file_location("zelfw_update", MODULE)
zelfw_update = importlib.util.module_from_spec(found)
found.loader.exec_module(zelfw_update)

LIST = """\
PID: 3c35  COMP: 00  TYPE: FW   EC: 01.05.01 (SN='PR1')
PID: 3c12  COMP: 01  TYPE: CFG  EC: 01.01    (SN='NO SERIAL NUMBER')
PID: 3c12  COMP: 01  TYPE: CFG  EC: 01.00    (SN='NO SERIAL NUMBER')
"""

LOOK = """\
Firmware file found:  /tmp/x/printer.dat
  File   - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.05.01
  Device - PID: 3c35  COMP: 00  TYPE: FW   CONTROL: Increasing   EC: 01.02.03 (SN='PR1')
    Starting firmware update of Product ID 3c35 COMP: 0
    EC level when complete should be 01.05.01

Firmware file found:  /tmp/x/scanner.dat
  File   - PID: 3c12  COMP: 01  TYPE: CFG  CONTROL: Increasing   EC: 01.01.00
  Device - PID: 3c12  COMP: 01  TYPE: CFG  CONTROL: Increasing   EC: 01.01.00 (SN='SC1')
    File EC level smaller or equal, no update needed for PID: 3c12  COMP: 1
"""

PRINTER = ("3c35", 0, "PR1")
SCANNER = ("3c12", 1, "NO SERIAL NUMBER")


class Console(unittest.TestCase):
    def test_list_gives_levels_with_build_level_and_keeps_devices_that_are_alike_apart(self):
        self.assertEqual(
            zelfw_update.listed_levels(LIST),
            {PRINTER: ["01.05.01"], SCANNER: ["01.00.00", "01.01.00"]},
        )

    def test_look_gives_only_what_is_due(self):
        self.assertEqual(
            zelfw_update.due_updates(LOOK),
            [
                {
                    "file": "printer.dat",
                    "product": "3c35",
                    "component": 0,
                    "serial": "PR1",
                    "before": "01.02.03",
                    "after": "01.05.01",
                }
            ],
        )

    def test_serial_number_cannot_bring_control_characters_into_the_table(self):
        levels = zelfw_update.listed_levels(LIST.replace("PR1", "P\x1b[2J'\udcff"))
        self.assertIn(("3c35", 0, "P?[2J'?"), levels)

    def test_difference_foretells_the_level_of_what_is_due(self):
        before = {PRINTER: ["01.02.03"], SCANNER: ["01.00.00", "01.01.00"]}
        after = zelfw_update.levels_after(before, zelfw_update.due_updates(LOOK))
        self.assertEqual(after, {**before, PRINTER: ["01.05.01"]})
        self.assertEqual(before[PRINTER], ["01.02.03"])


class Look(unittest.TestCase):
    def test_tells_the_exit_codes_0_5_and_6_apart(self):
        outcomes = [zelfw_update.outcome_of_look(code)[0] for code in (0, 5, 6)]
        self.assertEqual(outcomes, ["due", "no devices", "current"])

    def test_knows_no_outcome_of_another_exit_code(self):
        for code in (1, 2, 3, 4, 8, 12, -15):
            self.assertIsNone(zelfw_update.outcome_of_look(code))


class Update(unittest.TestCase):
    def test_went_well_when_nothing_is_due_afterwards(self):
        self.assertIsNone(zelfw_update.fault_of_update(0, 6, [], []))

    def test_failed_when_nothing_was_updated_although_something_was_due(self):
        self.assertIn("no device was updated", zelfw_update.fault_of_update(6, 0, [], []))

    def test_failed_when_the_devices_were_gone(self):
        self.assertIn("not during it", zelfw_update.fault_of_update(5, 5, [], []))

    def test_failed_with_any_other_exit_code(self):
        for code in (1, 2, 3, 4, 8, 12, -9):
            self.assertIn(str(code), zelfw_update.fault_of_update(code, 6, [], []))

    def test_failed_with_exit_code_0_when_something_is_still_due(self):
        due = zelfw_update.due_updates(LOOK)
        self.assertIn("printer.dat for SN PR1", zelfw_update.fault_of_update(0, 0, due, []))

    def test_failed_with_exit_code_0_when_a_component_is_no_longer_listed(self):
        before = zelfw_update.listed_levels(LIST)
        after = {PRINTER: ["01.05.01"], SCANNER: ["01.01.00"]}
        missing = zelfw_update.missing_components(before, after)
        self.assertEqual(missing, [SCANNER])
        self.assertIn("PID 3c12 component 1", zelfw_update.fault_of_update(0, 6, [], missing))

    def test_failed_when_the_look_afterwards_fails(self):
        self.assertIn("exit code 12", zelfw_update.fault_of_update(0, 12, [], []))


class Metrics(unittest.TestCase):
    def test_count_devices_that_are_alike_and_name_no_series_twice(self):
        levels = {
            ("3c12", 0, "NO SERIAL NUMBER"): ["01.05.00", "01.05.00"],
            ("3c12", 1, "NO SERIAL NUMBER"): ["01.00.00", "01.01.00"],
            PRINTER: ["01.05.01"],
        }
        answer = {"outcome": "current", "exit_code": 6, "due": []}
        text = zelfw_update.metrics_text(answer, levels, 1.5, 2.25)
        self.assertIn("\nzelfwupdate_devices 3\n", text)
        self.assertIn('serial="NO SERIAL NUMBER",level="01.05.00"} 2\n', text)
        series = [line.rsplit(" ", 1)[0] for line in text.splitlines() if line[0] != "#"]
        self.assertEqual(len(series), len(set(series)))

    def test_serial_number_cannot_end_its_label(self):
        levels = {("3c35", 0, 'A"} 1\\'): ["01.00.00"]}
        answer = {"outcome": "due", "exit_code": 0, "due": [{}]}
        text = zelfw_update.metrics_text(answer, levels, 0, 0)
        self.assertIn('serial="A\\"} 1\\\\",level', text)


class Names(unittest.TestCase):
    def test_refuses_names_that_a_list_cannot_hold_and_too_many(self):
        for name in ("#a.dat", "a/b.dat", "a\nb.dat", ""):
            self.assertIsNotNone(zelfw_update.fault_of_names({name: ""}))
        self.assertIsNotNone(zelfw_update.fault_of_names({"%d.dat" % n: "" for n in range(257)}))

    def test_takes_blanks(self):
        self.assertIsNone(zelfw_update.fault_of_names({"a b.dat": ""}))


if __name__ == "__main__":
    unittest.main()
