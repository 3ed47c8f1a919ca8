"""Measures the reader and its least possible cost; `./zelta bench` runs it."""

import argparse
import pathlib
import sys

import measurements
import report
import stack

SIZES = {"whole": (10, 500, 1000), "quick": (2, 100, 50)}  # rounds, commands in each, swaps


def measure(rounds, count, swaps):
    stack.enter_namespace()
    driver = measurements.driver_alone(rounds, count)
    commands = {
        name: [measurements.commands(start_agent, placement, rounds, count)
               for start_agent in (measurements.Measured.start_our_agent,
                                   measurements.Measured.start_least_agent)]
        for name, placement in measurements.processors().items()}
    movements, calls = measurements.movements_and_calls(swaps)
    return report.Results(driver, commands, movements, calls, measurements.machine())


def main(words):
    parser = argparse.ArgumentParser(prog="./zelta bench")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--chart", type=pathlib.Path)
    parser.add_argument("--page", type=pathlib.Path)
    chosen = parser.parse_args(words)
    try:
        results = measure(*SIZES["quick" if chosen.quick else "whole"])
    except stack.NoMounts as problem:
        sys.exit(f"zelta: {problem}")
    except KeyboardInterrupt:
        return 130
    print(report.text(results))
    missed = report.missed(results)
    if missed:
        print("\nMISSED: " + "; ".join(missed))
    if chosen.chart:
        chosen.chart.write_text(report.chart(results))
    if chosen.page:
        chosen.page.write_text(report.rewritten(chosen.page.read_text(), results))
    return 1 if chosen.check and missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
