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
      - V(compared) tells which firmware files are not there as they should be.
      - V(asked) looks only.
      - V(updated) updates, and looks again; in check mode it looks only.
    choices: [compared, asked, updated]
    default: asked
    type: str
  program:
    description: The updater.
    default: /usr/sbin/zelfwupdate
    type: path
  firmware:
    description: The directory of the firmware files.
    required: true
    type: path
  files:
    description: The firmware files, one for each component, with their SHA-1 checksums.
    required: true
    type: dict
  markers:
    description: The directory in which ".force" markers are looked for; O(firmware) if not given.
    type: path
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
    description: >-
      The directory of the logs and the trace, made when missing. An archive beside it, with ".tar"
      after its name, holds them and the result file.
    default: /var/log/zelfwupdate
    type: path
  result:
    description: The result file. Its directory is made when missing.
    default: /run/zelfwupdate/result
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
changes:
  description: The components whose level changed, with product, component, serial, before, after.
  returned: with state updated
  type: list
to_bring:
  description: The names of the files that are missing or others.
  returned: with state compared
  type: list
installed:
  description: Whether there is an updater.
  returned: with state compared
  type: bool
msg:
  description: The outcome in a sentence.
  returned: always
  type: str
"""

import collections
import os
import re
import shutil
import tarfile
import tempfile

from ansible.module_utils.basic import AnsibleModule

LOGS = ("look", "levels-before", "update", "look-after", "levels-after")
SUCCESS, NO_DEVICES, NOTHING_UPDATED = 0, 5, 6

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


class Updater:
    """The program on this till."""

    def __init__(self, module):
        self.module = module
        self.parameters = module.params
        self.trace = os.path.join(self.parameters["logs"], "trace.log")
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
        """One file to collect, with what the last runs have left."""
        with tarfile.open(self.parameters["logs"] + ".tar", "w") as archive:
            names = [self.log(name) for name in LOGS] + [self.trace, self.parameters["result"]]
            for name in filter(os.path.exists, names):
                archive.add(name, arcname=os.path.basename(name))

    def write_list(self, directory):
        """The list of the files: it names them in one order for looks and updates."""
        name = os.path.join(directory, "files")
        with open(name, "w", encoding="utf-8") as file:
            file.writelines(file_name + "\n" for file_name in sorted(self.parameters["files"]))
        return name

    def levels(self, name):
        code, console = self.run(name, "-L")
        if code != SUCCESS:
            self.archive()
            self.module.fail_json(
                outcome="failed",
                exit_code=code,
                console=printable_lines(console),
                msg="The devices could not be listed, exit code %d" % code,
            )
        return listed_levels(console)

    def look(self, name, asks):
        """A look at what is due, on copies. What is asked is what an update would do, force and
        markers included; else only levels count."""
        parameters = self.parameters
        with tempfile.TemporaryDirectory(prefix="zelfwupdate-look-") as directory:
            for file_name in parameters["files"]:
                shutil.copy(os.path.join(parameters["firmware"], file_name), directory)
                marker = os.path.join(
                    parameters["markers"] or parameters["firmware"], file_name + ".force"
                )
                if asks and os.path.exists(marker):
                    shutil.copy(marker, directory)
            arguments = ["-C", self.write_list(directory), "-p", directory, "-o", "99"]
            if asks:
                arguments += ["-r", parameters["result"]]
                if parameters["force"]:
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


def printable_lines(console):
    return [printable(line) for line in console.splitlines()]


def ask(updater):
    if os.path.exists(updater.trace):
        os.remove(updater.trace)  # each run of the updater appends to it
    for name in LOGS:
        if os.path.exists(updater.log(name)):
            os.remove(updater.log(name))
    updater.forget_result()
    code, console = updater.look("look", asks=True)
    due = due_updates(console)
    fault = ("failed", "The look at what is due ended with exit code %d" % code)
    outcome, sentence = outcome_of_look(code) or fault
    answer = {"outcome": outcome, "exit_code": code, "due": due, "msg": sentence}
    if outcome == "failed":
        answer["console"] = printable_lines(console)
    if outcome == "due":
        updater.forget_result()
        before = updater.levels("levels-before")
        answer["diff"] = {
            "before": as_lines(before),
            "after": as_lines(levels_after(before, due)),
        }
    return answer


def update(updater):
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
        "still_due": still_due,
        "diff": {"before": as_lines(before), "after": as_lines(after)},
    }
    if fault:
        answer["console"] = printable_lines(console)
    answer["msg"] = fault or "%d components have a new level" % len(changes)
    return answer


def compare(module):
    """Which files are to be brought. The archive of the last run is not this one's."""
    archive = module.params["logs"] + ".tar"
    if os.path.exists(archive):
        os.remove(archive)
    to_bring = []
    for name, checksum in sorted(module.params["files"].items()):
        path = os.path.join(module.params["firmware"], name)
        if not os.path.isfile(path) or module.sha1(path) != checksum:
            to_bring.append(name)
    return {
        "outcome": "compared",
        "installed": os.access(module.params["program"], os.X_OK),
        "to_bring": to_bring,
        "msg": "%d files to bring" % len(to_bring),
    }


def main():
    module = AnsibleModule(
        argument_spec={
            "state": {"choices": ["compared", "asked", "updated"], "default": "asked"},
            "program": {"type": "path", "default": "/usr/sbin/zelfwupdate"},
            "firmware": {"type": "path", "required": True},
            "files": {"type": "dict", "required": True},
            "markers": {"type": "path"},
            "force": {"type": "bool", "default": False},
            "arguments": {"type": "list", "elements": "str", "default": []},
            "logs": {"type": "path", "default": "/var/log/zelfwupdate"},
            "result": {"type": "path", "default": "/run/zelfwupdate/result"},
        },
        supports_check_mode=True,
    )
    fault = fault_of_names(module.params["files"])
    if fault:
        module.fail_json(outcome="failed", msg=fault)
    if module.params["state"] == "compared":
        module.exit_json(**compare(module))
    if not os.access(module.params["program"], os.X_OK):
        module.exit_json(outcome="not installed", msg="There is no " + module.params["program"])
    updater = Updater(module)
    if module.params["state"] == "updated" and not module.check_mode:
        answer = update(updater)
    else:
        answer = ask(updater)
    updater.archive()
    if answer["outcome"] == "failed":
        module.fail_json(**answer)
    module.exit_json(**answer)


if __name__ == "__main__":
    main()
