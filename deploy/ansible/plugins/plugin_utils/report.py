"""The table of a roll-out, the list of its tills, and their pages."""

import concurrent.futures
import os
import subprocess

from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rollout import FAULTS, write_json

LONGEST_SCREEN = 30
STATES = {
    "updated": "updated",
    "current": "current",
    "no devices": "current",
    "failed": "failed",
    "held back": "held back",
    "unreachable": "unreachable",
}


def rows_of(rollout):
    """What became of each till; one whose turn did not come has not begun."""
    plan = rollout.plan()
    stop = rollout.stop() or "The play ended before its turn"
    nothing = {"outcome": "not begun", "msg": stop, "exit_code": "", "due": [], "changes": []}
    return {till: {**nothing, **rollout.till(till)} for till in plan.get("tills", [])}


def level_texts(row):
    levels = row["due"] if row["outcome"] in ("due", "held back", "not begun") else row["changes"]
    return ["%(product)s/%(component)s %(before)s -> %(after)s" % level for level in levels]


def seconds_text(row):
    ms = row.get("rehearsal", {}).get("ms")
    return "about %.0f s" % (ms / 1000) if ms and row["outcome"] == "due" else ""


def table_line(till, row):
    told = [row["msg"].replace("\n", " ")] if row["outcome"] in FAULTS + ("not installed",) else []
    told += level_texts(row) + [seconds_text(row)]
    line = "%-20s %-14s %-4s %s" % (
        till,
        row["outcome"],
        row["exit_code"],
        "; ".join(filter(None, told)),
    )
    return line.rstrip()


def table_of(rows):
    head = "%-20s %-14s %-4s %s" % ("Till", "Outcome", "Code", "Levels")
    return [head] + [table_line(till, row) for till, row in rows.items()]


def summary_of(rows):
    counts = {}
    for row in rows.values():
        counts[row["outcome"]] = counts.get(row["outcome"], 0) + 1
    return "%d tills: " % len(rows) + ", ".join("%d %s" % (n, name) for name, n in counts.items())


def lines_to_show(rows):
    """The table as far as a screen holds it: of many tills those that need somebody."""
    if len(rows) <= LONGEST_SCREEN:
        return table_of(rows) + [summary_of(rows)]
    needy = {till: row for till, row in rows.items() if row["outcome"] in FAULTS}
    shown = dict(list(needy.items())[:LONGEST_SCREEN])
    left_out = len(needy) - len(shown)
    more = ["... and %d more: see table.txt" % left_out] if left_out else []
    return table_of(shown) + more + [summary_of(rows)]


def listed_till(rollout, till, row):
    """A till as the page of the fleet takes it."""
    entry = {"name": till, "state": STATES.get(row["outcome"], "not begun")}
    if entry["state"] not in ("updated", "current") or row["outcome"] == "no devices":
        entry["reason"] = "; ".join(filter(None, [row["msg"], *level_texts(row)]))
    if os.path.exists(rollout.path(till, "trace.log")):
        entry["trace"] = os.path.join(till, "trace.log")
    return entry


def run_report(arguments):
    """An empty text, or why there is no page."""
    command = ["zelfwtrace", "report", *arguments]
    try:
        run = subprocess.run(
            command, capture_output=True, text=True, errors="replace", timeout=300, check=False
        )
    except (OSError, subprocess.TimeoutExpired) as error:
        return str(error)
    if run.returncode == 0:
        return ""
    said = run.stderr.strip().splitlines() or ["exit code %d" % run.returncode]
    return "zelfwtrace report: " + said[0]


def write_pages(rollout, tills):
    """The page of each till that has left a trace, and that of the fleet. Returns what went wrong."""
    directory = os.path.join(rollout.collection, "tills")
    os.makedirs(directory, exist_ok=True)

    def write_page(entry):
        page = os.path.join(directory, entry["name"] + ".html")
        if os.path.exists(page):
            os.remove(page)
        if "trace" not in entry:
            return ""
        trace = os.path.join(rollout.collection, entry["trace"])
        fault = run_report([entry["name"] + "=" + trace, "-o", page])
        # Of a damaged trace there is a page, too, of what can be read.
        if os.path.exists(page):
            entry["report"] = "tills/" + entry["name"] + ".html"
        return fault

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        faults = list(pool.map(write_page, tills))
    listed = os.path.join(rollout.collection, "tills.json")
    write_json(listed, tills)
    faults.append(
        run_report(["--tills", listed, "-o", os.path.join(rollout.collection, "report.html")])
    )
    return sorted(set(filter(None, faults)))


def write_report(rollout):
    """Writes everything. Returns the rows, and what went wrong."""
    rows = rows_of(rollout)
    with open(os.path.join(rollout.collection, "table.txt"), "w", encoding="utf-8") as file:
        file.writelines(line + "\n" for line in table_of(rows) + ["", summary_of(rows)])
    tills = [listed_till(rollout, till, row) for till, row in rows.items()]
    return rows, write_pages(rollout, tills)
