"""Updates that are rehearsed here, in virtual time, before a till does them."""

import collections
import concurrent.futures
import json
import os
import shutil
import subprocess
import tempfile

LONGEST = 600
WITH_VALUE = ("-d", "-s", "-o", "-0", "-1", "-2", "-3", "-4")


def arguments_of_rehearsal(arguments, force):
    """Those of the updater that choose devices or say how long it waits."""
    chosen, rest = [], list(arguments)
    while rest:
        argument = rest.pop(0)
        if argument == "-a":
            chosen.append(argument)
        elif argument in WITH_VALUE and rest:
            chosen += [argument, rest.pop(0)]
    return chosen + (["-f"] if force else [])


def command_of_rehearsal(trace, directory, arguments):
    """The updater wants to be root; here a namespace of its own makes it so."""
    command = [
        "zelfwsim",
        "rehearse",
        os.path.abspath(trace),
        "-p",
        directory,
        "--json",
        *arguments,
    ]
    return command if os.geteuid() == 0 else ["unshare", "--map-root-user", *command]


def named(update):
    return "%(file)s for SN %(serial)s" % update


def kind(update):
    """Devices without a serial number are told apart by nothing."""
    return (update["product"], update["component"], update["file"])


def reason_to_hold_back(due, plan):
    """Why a till had better not be updated, None when everything that is due was installed."""
    failed = [update for update in plan["updates"] if update["rc"] != 0]
    if failed:
        return "In its rehearsal these fail: " + ", ".join(
            "%s, rc=%s" % (named(update), update["rc"]) for update in failed
        )
    if plan["due_after"]:
        return "After its rehearsal these are still due: " + ", ".join(
            map(named, plan["due_after"])
        )
    rehearsed = collections.Counter(map(kind, plan["updates"]))
    missing = []
    for update in due:
        if rehearsed[kind(update)] == 0:
            missing.append(update)
        rehearsed[kind(update)] -= 1
    if missing:
        return "Its rehearsal does not come to " + ", ".join(map(named, missing))
    if plan["exit_code"] != 0:
        return "Its rehearsal ended with exit code %s" % plan["exit_code"]
    return None


class Stage:
    """Private copies of the firmware files, with the ".force" markers that a till has."""

    def __init__(self, source, names):
        self.place = tempfile.TemporaryDirectory(prefix="zelfwupdate-rehearsal-")
        self.source = source
        self.names = names
        self.directories = {}

    def directory(self, markers):
        key = tuple(sorted(markers))
        if key not in self.directories:
            directory = os.path.join(self.place.name, str(len(self.directories)))
            os.mkdir(directory)
            for name in self.names:
                shutil.copy(os.path.join(self.source, name), directory)
            for name in key:
                with open(os.path.join(directory, name + ".force"), "wb"):
                    pass
            self.directories[key] = directory
        return self.directories[key]


def rehearse(trace, directory, arguments, due):
    """What came of a rehearsal: `ms` and `updates`, and `reason` if the till is to be held back."""
    command = command_of_rehearsal(trace, directory, arguments)
    try:
        run = subprocess.run(
            command, capture_output=True, text=True, errors="replace", timeout=LONGEST, check=False
        )
        plan = json.loads(run.stdout)
        reason = reason_to_hold_back(due, plan)
        return {"ms": plan["ms"], "updates": plan["updates"], "reason": reason}
    except subprocess.TimeoutExpired:
        reason = "not done after %d s" % LONGEST
    except OSError as error:
        reason = str(error)
    except (ValueError, KeyError, TypeError):
        lines = run.stderr.strip().splitlines() or ["exit code %d" % run.returncode]
        reason = lines[-1]
    return {"ms": 0, "updates": [], "reason": "It could not be rehearsed: " + reason}


def rehearse_all(tills, source, names, arguments):
    """From the till to what came of its rehearsal. A till is its name, trace, due and markers. A
    rehearsal waits more than it works."""
    stage = Stage(source, names)
    with stage.place, concurrent.futures.ThreadPoolExecutor(4 * (os.cpu_count() or 1)) as pool:
        running = {
            till["name"]: pool.submit(
                rehearse, till["trace"], stage.directory(till["markers"]), arguments, till["due"]
            )
            for till in tills
        }
        return {name: future.result() for name, future in running.items()}
