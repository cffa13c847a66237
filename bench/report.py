#!/usr/bin/env python3
"""Joins the benchmarks' results into one table, checks the limits, and draws the plot."""

import json
import pathlib
import platform
import subprocess
import sys

DOCUMENT = pathlib.Path("docs/performance.md")
DOCUMENT_PLOT = pathlib.Path("docs/performance.svg")
BEGIN, END = "<!-- results -->", "<!-- end of results -->"

RECORDS = (64, 512, 1024, 4096)
DEVICES = (1, 8, 32, 128)


def read_results(directory):
    """All benchmarks by name; those that ran once a bus size have its number in front."""
    found = {}
    for path in sorted(directory.glob("*.json")):
        size = path.stem.partition("-")[2]
        for row in json.loads(path.read_text())["benchmarks"]:
            if row.get("error_occurred"):
                sys.exit(f"{row['name']}: {row['error_message']}")
            name = row["name"]
            for suffix in ("/iterations:1", "/manual_time", "/real_time", "/process_time", "/iterations:256",
                           "/iterations:32"):
                name = name.replace(suffix, "")
            found[f"{size}:{name}" if size else name] = row
    return found


def microseconds(row, field):
    unit = {"ns": 1e-3, "us": 1, "ms": 1e3, "s": 1e6}[row["time_unit"]]
    return row[field] * unit


class Table:
    def __init__(self):
        self.rows = []
        self.missed = []

    def add(self, what, measured, beside, ratio, limit=None, memory=None, holds=None):
        """One row. `ratio` must not be above `limit`, or, for another rule, `holds` tells."""
        verdict = ""
        if limit is not None:
            kept = holds if holds is not None else ratio <= limit
            verdict = f"{limit:g}" if holds is None else str(limit)
            if not kept:
                verdict += " MISSED"
                self.missed.append(what)
        self.rows.append((what, measured, beside, f"{ratio:.3f}", verdict,
                          "" if memory is None else f"{memory:.1f}"))

    def text(self):
        header = ("What", "Measured", "Beside", "Ratio", "Limit", "Peak MiB")
        widths = [max(len(row[i]) for row in [header, *self.rows]) for i in range(len(header))]
        lines = [[cell.ljust(width) for cell, width in zip(row, widths)]
                 for row in [header, ["-" * width for width in widths], *self.rows]]
        return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def add_updates(table, results):
    for kind in ("instant", "full-speed"):
        rows = {count: results[f"update/{kind}/{count}"] for count in RECORDS}
        for count, row in rows.items():
            table.add(f"update, {kind} device, {count} records",
                      f"{row['real_time'] / 1e3:.2f} s", f"floor {row['floor_s']:.2f} s",
                      row["wall_over_floor"], 1.03 if count >= 512 else None, row["peak_MiB"])
        few, many = rows[1024], rows[4096]
        # The waits around the records are the same for every count.
        linear = (many["real_time"] - few["real_time"]) / (4096 - 1024)
        near = (few["real_time"] - rows[64]["real_time"]) / (1024 - 64)
        growth = 4 * linear / near
        table.add(f"update, {kind} device, growth from 1024 to 4096 records",
                  f"{linear:.3f} ms a record", f"{near:.3f} ms a record below", growth,
                  "4.0 ± 0.1" if kind == "full-speed" else None,
                  holds=abs(growth - 4) <= 0.1)
        cpu = (many["cpu_s"] - few["cpu_s"]) / 3072 * 1e6
        bare = "1:records/bare" if kind == "instant" else "full_speed:records/bare"
        device = microseconds(results[bare], "cpu_time")
        table.add(f"update, {kind} device, processor time a record",
                  f"{cpu:.0f} µs", f"the device's own {device:.1f} µs; allowed 150 µs",
                  (cpu - device) / 150, 1)


def add_lists(table, results):
    for count in DEVICES:
        row = results[f"list/{count}"]
        table.add(f"list, {count} devices", f"{row['real_time'] / 1e3:.2f} s",
                  f"floor {row['floor_s']:.2f} s", row["wall_over_floor"],
                  1.03 if count > 1 else None, row["peak_MiB"])
    peak = results["list/128"]["peak_MiB"]
    table.add("list, 128 devices, memory", f"{peak:.1f} MiB", "allowed 8 MiB", peak / 8, 1, peak)
    for count in DEVICES:
        program = microseconds(results[f"{count}:enumeration/program"], "real_time")
        bare = microseconds(results[f"{count}:enumeration/bare"], "real_time")
        table.add(f"enumeration alone, {count} devices", f"{program:.0f} µs",
                  f"bare calls {bare:.0f} µs", program / bare)


