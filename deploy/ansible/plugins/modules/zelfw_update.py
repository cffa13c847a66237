#!/usr/bin/python3
"""Asks a till which firmware updates are due, and carries them out."""

DOCUMENTATION = r"""
---
module: zelfw_update
short_description: Look which firmware updates are due on a till, or carry them out
description:
  - Runs C(zelfwupdate) with the named firmware files, and judges what came of it.
  - The exit code of an update does not tell everything. Code 6 is given both when nothing was due
    and when an update failed, and code 0 when one of several updates went well. So the levels are
    listed before and after an update, and a look afterwards must find nothing due.
  - A look of C(zelfwupdate) removes the ".force" markers that it meets. This module looks at copies
    of the firmware files and markers, so that the markers stay for the update.
options:
  state:
    description:
      - V(asked) looks only, and lists the levels.
      - V(updated) updates, and looks again; in check mode it looks only.
      - V(settled) only lets files stay that were brought for a look.
      - V(collected) only gives back what the last runs have left.
    choices: [asked, updated, settled, collected]
    default: asked
    type: str
  program:
    description: The updater.
    default: /usr/sbin/zelfwupdate
    type: path
  firmware:
    description: >-
      The directory of the firmware files and of their ".force" markers. Files that were asked about
      and not yet used for an update wait in a directory with ".next" after its name.
    required: true
    type: path
  files:
    description: The firmware files, one for each component, with their SHA-1 checksums.
    required: true
    type: dict
  brought:
    description: The directory to which files that were missing have just been brought.
    type: path
  keep:
    description: Whether files that were brought for a look wait for the update.
    default: true
    type: bool
  force:
    description: Install levels that are not higher, too.
    default: false
    type: bool
  arguments:
    description: Further arguments, which select devices or set time-outs.
    default: []
    type: list
    elements: str
  logs:
    description: The directory of the logs and the trace, made when missing.
    default: /var/log/zelfwupdate
    type: path
  result:
    description: The result file. Its directory is made when missing.
    default: /run/zelfwupdate/result
    type: path
  facts:
    description: The file of local facts, none if not given.
    type: path
  metrics:
    description: The file for the node exporter's text file collector, none if not given.
    type: path
"""

EXAMPLES = r"""
- name: Ask what is due
  zelfw_update:
    firmware: /var/lib/zelfwupdate
    files: {printer-main.dat: 2fd4e1c67a2d28fced849ee1bb76e7391b93eb12}
"""

RETURN = r"""
outcome:
  description: >-
    current (nothing is due), due, updated, no devices (none for which there is a file), not
    installed (there is no updater), failed.
  returned: always
  type: str
exit_code:
  description: The exit code of the last look, or of the update if there was one.
  returned: when the updater was run
  type: int
due:
  description: What is due, each with file, product, component, serial, before, after.
  returned: with state asked
  type: list
levels:
  description: The levels, each with product, component, serial, level.
  returned: with state asked or updated
  type: list
changes:
  description: The components whose level changed, with product, component, serial, before, after.
  returned: with state updated
  type: list
to_bring:
  description: The names of the files that are missing or others; nothing was looked at then.
  returned: with state asked
  type: list
staged:
  description: Whether files wait for the update.
  returned: with state asked
  type: bool
trace:
  description: The trace of look and list, compressed, in base 64.
  returned: with state asked
  type: str
archive:
  description: An archive of the logs, the trace and the result file, compressed, in base 64.
  returned: with state collected
  type: str
msg:
  description: The outcome in a sentence.
  returned: always
  type: str
"""

import base64
import collections
import io
import json
import os
import re
import shutil
import tarfile
import tempfile
import time
import zlib

from ansible.module_utils.basic import AnsibleModule

LOGS = ("look", "levels-before", "update", "look-after", "levels-after")
SUCCESS, NO_DEVICES, NOTHING_UPDATED = 0, 5, 6
OUTCOMES = ("current", "due", "updated", "no devices", "failed")

LISTED = re.compile(
    r"PID: (?P<product>[0-9a-f]{4})  COMP: (?P<component>[0-9a-f]{2}) .* EC: (?P<level>[0-9a-f.]+) +"
    r"\(SN='(?P<serial>.*)'\)$"
)
FILE_FOUND = re.compile(r"Firmware file found: +(?P<path>.*)$")
WILL_BE = re.compile(r"    EC level when complete should be (?P<level>[0-9a-f.]+)$")


