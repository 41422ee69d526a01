"""What the scripts of bench/ share: a sink server for a run, tables, and their places in docs/performance.md."""
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
REPORT = ROOT / "docs" / "performance.md"


def programs_of(preset, needed):
    """The folder of the built programs; ends the script where one that is needed is missing."""
    programs = ROOT / "build" / preset / "bin"
    missing = [program for program in needed if not (programs / program).exists()]
    if missing:
        print(f"{script()}: {', '.join(missing)} is not built; run: cmake --preset {preset} && "
              f"cmake --build --preset {preset}", file=sys.stderr)
        sys.exit(2)
    return programs


def script():
    return "bench/" + pathlib.Path(sys.argv[0]).name


def against_sink(programs, server, client, processor, timeout=120):
    """Runs a client (its program and arguments) against a sink server of its own, on one processor where that is given.
    Returns what the client said, what the server saw, and the client's errors."""
    pin = ["taskset", "-c", str(processor)] if processor is not None else []
    sink = subprocess.Popen([*pin, programs / "sink_server", *server], stdout=subprocess.PIPE, text=True)
    try:
        port = sink.stdout.readline().split()[-1]
        command = [*pin, programs / client[0], "--port", port, *client[1:]]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=timeout,
                              check=False)
        sink.terminate()
        saw = json.loads(sink.stdout.readlines()[-1])
    finally:
        if sink.poll() is None:
            sink.kill()
        sink.wait()
        sink.stdout.close()
    if not done.stdout:
        sys.exit(f"{script()}: {' '.join(client)}: no result: {done.stderr.strip()}")
    return json.loads(done.stdout.splitlines()[-1]), saw, done.stderr.strip()


def disagreements(expected):
    """Of {what: (found, wanted)}."""
    return [f"{what}: {found}, not {wanted}" for what, (found, wanted) in expected.items() if found != wanted]


def quartiles(values):
    return statistics.quantiles(values, n=4) if len(values) > 1 else [values[0]] * 3


def middle(values):
    """A median and its quartiles as they stand in a table."""
    if not values:
        return ""
    low, median, high = quartiles(values)
    return f"{median:.1f} ({low:.1f} to {high:.1f})"


def ratio(runs, client, other):
    """Median of the ratios within a round, of {client: {round: value}}; none where they have no round in common."""
    pairs = [value / runs[other][turn] for turn, value in runs.get(client, {}).items()
             if runs.get(other, {}).get(turn)]
    return statistics.median(pairs) if pairs else None


def markdown(rows):
    """Tables of rows, the first of each its head; None stands between two."""
    lines, head = [], True
    for row in rows:
        if row is None:
            lines.append("")
            head = True
            continue
        lines.append("| " + " | ".join(row) + " |")
        if head:
            lines.append("|" + "---|" * len(row))
        head = False
    return "\n".join(lines)


def origin(rounds, rejected, loads):
    """The line above a table that says where it comes from."""
    model = next((line.split(":", 1)[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                  if line.startswith("model name")), platform.machine())
    machine = f"{model}, {os.cpu_count()} processors, Linux {platform.release()}"
    words = " ".join([script(), *sys.argv[1:]])
    count = f"{rejected} runs were rejected." if rejected else "No run was rejected."
    return (f"`{words}` on {datetime.date.today()}; {machine}; load average {loads[0]:.1f} at the beginning, "
            f"{loads[1]:.1f} at the end; {rounds}. {count}")


def write(text):
    """Replaces what stands between the script's marks in the report; what others wrote around them stays."""
    marks = (f"<!-- {script()}: begin -->", f"<!-- {script()}: end -->")
    old = REPORT.read_text(encoding="utf-8")
    if any(mark not in old for mark in marks):
        sys.exit(f"{script()}: {REPORT} has no place between {marks[0]} and {marks[1]}")
    before, rest = old.split(marks[0], 1)
    REPORT.write_text(f"{before}{marks[0]}\n{text}\n{marks[1]}{rest.split(marks[1], 1)[1]}", encoding="utf-8")
