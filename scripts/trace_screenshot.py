#!/usr/bin/env python3
"""Makes docs/trace.png, a picture of a trace's page with one exchange opened, or FILE instead.

Usage: scripts/trace_screenshot.py [FILE]

Traces what a few programs do with the card of `./zelta up --run-only`, as root, in a mount namespace
of its own with an empty /run. Needs a build, and chromium.
"""

import pathlib
import subprocess
import sys
import tempfile

import chromium

ROOT = pathlib.Path(__file__).resolve().parents[1]
WIDTH, HEIGHT = 1180, 674
TRACE = """
mount --make-rprivate /
mount -t tmpfs -o mode=755 tmpfs /run
mkdir /run/pcscd
./zelta up --run-only >"$0/up.log" 2>&1 &
until ./zelta status >"$0/status.log" 2>&1; do kill -0 $!; sleep 0.1; done
./zelta trace --save "$0/trace" --html "$0/page.html" >"$0/trace.log" &
until [ -s "$0/trace" ]; do kill -0 $!; sleep 0.1; done
pkcs15-tool --verify-pin --pin 87654321 && exit 1
./zelta card remove
./zelta card insert
opensc-tool --name
./zelta down  # and with the agent the trace ends
wait $!
"""
OPEN = """
  [...document.querySelectorAll('rect.exchange')].find(
      bar => bar.getAttribute('aria-label').startsWith(arguments[0])
  ).dispatchEvent(new MouseEvent('click'));
"""


def main(picture):
    if not chromium.is_installed():
        raise SystemExit("zelta: chromium is not installed: sudo apt-get install chromium")
    with tempfile.TemporaryDirectory() as folder:
        traced = subprocess.run(["unshare", "--mount", "bash", "-euc", TRACE, folder], cwd=ROOT,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        if traced.returncode != 0:
            raise SystemExit(f"zelta: no trace came about:\n{traced.stdout}")
        page = pathlib.Path(folder, "page.html")
        with chromium.Chromium(page.as_uri(), WIDTH, HEIGHT) as browser:
            browser.evaluate(OPEN, "VERIFY")
            picture.write_bytes(browser.screenshot())


if __name__ == "__main__":
    if sys.argv[1:] in (["-h"], ["--help"]):
        print(__doc__.strip())
    else:
        main(pathlib.Path(*sys.argv[1:] or [ROOT / "docs" / "trace.png"]))
