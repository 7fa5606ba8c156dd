"""Fault soak: the soak host (host.cpp, built as build/tools/zel_soak_host) against the local
cloud on 127.0.0.1, which faults.py breaks from 20 s in until a quiet last minute;
the report sets each goal's promise beside what was measured. Exit status 0 if every goal was met.

  /usr/bin/python3 tools/soak [--host-binary BUILD/tools/zel_soak_host] [--minutes 10 | --hours 8]
                              [--clip-bytes N] [--state DIR] [--keep] [--seed N]
                              [--block-bytes N]  (clips in blocks of N bytes; 0: one PUT)
"""

import argparse
import os
import random
import shutil
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)  # run as a directory or as a module: its files import each other by name
from driver import Soak, say  # noqa: E402
import faults  # noqa: E402
from report import report  # noqa: E402

FAULTS = [faults.ServerRestarts, faults.StorageKills, faults.Withholds, faults.Delays, faults.HostileBursts,
          faults.SilentLink, faults.StalledUpload, faults.SlowUplink, faults.ShortResets]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host-binary", default=os.path.join(HERE, "..", "..", "build", "tools", "zel_soak_host"))
    for flag, kind, default in (("--minutes", float, 10), ("--hours", float, 0), ("--clip-bytes", int, 16 << 20),
                                ("--seed", int, random.randrange(1 << 30)), ("--state", str, None),
                                ("--block-bytes", int, 0)):
        parser.add_argument(flag, type=kind, default=default)
    parser.add_argument("--keep", action="store_true", help="keep the working directory")
    args = parser.parse_args()
    if not os.access(args.host_binary, os.X_OK):
        parser.error("not an executable: %s" % args.host_binary)
    soak = Soak(args, FAULTS)
    say("soak: seed %d, working directory %s" % (args.seed, soak.state))
    try:
        soak.run()
        return 0 if report(soak) else 1
    finally:
        soak.cleanup()
        if args.state is None and not args.keep:
            shutil.rmtree(soak.state, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