def printable(text):
    """The text of a device or a file, which may hold anything, fit for a table and for JSON."""
    return "".join(c if c.isprintable() else "?" for c in text)


def full_level(text):
    """A level with its build level, which lists leave out where it is 0."""
    return text if text.count(".") == 2 else text + ".00"


def listed_levels(console):
    """From (product, component, serial number) to the levels that a list shows for it: devices
    without a serial number may be alike."""
    levels = collections.defaultdict(list)
    for line in console.splitlines():
        row = LISTED.match(line)
        if row:
            key = (row["product"], int(row["component"], 16), printable(row["serial"]))
            levels[key].append(full_level(row["level"]))
    return {key: sorted(values) for key, values in levels.items()}


def due_updates(console):
    """What a look found due."""
    due, path, device = [], "", None
    for line in console.splitlines():
        found = FILE_FOUND.match(line)
        listed = LISTED.search(line) if line.startswith("  Device - ") else None
        will_be = WILL_BE.match(line)
        if found:
            path, device = found["path"], None
        elif listed:
            device = listed
        elif will_be and device:
            due.append(
                {
                    "file": printable(os.path.basename(path)),
                    "product": device["product"],
                    "component": int(device["component"], 16),
                    "serial": printable(device["serial"]),
                    "before": full_level(device["level"]),
                    "after": full_level(will_be["level"]),
                }
            )
    return due


def level_changes(before, after):
    changes = []
    for key in sorted(before):
        if key in after and before[key] != after[key]:
            product, component, serial = key
            changes.append(
                {
                    "product": product,
                    "component": component,
                    "serial": serial,
                    "before": " ".join(before[key]),
                    "after": " ".join(after[key]),
                }
            )
    return changes


def missing_components(before, after):
    """Those that were listed before and are no longer."""
    return [key for key in sorted(before) if len(after.get(key, [])) < len(before[key])]


def as_lines(levels):
    """Levels as the lines of a difference."""
    return "".join(
        "PID %s component %d SN %s: %s\n" % (*key, level)
        for key in sorted(levels)
        for level in levels[key]
    )


def levels_after(before, due):
    """The levels as they should be once what is due was updated."""
    after = {key: list(values) for key, values in before.items()}
    for update in due:
        levels = after.get((update["product"], update["component"], update["serial"]), [])
        if update["before"] in levels:
            levels[levels.index(update["before"])] = update["after"]
    return after


def outcome_of_look(code):
    """The outcome and a sentence, None for exit codes that no look should end with."""
    return {
        SUCCESS: ("due", "Updates are due"),
        NOTHING_UPDATED: ("current", "Every level is up to date"),
        NO_DEVICES: ("no devices", "No supported device for which there is a file"),
    }.get(code)


def fault_of_update(code, code_of_look, still_due, missing):
    """Why an update that was due counts as failed, None when it went well."""
    if code == NOTHING_UPDATED:
        return "An update was due and no device was updated"
    if code == NO_DEVICES:
        return "The devices were there before the update and not during it"
    if code != SUCCESS:
        return "The update ended with exit code %d" % code
    if missing:
        return "After the update these are no longer listed: " + ", ".join(
            "PID %s component %d SN %s" % key for key in missing
        )
    if still_due:
        return "After the update these are still due: " + ", ".join(
            "%(file)s for SN %(serial)s" % update for update in still_due
        )
    if code_of_look != NOTHING_UPDATED:
        return "The look after the update ended with exit code %d" % code_of_look
    return None


def fault_of_names(names):
    """Why a list of files cannot hold these names, None when it can."""
    if len(names) > 256:
        return "More than 256 firmware files"
    for name in names:
        if not name or name != os.path.basename(name) or name.startswith("#") or "\n" in name:
            return "Not the name of a firmware file: " + printable(name)
    return None


def level_rows(levels):
    """Levels as a list of components."""
    return [
        {"product": product, "component": component, "serial": serial, "level": level}
        for (product, component, serial), values in sorted(levels.items())
        for level in values
    ]


