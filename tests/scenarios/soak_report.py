"""A soak's results, as text and as a page."""

import os
import time

# Descriptors and threads that a process may have at the end beyond those from the start, both
# without clients.
GROWTH = 4
SHOWN = 10  # wrong answers
FIGURES = ("KiB of memory", "descriptors", "threads")


def figures(process):
    """A living process's resident memory in KiB, descriptors and threads."""
    folder = f"/proc/{process.process.pid}"
    with open(f"{folder}/status", encoding="ascii", errors="replace") as status:
        lines = dict(line.split(":", 1) for line in status if ":" in line)
    return (int(lines["VmRSS"].split()[0]), len(os.listdir(f"{folder}/fd")), int(lines["Threads"]))


def figures_of(reader):
    return {"pcscd": figures(reader.pcscd), "agent": figures(reader.agent)}


def grown(start, end):
    """Names the resources of which a process has too many."""
    return [f"{name} has {after} {what}, {before} at the start"
            for name in start
            for what, before, after in list(zip(FIGURES, start[name], end[name]))[1:]
            if after > before + GROWTH]


def line(processes):
    return "; ".join(f"{name}: " + ", ".join(f"{value} {what}" for what, value in
                                             zip(FIGURES, values))
                     for name, values in processes.items())


def table(heads, rows):
    return "\n".join(f"| {' | '.join(str(cell) for cell in cells)} |"
                     for cells in (heads, ["---"] * len(heads), *rows))


def text(run, seed, seconds, start, end):
    """The whole report, in Markdown."""
    record, stage = run.record, run.stage
    kinds = [(name, len(times), f"{max(times):.2f}") for name, times in run.recovered.items()
             if times]
    processes = [(name, what, before, after) for name in start
                 for what, before, after in zip(FIGURES, start[name], end[name])]
    refused = record.failures.most_common()
    parts = [
        f"# Soak of {time.strftime('%Y-%m-%d %H:%M')}: {'good' if run.good else 'BAD'}",
        f"Seed {seed}, {seconds / 60:.1f} minutes, {run.stops} disturbances.",
        table(("disturbance", "how often", "slowest recovery (s)"), kinds),
        f"Answers: {record.right} right, {len(record.wrong)} wrong, "
        f"{sum(count for _, count in refused)} calls refused. {record.cancelled} waits cancelled, "
        f"{run.swapper.swaps} swaps of the card, {len(stage.played)} kinds of malformed answers "
        f"({sum(stage.played.values())} answers), {stage.event_bytes} bytes of floods.",
        table(("process", "what", "start", "end"), processes),
        table(("refused", "how often"), refused),
    ]
    problems = [*run.problems, *record.wrong[:SHOWN]]
    if problems:
        parts.append("Problems:\n\n" + "\n".join(f"- {problem}" for problem in problems))
    return "\n\n".join(parts) + "\n"
