#!/usr/bin/python3
"""In a real browser: the local cloud's console shows the link, the envelopes in their exact
text, a request's reply, text that looks like markup as text, and plays the uploaded clip.
Usage: web_console_test.py HOST_BINARY OUT_DIR  (exit 77 when no browser is installed)"""
import json
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "cloud"))
from console_session import ConsoleSession, browser_missing  # noqa: E402

if browser_missing():
    print("SKIPPED: no browser test: %s (tools/setup.sh installs it)" % browser_missing())
    sys.exit(77)
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402

with ConsoleSession(sys.argv[1], sys.argv[2]) as session:
    driver = session.driver

    def css(selector, within=None):
        return (within or driver).find_elements(By.CSS_SELECTOR, selector)

    def wait(what, until, timeout=30):
        return WebDriverWait(driver, timeout, 0.2).until(lambda _: until(), "no " + what + " on the page")

    def exact_text(subject, direction):  # opens the first such row and reads its exact text
        selector = 'tr.envelope[data-subject="%s"][data-dir="%s"]' % (subject, direction)
        rows = wait(subject + " envelope", lambda: css(selector))
        rows[-1].click()
        raw = rows[-1].find_element(By.XPATH, "following-sibling::tr[1]//pre[@class='raw']")
        return raw.get_property("textContent")

    driver.get(session.page)
    wait("connected link", lambda: driver.find_element(By.ID, "link-state").text == "connected")
    # The library's own bytes, key order and all: a re-printed text would not match.
    version = exact_text("version", "in")
    assert re.fullmatch(r'\{"id":"001122334455\d+","from":"001122334455","to":"[^"]+","subject":"version",'
                        r'"date":"[0-9T:Z-]+","signature":"n/a","content":\{.+\}\}', version), version

    # A request from its form, and the reply under it.
    form = driver.find_element(By.CSS_SELECTOR, 'details[data-subject="details"]')
    form.find_element(By.TAG_NAME, "summary").click()
    wait("sample content", lambda: form.find_element(By.TAG_NAME, "textarea").get_property("value").strip())
    css("button[type=submit]", form)[0].click()
    reply = wait("details reply", lambda: [e.text for e in css("pre.reply", form) if "reply at" in e.text])
    assert json.loads(reply[0].split("\n", 1)[1])["content"]["status"] == "OK", reply

    # Text that looks like markup stays text, blanks and all, and nothing in it runs.
    hostile = '{"subject":"note",  "content":"<script>document.title=\'owned\'</script><b>bold</b>"}'
    session.console("raw " + hostile)
    assert exact_text("note", "out") == hostile
    assert driver.execute_script("return document.querySelectorAll('main script, main b').length") == 0
    assert driver.title == "Local cloud console"

    # Once acknowledged, the clip decrypted by the cloud plays.
    wait("acknowledged clip", lambda: css("#clips tr[data-acknowledged=yes] button.play"), 90)[0].click()
    video = driver.find_element(By.ID, "player-video")
    started = wait("playing video", lambda: video.get_property("duration") and video.get_property("currentTime"))
    wait("advancing video", lambda: video.get_property("currentTime") > started + 0.5)
    assert 3 < video.get_property("duration") < 5, video.get_property("duration")
    print("ok: link, exact texts, request reply, escaping and playback in Chromium",
          driver.capabilities["browserVersion"])
