"""What a roll-out has come to so far, in files of the controller: each till's worker reads and writes
it at the moment at which it is so, which variables of a batch that runs cannot tell."""

import fcntl
import json
import os
import time

FAULTS = ("failed", "held back", "unreachable", "not begun")
COLLECTED = (
    "look.log",
    "levels-before.log",
    "update.log",
    "look-after.log",
    "levels-after.log",
    "trace.log",
    "result",
)
TRIED = ("updated", "current", "no devices")


class Rollout:
    """The directory `collection` with what every till left, and what the roll-out decides by."""

    def __init__(self, collection):
        self.collection = collection
        self.file = os.path.join(collection, "rollout.json")
        self.failures_file = os.path.join(collection, "failures.jsonl")

    def begin(self, tills, canaries, max_failures, stop=""):
        """A new roll-out: nothing of the one before passes for this one's."""
        for till in tills:
            os.makedirs(self.directory(till), exist_ok=True)
            for name in ("till.json", *COLLECTED):
                if os.path.lexists(self.path(till, name)):
                    os.remove(self.path(till, name))
        with open(self.failures_file, "w", encoding="utf-8"):
            pass
        plan = {
            "begun": int(time.time()),
            "tills": tills,
            "canaries": canaries,
            "max_failures": max_failures,
            "stop": stop,
        }
        write_json(self.file, plan)

    def plan(self):
        return read_json(self.file)

    def directory(self, till):
        """Where things of a till are. Its name is the inventory's, and no path."""
        if till != os.path.basename(till) or till in ("", ".", ".."):
            raise ValueError("not a name for a directory: " + till)
        return os.path.join(self.collection, till)

    def path(self, till, name):
        return os.path.join(self.directory(till), name)

    def till(self, till):
        """What is known of a till, nothing before its turn."""
        return read_json(self.path(till, "till.json"))

    def put(self, till, answer):
        """Keeps what became of a till; a failure counts from now on, and once."""
        is_new = self.till(till).get("outcome") != "failed"
        os.makedirs(self.directory(till), exist_ok=True)
        write_json(self.path(till, "till.json"), answer)
        if is_new and answer["outcome"] == "failed":
            with open(self.failures_file, "a", encoding="utf-8") as file:
                fcntl.flock(file, fcntl.LOCK_EX)
                file.write(json.dumps({"till": till, "msg": answer["msg"]}) + "\n")

    def failures(self):
        try:
            with open(self.failures_file, encoding="utf-8") as file:
                return [json.loads(line) for line in file if line.endswith("\n")]
        except FileNotFoundError:
            return []

    def stop(self):
        """Why no further till may be begun, an empty text when one may."""
        plan = self.plan()
        if plan.get("stop"):
            return plan["stop"]
        failures = self.failures()
        for failure in failures:
            if failure["till"] in plan.get("canaries", []):
                return "The canary %(till)s failed: %(msg)s" % failure
        limit = plan.get("max_failures", 0)
        if limit and len(failures) >= limit:
            return "The limit of failures (%d) was met by %s: %s" % (
                limit,
                ", ".join(sorted({failure["till"] for failure in failures})),
                failures[-1]["msg"],
            )
        return ""

    def keep_stop(self, reason):
        """From now on it is stopped, for this reason; not without one."""
        if reason:
            write_json(self.file, {**self.plan(), "stop": reason})

    def stop_before(self, tills):
        """The same before a batch: behind the canaries one of them must have been tried."""
        reason = self.stop()
        canaries = self.plan().get("canaries", [])
        if reason or not canaries or all(till in canaries for till in tills):
            return reason
        if any(self.till(canary).get("outcome") in TRIED for canary in canaries):
            return ""
        return "No canary could be tried: " + "; ".join(
            "%s: %s" % (canary, self.till(canary).get("msg", "not begun")) for canary in canaries
        )


def chosen_canaries(wanted, tills, groups):
    """The tills that go first: a number of them, per cent, or those of a group. None when `wanted`
    is none of these."""
    text = str(wanted).strip()
    if text in groups:
        return [till for till in tills if till in groups[text]] or tills[:1]
    is_share = text.endswith("%")
    if not text.rstrip("%").isascii() or not text.removesuffix("%").isdigit():
        return None
    number = int(text.removesuffix("%"))
    if is_share:
        number = -(-len(tills) * number // 100)
    return tills[:number]


def read_json(name):
    try:
        with open(name, encoding="utf-8") as file:
            return json.load(file)
    except FileNotFoundError:
        return {}


def write_json(name, value):
    """Replaces a file as a whole."""
    with open(name + ".new", "w", encoding="utf-8") as file:
        json.dump(value, file, indent=1)
        file.write("\n")
    os.replace(name + ".new", name)