def number_of_devices(levels):
    """Devices without a serial number may be alike: one has each of its components once."""
    devices = collections.Counter()
    for (product, _, serial), values in levels.items():
        devices[(product, serial)] = max(devices[(product, serial)], len(values))
    return sum(devices.values())


def label(text):
    """A text as the value of a label."""
    return text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")


def metric(name, help_text, samples):
    """Lines of the node exporter's text format; a sample is its labels and its value."""
    lines = ["# HELP zelfwupdate_%s %s" % (name, help_text), "# TYPE zelfwupdate_%s gauge" % name]
    for labels, value in samples:
        named = ",".join('%s="%s"' % (key, label(str(text))) for key, text in labels.items())
        lines.append("zelfwupdate_%s%s %s" % (name, "{%s}" % named if named else "", value))
    return lines


def metrics_text(answer, levels, ended, duration):
    alike = collections.Counter(tuple(row.items()) for row in level_rows(levels))
    outcomes = [({"outcome": name}, int(name == answer["outcome"])) for name in OUTCOMES]
    parts = [
        ("last_run_timestamp_seconds", "When the last run ended.", [({}, "%.0f" % ended)]),
        ("last_run_duration_seconds", "How long the last run took.", [({}, "%.3f" % duration)]),
        ("last_run_exit_code", "The updater's exit code.", [({}, answer["exit_code"])]),
        ("last_run_outcome", "1 for what became of the last run.", outcomes),
        ("devices", "Devices that were listed.", [({}, number_of_devices(levels))]),
        ("updates_due", "Updates that are due.", [({}, len(answer["due"]))]),
        (
            "components",
            "Components with this level.",
            [(dict(row), number) for row, number in alike.items()],
        ),
    ]
    return "".join(line + "\n" for part in parts for line in metric(*part))


def facts_of(answer, levels, ended, duration):
    last = {key: answer[key] for key in ("outcome", "msg", "exit_code")}
    last.update(time=int(ended), duration=round(duration, 3))
    return {"last": last, "levels": level_rows(levels), "due": answer["due"]}


