"""The one way the local cloud, the demo and the soak start and stop their child processes.

A child that speaks JSON lines (the messaging server, the blob storage and proxy peers,
the fault relay, the soak host) hands each line to `on_line`, or, without one, its events
to the `events` queue that `wait_live` reads. Stopping asks first (closing the child's
input, which ends every program here, or SIGTERM), waits, and only then kills.
"""

import json
import queue
import subprocess
import threading


class Process:
    def __init__(self, argv, on_line=None, events=False, stdout=None, stderr=None, env=None, cwd=None,
                 stdin=True):
        piped = on_line is not None or events
        self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE if stdin else None,
                                     stdout=subprocess.PIPE if piped else stdout, stderr=stderr,
                                     text=True, bufsize=1, env=env, cwd=cwd)
        self.events = queue.Queue()
        if piped:
            threading.Thread(target=self._read, args=(on_line or self._event,), daemon=True).start()

    def _read(self, on_line):
        for line in self.proc.stdout:
            on_line(line.rstrip("\n"))
        on_line(None)

    def _event(self, line):
        if line is None:
            self.events.put({"event": "exit"})
            return
        try:
            self.events.put(json.loads(line))
        except ValueError:
            pass  # the odd line of someone else's output

    def wait_live(self, kinds=("listening",), timeout=30):
        """The first event of one of these kinds; anything else first means it did not start."""
        event = self.events.get(timeout=timeout)
        if event.get("event") not in kinds:
            raise RuntimeError("%s did not start: %r" % (self.proc.args[1], event))
        return event

    def alive(self):
        return self.proc.poll() is None

    def send(self, line):
        """One line to the child's input; False once it has gone."""
        try:
            self.proc.stdin.write(line + "\n")
            self.proc.stdin.flush()
            return True
        except (BrokenPipeError, OSError, ValueError, AttributeError):
            return False

    def command(self, **cmd):
        return self.alive() and self.send(json.dumps(cmd))

    def stop(self, ask="close", timeout=5):
        """ask: "close" ends its input, "terminate" sends SIGTERM, "kill" is a crash."""
        if self.alive():
            if ask == "close":
                self._close_input()
            else:
                getattr(self.proc, ask)()
            try:
                self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.proc.kill()
        self.proc.wait()
        self._close_input()
        return self.proc.returncode

    def kill(self):
        return self.stop("kill")

    def _close_input(self):
        try:
            if self.proc.stdin:
                self.proc.stdin.close()
        except (BrokenPipeError, OSError, ValueError):
            pass
