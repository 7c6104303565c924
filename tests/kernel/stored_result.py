"""stored_result.py RESULTS CASE: shows what CASE printed when battery.py ran it; ends with its status.

A program of its own, as there are hundreds of cases and the battery takes long to load in a virtual machine.
"""
import json
import sys


def main(path, case):
    try:
        with open(path) as f:
            result = json.load(f)[case]
    except (OSError, KeyError) as e:
        print(f"no result of {case}: {e!r}")
        return 1
    print(result["output"])
    return 0 if result["passed"] else 1


sys.exit(main(*sys.argv[1:]))