def replace_file(name, text):
    """A reader finds the old file or the new one, nothing between."""
    os.makedirs(os.path.dirname(name), mode=0o755, exist_ok=True)
    with open(name + ".new", "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(name + ".new", 0o644)
    os.replace(name + ".new", name)


class Fault(Exception):
    """Why it can't go on, with the answer so far."""

    def __init__(self, **answer):
        super().__init__(answer["msg"])
        self.answer = answer


class Files:
    """The firmware files of this till: those in use, and those that wait for the update."""

    def __init__(self, module):
        self.module = module
        self.firmware = module.params["firmware"]
        self.stage = self.firmware.rstrip("/") + ".next"
        self.places = [self.firmware, self.stage]
        if module.params["brought"]:
            self.places.append(module.params["brought"])

    def names(self):
        return sorted(self.module.params["files"])

    def place_of(self, name):
        """The directory that has the right file, None when it is missing."""
        for place in self.places:
            path = os.path.join(place, name)
            if os.path.isfile(path) and self.module.sha1(path) == self.module.params["files"][name]:
                return place
        return None

    def missing(self):
        return [name for name in self.names() if self.place_of(name) is None]

    def waiting(self):
        return [name for name in self.names() if self.place_of(name) == self.stage]

    def keep_brought(self):
        """Whether any was there to keep."""
        brought = self.module.params["brought"]
        names = [name for name in self.names() if brought and self.place_of(name) == brought]
        return self.move(names, brought, self.stage)

    def settle(self):
        """What waits is from now on in use."""
        moved = self.move(self.waiting(), self.stage, self.firmware)
        shutil.rmtree(self.stage, ignore_errors=True)
        return moved

    def move(self, names, source, target):
        if names:
            os.makedirs(target, mode=0o755, exist_ok=True)
        for name in names:
            copy = os.path.join(target, name + ".new")
            shutil.copyfile(os.path.join(source, name), copy)
            os.chmod(copy, 0o644)
            os.replace(copy, os.path.join(target, name))
        return bool(names)


class Updater:
    """The program on this till."""

    def __init__(self, module, files):
        self.module = module
        self.files = files
        self.parameters = module.params
        self.trace = os.path.join(self.parameters["logs"], "trace.log")

    def make_directories(self):
        for directory in (self.parameters["logs"], os.path.dirname(self.parameters["result"])):
            os.makedirs(directory, mode=0o750, exist_ok=True)

    def run(self, name, *arguments):
        command = [self.parameters["program"], *arguments, *self.parameters["arguments"]]
        command += ["-t", self.trace, "-l", self.log(name)]
        code, console, errors = self.module.run_command(command, handle_exceptions=False)
        return code, console + errors

    def log(self, name):
        return os.path.join(self.parameters["logs"], name + ".log")

    def archive(self):
        """What the last runs have left."""
        packed = io.BytesIO()
        with tarfile.open(fileobj=packed, mode="w:gz") as archive:
            for name in filter(os.path.isfile, [self.log(name) for name in LOGS] + [self.trace]):
                archive.add(name, arcname=os.path.basename(name))
            if os.path.isfile(self.parameters["result"]):
                archive.add(self.parameters["result"], arcname="result")
        return base64.b64encode(packed.getvalue()).decode()

    def packed_trace(self):
        with open(self.trace, "rb") as file:
            return base64.b64encode(zlib.compress(file.read())).decode()

    def write_list(self, directory):
        """The list of the files: it names them in one order for looks and updates."""
        name = os.path.join(directory, "files")
        with open(name, "w", encoding="utf-8") as file:
            file.writelines(file_name + "\n" for file_name in self.files.names())
        return name

    def levels(self, name):
        """With debug lines the trace tells more of the devices."""
        code, console = self.run(name, "-L", "-n", "3")
        if code not in (SUCCESS, NO_DEVICES):
            raise Fault(
                outcome="failed",
                exit_code=code,
                due=[],
                console=printable_lines(console),
                msg="The devices could not be listed, exit code %d" % code,
            )
        return listed_levels(console)

    def markers(self):
        """The names of the files that a marker forces."""
        return [
            name
            for name in self.files.names()
            if os.path.exists(os.path.join(self.parameters["firmware"], name + ".force"))
        ]

    def look(self, name, asks):
        """A look at what is due, on copies. What is asked is what an update would do, force and
        markers included; else only levels count."""
        with tempfile.TemporaryDirectory(prefix="zelfwupdate-look-") as directory:
            for file_name in self.files.names():
                shutil.copy(os.path.join(self.files.place_of(file_name), file_name), directory)
            for file_name in self.markers() if asks else []:
                marker = os.path.join(self.parameters["firmware"], file_name + ".force")
                shutil.copy(marker, directory)
            arguments = ["-C", self.write_list(directory), "-p", directory, "-o", "99"]
            if asks:
                arguments += ["-r", self.parameters["result"]]
                if self.parameters["force"]:
                    arguments.append("-f")
            return self.run(name, *arguments)

    def update(self):
        with tempfile.TemporaryDirectory(prefix="zelfwupdate-update-") as directory:
            arguments = ["-C", self.write_list(directory), "-p", self.parameters["firmware"]]
            if self.parameters["force"]:
                arguments.append("-f")
            return self.run("update", *arguments, "-r", self.parameters["result"])

    def forget_result(self):
        """A look names what is due "succeeded": not a result to keep."""
        if os.path.exists(self.parameters["result"]):
            os.remove(self.parameters["result"])

    def forget_last_run(self):
        """Each run of the updater appends to the trace."""
        for name in [self.trace] + [self.log(name) for name in LOGS]:
            if os.path.exists(name):
                os.remove(name)
        self.forget_result()


def printable_lines(console):
    return [printable(line) for line in console.splitlines()]


def ask(updater):
    """The answer, and the levels."""
    updater.forget_last_run()
    code, console = updater.look("look", asks=True)
    due = due_updates(console)
    fault = ("failed", "The look at what is due ended with exit code %d" % code)
    outcome, sentence = outcome_of_look(code) or fault
    answer = {"outcome": outcome, "exit_code": code, "due": due, "msg": sentence}
    if outcome == "failed":
        raise Fault(console=printable_lines(console), **answer)
    if outcome == "due":
        updater.forget_result()
    levels = updater.levels("levels-before")
    if outcome == "due":
        answer["diff"] = {
            "before": as_lines(levels),
            "after": as_lines(levels_after(levels, due)),
        }
    answer["markers"] = updater.markers()
    answer["trace"] = updater.packed_trace()
    return answer, levels


def update(updater):
    """The answer, and the levels."""
    before = updater.levels("levels-before")
    code, console = updater.update()
    after_code, after_console = updater.look("look-after", asks=False)
    after = updater.levels("levels-after")
    still_due = due_updates(after_console)
    changes = level_changes(before, after)
    fault = fault_of_update(code, after_code, still_due, missing_components(before, after))
    answer = {
        "outcome": "failed" if fault else "updated",
        "exit_code": code,
        "changed": code == SUCCESS or bool(changes),
        "changes": changes,
        "due": still_due,
        "still_due": still_due,
        "diff": {"before": as_lines(before), "after": as_lines(after)},
    }
    if fault:
        answer["console"] = printable_lines(console)
    answer["msg"] = fault or "%d components have a new level" % len(changes)
    return answer, after


def publish(module, answer, levels, begun):
    """For other roles and for whoever watches the tills. Not worth a failure."""
    ended, duration = time.time(), time.monotonic() - begun
    try:
        if module.params["facts"]:
            facts = facts_of(answer, levels, ended, duration)
            replace_file(module.params["facts"], json.dumps(facts, indent=1) + "\n")
        if module.params["metrics"]:
            replace_file(module.params["metrics"], metrics_text(answer, levels, ended, duration))
    except OSError as error:
        module.warn("Facts and metrics were not written: %s" % error)


def carry_out(module, files, updates):
    """Asks or updates, and tells of it."""
    updater = Updater(module, files)
    updater.make_directories()
    begun, levels = time.monotonic(), {}
    staged = module.params["keep"] and not module.check_mode and files.keep_brought()
    settled = updates and files.settle()
    try:
        answer, levels = update(updater) if updates else ask(updater)
    except Fault as fault:
        answer = fault.answer
    if not module.check_mode:
        publish(module, answer, levels, begun)
    answer["levels"] = level_rows(levels)
    answer["changed"] = bool(answer.get("changed") or staged or settled)
    answer["staged"] = bool(files.waiting())
    if answer["outcome"] == "failed":
        module.fail_json(**answer)
    module.exit_json(**answer)


def main():
    module = AnsibleModule(
        argument_spec={
            "state": {"choices": ["asked", "updated", "settled", "collected"], "default": "asked"},
            "program": {"type": "path", "default": "/usr/sbin/zelfwupdate"},
            "firmware": {"type": "path", "required": True},
            "files": {"type": "dict", "required": True},
            "brought": {"type": "path"},
            "keep": {"type": "bool", "default": True},
            "force": {"type": "bool", "default": False},
            "arguments": {"type": "list", "elements": "str", "default": []},
            "logs": {"type": "path", "default": "/var/log/zelfwupdate"},
            "result": {"type": "path", "default": "/run/zelfwupdate/result"},
            "facts": {"type": "path"},
            "metrics": {"type": "path"},
        },
        supports_check_mode=True,
    )
    fault = fault_of_names(module.params["files"])
    if fault:
        module.fail_json(outcome="failed", msg=fault)
    files = Files(module)
    state = module.params["state"]
    if state == "collected":
        archive = Updater(module, files).archive()
        module.exit_json(outcome="collected", archive=archive, msg="What the last runs have left")
    if state == "settled":
        changed = not module.check_mode and files.settle()
        module.exit_json(outcome="settled", changed=changed, msg="The files are in use")
    if not os.access(module.params["program"], os.X_OK):
        module.exit_json(outcome="not installed", msg="There is no " + module.params["program"])
    missing = files.missing()
    if missing:
        sentence = "These files are missing: " + ", ".join(missing)
        outcome = "failed" if module.params["brought"] else "to bring"
        module.exit_json(
            outcome=outcome, msg=sentence, to_bring=missing, failed=outcome == "failed"
        )
    carry_out(module, files, state == "updated" and not module.check_mode)


if __name__ == "__main__":
    main()
