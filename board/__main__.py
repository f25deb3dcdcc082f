"""Proves TQ on emulated boards; script/board builds what they consist of and starts this."""
import argparse
import sys

from machine import lan  # first: it tells where the LAN is
import cuts
import figures
import shell
import subjects
from report import Report

SUBJECTS = {"discovery": subjects.discovery, "native": subjects.native, "kirvex": subjects.kirvex,
            "watchdog": subjects.watchdog, "script": subjects.init_script, "tests": subjects.unit_tests,
            "figures": figures.figures, "cuts": cuts.cuts}


def main(words):
    if words[:1] == ["shell"]:
        lan.enter()
        return shell.interactive(dict(word.split("=", 1) for word in words[1:]))
    if words[:1] == ["cut"]:
        lan.enter()
        return cuts.worker(*words[1:])
    parser = argparse.ArgumentParser(prog="script/board")
    parser.add_argument("--cuts", type=int, default=100, help="power cuts for each file system")
    parser.add_argument("subjects", nargs="*", metavar="SUBJECT", help=", ".join(SUBJECTS))
    options = parser.parse_args(words)
    lan.enter()
    report = Report()
    for name in options.subjects or SUBJECTS:
        report.subject = name
        with report.line("was gone through"):
            SUBJECTS[name](report, options)
    return report.summary()


sys.exit(main(sys.argv[1:]))
