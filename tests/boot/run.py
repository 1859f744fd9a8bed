"""Runs the tests that the kernel's command line names, and says a line for each on standard output."""
import importlib
import pathlib
import sys
import time
import traceback
import unittest


def say(*words):
    print(*words, flush=True)


class Result(unittest.TestResult):
    def startTest(self, test):
        super().startTest(test)
        self.began = time.monotonic()

    def told(self, verdict, test, why=""):
        say(f"{verdict} {test.id()} {time.monotonic() - self.began:.1f} s{why}")

    def addSuccess(self, test):
        self.told("ok", test)

    def addSkip(self, test, reason):
        self.told("skipped", test, f": {reason}")

    def addFailure(self, test, error):
        for line in "".join(traceback.format_exception(*error)).splitlines():
            say("#", line)
        self.told("not ok", test)

    addError = addFailure

    def addSubTest(self, test, subtest, error):
        if error is not None:
            self.addFailure(subtest, error)


def argument(name):
    words = pathlib.Path("/proc/cmdline").read_text().split()
    return next((word.split("=", 1)[1] for word in words if word.startswith(name + "=")), "")


def chosen(suite, words):
    for test in suite:
        if isinstance(test, unittest.TestSuite):
            yield from chosen(test, words)
        elif not words or any(word in test.id() for word in words):
            yield test


def main():
    module = importlib.import_module(argument("boot-test") + "_test")
    words = [word for word in argument("boot-test-only").split(",") if word]
    unittest.TestSuite(chosen(unittest.defaultTestLoader.loadTestsFromModule(module), words)).run(Result())
    say("done")


if __name__ == "__main__":
    sys.exit(main())
