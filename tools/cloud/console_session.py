"""What a browser check of the local cloud's console needs, set up in one call: the local
cloud with its console on free ports, the example host connected to it with a clip to
upload, and headless Chromium driven by Selenium. Logs go to OUT next to the screenshot.

    with ConsoleSession(host_binary, out_dir) as s:
        s.driver.get(s.page); ...; s.console("raw {...}")
"""

import os
import re
import shlex
import shutil
import subprocess
import tempfile
import time

from process import Process

HERE = os.path.dirname(os.path.abspath(__file__))
RECORDER = "001122334455"
# Headless Chromium as root, with nothing that reaches out of this machine.
CHROMIUM_FLAGS = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                  "--disable-background-networking --disable-component-update --disable-sync "
                  "--autoplay-policy=no-user-gesture-required --window-size=1400,1000").split()


def browser_missing():
    """Why no browser check can run here, or None."""
    try:
        import selenium  # noqa: F401
    except ImportError:
        return "python3-selenium is not installed"
    for program, package in (("chromium", "chromium"), ("chromedriver", "chromium-driver")):
        if not shutil.which(program):
            return "%s is not installed" % package
    return None


class ConsoleSession:
    def __init__(self, host_binary, out, host_wait=90):
        self.out = os.path.abspath(out)
        os.makedirs(self.out, exist_ok=True)
        self.state = tempfile.mkdtemp(prefix="zel-console-test-")
        self.host = self.driver = None
        self.clip = os.path.join(self.out, "recording.mp4")
        subprocess.run(["bash", os.path.join(HERE, "make_clip.sh"), self.clip], check=True)
        self.log = open(os.path.join(self.out, "local_cloud.log"), "w+")
        self.cloud = Process(
            ["/usr/bin/python3", os.path.join(HERE, "local_cloud.py"), "--port", "0", "--blob-port", "0",
             "--web", "0", "--state", self.state], stdout=self.log, stderr=subprocess.STDOUT)
        try:
            self.page, port, blob_domain = self.wait_for_cloud()
            certs = os.path.join(self.state, "certs")
            # An arm64 host runs under qemu-user, whose prefix the test set-up passes.
            emulator = shlex.split(os.environ.get("ZEL_TEST_EMULATOR", ""))
            self.host = Process(
                emulator + [host_binary, "--server", "wss://127.0.0.1:%s/" % port, "--mac", RECORDER,
                 "--ca", os.path.join(certs, "ca.pem"), "--cert", os.path.join(certs, "client.pem"),
                 "--key", os.path.join(certs, "client.key"), "--clip", self.clip, "--wait", str(host_wait)],
                env=dict(os.environ, ZEL_BLOB_DOMAIN=blob_domain),
                stdout=open(os.path.join(self.out, "host.log"), "w"), stderr=subprocess.STDOUT, stdin=False)
            self.driver = self.start_browser()
        except BaseException:
            self.close()
            raise

    def wait_for_cloud(self):
        patterns = (r"web console on (\S+)", r"listening on wss://127\.0\.0\.1:(\d+)/",
                    r"ZEL_BLOB_DOMAIN=(\S+)")
        deadline = time.time() + 60
        while time.time() < deadline and self.cloud.alive():
            self.log.seek(0)
            text = self.log.read()
            found = [re.search(p, text) for p in patterns]
            if all(found):
                return [m.group(1) for m in found]
            time.sleep(0.1)
        raise RuntimeError("the local cloud did not start; see %s" % self.log.name)

    def start_browser(self):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for flag in CHROMIUM_FLAGS + ["--user-data-dir=" + tempfile.mkdtemp(dir=self.state)]:
            options.add_argument(flag)
        # An explicit driver, so Selenium never looks for one elsewhere.
        return webdriver.Chrome(service=Service(shutil.which("chromedriver"),
                                                log_path=os.path.join(self.out, "chromedriver.log")),
                                options=options)

    def console(self, line):
        """Types a line on the local cloud's own console."""
        self.cloud.send(line)

    def close(self):
        if self.driver:
            shot = os.path.join(self.out, "web_console.png")
            self.driver.save_screenshot(shot)
            self.driver.quit()
            print("screenshot of the page and the logs of both sides: %s" % shot, flush=True)
        if self.host:
            self.host.kill()
        self.cloud.stop(timeout=20)  # the console stops at end of input, and the blob storage with it
        shutil.rmtree(self.state, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