def add_commands(table, results):
    def compare(what, name, beside_name, beside, limit):
        row, other = results[name], results[beside_name]
        table.add(what, f"{row['real_time']:.2f} ms", f"{beside} {other['real_time']:.2f} ms",
                  row["real_time"] / other["real_time"], limit, row["peak_MiB"])

    shown, bare = (results[f"files/{name}-256"]["cpu_s"] - results[f"files/{name}-1"]["cpu_s"]
                   for name in ("show", "bare"))
    table.add("-S, processor time of 255 files of 1 MiB", f"{shown * 1e3:.2f} ms",
              f"same reads and writes {bare * 1e3:.2f} ms", shown / bare, 1.3,
              results["files/show-256"]["peak_MiB"])
    compare("-D of a file of 1 MiB", "display/1-MiB", "display/xxd", "xxd", 1)
    compare("start (-V)", "start/version", "start/true", "/bin/true", 3)


def add_logging(table, results):
    for what, name, beside_name in (
            ("log message, trace on", "log/message/trace-on", "log/message/trace-off"),
            ("debug message at level 4, trace on", "log/debug/level-4/trace-on",
             "log/debug/level-4/trace-off")):
        on, off = (microseconds(results[key], "cpu_time") for key in (name, beside_name))
        table.add(what, f"{on:.2f} µs", f"trace off {off:.2f} µs", on / off)
    quiet = microseconds(results["log/debug/level-1/trace-on"], "cpu_time")
    shown = microseconds(results["log/debug/level-4/trace-on"], "cpu_time")
    table.add("debug message at level 1", f"{quiet * 1e3:.1f} ns", f"level 4 {shown:.2f} µs",
              quiet / shown)


def add_virtual_time(table, results):
    real, virtual = (results[f"till/{name}"]["real_time"] for name in ("real", "virtual"))
    table.add("update of the demonstration, real time", f"{real / 1e3:.2f} s",
              f"virtual time {virtual:.1f} ms", real / virtual, "at least 200",
              holds=real / virtual >= 200)


def draw(results, path):
    """Wall time over records, with the floor, on logarithmic axes."""
    data = ""
    for kind in ("full-speed", "instant"):
        for count in RECORDS:
            row = results[f"update/{kind}/{count}"]
            data += f"{count} {row['real_time'] / 1e3} {row['floor_s']}\n"
        data += "\n\n"
    data_file = path.with_suffix(".data")
    data_file.write_text(data)
    subprocess.run(["gnuplot"], text=True, check=True, input=f"""
set terminal svg size 720,420 background rgb 'white' font 'sans,13'
set output '{path}'
set logscale xy
set xlabel 'records'
set ylabel 'seconds'
set xtics (64, 512, 1024, 4096)
set key left top
set grid
plot '{data_file}' index 0 using 1:3 with lines dashtype 2 lc 'gray40' title 'floor, full-speed device', \\
     '' index 0 using 1:2 with points pointtype 7 lc 'dark-blue' title 'update, full-speed device', \\
     '' index 1 using 1:3 with lines dashtype 3 lc 'gray60' title 'floor, instant device', \\
     '' index 1 using 1:2 with points pointtype 5 lc 'dark-green' title 'update, instant device'
""")


def machine():
    model = next((line.split(":", 1)[1].strip()
                  for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), "unknown processor")
    processors = subprocess.run(["nproc"], capture_output=True, text=True, check=True)
    return f"{processors.stdout.strip()} × {model}, Linux {platform.release()}"


def document(text):
    page = DOCUMENT.read_text()
    before, rest = page.split(BEGIN)
    after = rest.split(END)[1]
    DOCUMENT.write_text(f"{before}{BEGIN}\n{text}\n{END}{after}")


def main():
    directory = pathlib.Path(sys.argv[1])
    results = read_results(directory)
    table = Table()
    add_updates(table, results)
    add_lists(table, results)
    add_commands(table, results)
    add_logging(table, results)
    add_virtual_time(table, results)
    text = f"Machine: {machine()}\n\n{table.text()}"
    print(text)
    plot = directory / "plot.svg"
    draw(results, plot)
    (directory.parent / "results.json").write_text(
        json.dumps({"machine": machine(), "benchmarks": results}, indent=1))
    if "--document" in sys.argv[2:]:
        document(text)
        DOCUMENT_PLOT.write_text(plot.read_text())
    if table.missed:
        sys.exit("Limits missed: " + "; ".join(table.missed))
    print("All limits kept.")


if __name__ == "__main__":
    main()
