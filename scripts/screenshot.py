#!/usr/bin/env python3
"""Makes docs/up.svg, a picture of the terminal in which `./zelta up` has brought the reader up.

Runs it, as root, in a mount namespace of its own with an empty /run: a reader or a pcscd that the
system has is left alone.
"""

import html
import os
import pathlib
import re
import signal
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[1]
PICTURE = ROOT / "docs" / "up.svg"
COMMAND = "./zelta up"
LAST_LINE = "Ctrl-C ends it."
NAMESPACE = ("mount --make-rprivate / && mount -t tmpfs -o mode=755 tmpfs /run && "
             f"mkdir /run/pcscd && exec {COMMAND}")
# In pixels.
COLUMN, LINE, MARGIN, BAR = 7.8, 18, 16, 28


def run_up():
    """The lines that it prints until it is up."""
    process = subprocess.Popen(["unshare", "--mount", "sh", "-c", NAMESPACE], cwd=ROOT, text=True,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, start_new_session=True)
    lines = []
    for line in process.stdout:
        lines.append(line.rstrip())
        if lines[-1] == LAST_LINE:
            os.killpg(process.pid, signal.SIGINT)
    process.wait()
    if LAST_LINE not in lines:
        raise SystemExit("up ended:\n" + "\n".join(lines))
    return lines[:lines.index(LAST_LINE) + 1]  # the lines about its end are left out


def style_of(line):
    if line.startswith("$ "):
        return "command"
    return "step" if line.startswith("==>") else ""


def render(lines):
    lines = [f"$ {COMMAND}", *lines]
    width = round(max(map(len, lines)) * COLUMN + 2 * MARGIN)
    height = BAR + len(lines) * LINE + 2 * MARGIN
    rows = []
    for number, line in enumerate(lines):
        style = style_of(line)
        rows.append(f'<text x="{MARGIN}" y="{BAR + MARGIN + (number + 1) * LINE - 5}"'
                    + (f' class="{style}"' if style else "") + f">{html.escape(line)}</text>")
    lights = "".join(
        f'<circle cx="{MARGIN + 4 + 18 * place}" cy="{BAR / 2:g}" r="5" fill="{colour}"/>'
        for place, colour in enumerate(("#e0645c", "#dfae4b", "#62b35a")))
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}">',
        f"<title>{COMMAND} in a terminal</title>",
        "<style>text { font: 13px ui-monospace, Menlo, Consolas, 'DejaVu Sans Mono', monospace;"
        " fill: #d8dee6; white-space: pre } .step { fill: #7fb6ff; font-weight: bold }"
        " .command { fill: #9bd68c }</style>",
        f'<rect width="{width}" height="{height}" rx="8" fill="#1b2028"/>',
        lights,
        *rows,
        "</svg>",
        ""])


def lines_of(picture):
    """The lines that a picture shows."""
    return [html.unescape(line) for line in re.findall(r"<text [^>]*>(.*)</text>", picture)]


if __name__ == "__main__":
    PICTURE.write_text(render(run_up()))
