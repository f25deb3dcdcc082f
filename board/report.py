"""The lines of the summary."""
import contextlib
import subprocess
import time
import traceback


class Report:
    def __init__(self):
        self.subject, self.rows = "", []

    @contextlib.contextmanager
    def line(self, what):
        """One thing to prove, in the block; what the block appends to the list that it gets is said with it."""
        details, start = [], time.monotonic()
        try:
            yield details
            outcome = "ok"
        except (AssertionError, OSError, ValueError, IndexError, subprocess.SubprocessError):
            traceback.print_exc()
            outcome = "FAILED"
        self.rows.append(f"{self.subject:10} {outcome:6} {time.monotonic() - start:6.1f} s  " + "; ".join([what, *details]))
        print(self.rows[-1], flush=True)

    def summary(self):
        failed = sum(row.split()[1] == "FAILED" for row in self.rows)
        print("\n== summary", *self.rows, f"{failed} of {len(self.rows)} FAILED" if failed else "all held", sep="\n")
        return 1 if failed or not self.rows else 0
