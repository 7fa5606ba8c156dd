#!/usr/bin/python3
"""In a real browser: the local cloud's console shows the link, the envelopes in their exact
text, a request's reply, text that looks like markup as text, and plays the uploaded clip.
Usage: web_console_test.py HOST_BINARY OUT_DIR  (exit 77 when no browser is installed)"""
import json, os, re, shutil, subprocess, sys, tempfile, time
try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    webdriver = None
if webdriver is None or not shutil.which("chromium") or not shutil.which("chromedriver"):
    print("SKIPPED: the browser test needs chromium, chromium-driver and python3-selenium (tools/setup.sh)")
    sys.exit(77)
CLOUD = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "cloud")
host_binary, out = sys.argv[1], os.path.abspath(sys.argv[2])
state = tempfile.mkdtemp(prefix="zel-web-test-")
os.makedirs(out, exist_ok=True)
clip = os.path.join(out, "recording.mp4")
subprocess.run(["bash", os.path.join(CLOUD, "make_clip.sh"), clip], check=True)
cloud_log = open(os.path.join(out, "local_cloud.log"), "w+")
cloud = subprocess.Popen(["/usr/bin/python3", os.path.join(CLOUD, "local_cloud.py"), "--port", "0", "--blob-port",
                          "0", "--web", "0", "--state", state], stdin=subprocess.PIPE, stdout=cloud_log, text=True)
host = driver = None


def wait(until, timeout=30):
    return WebDriverWait(driver, timeout, 0.2).until(lambda d: until())


def cloud_said(pattern):
    cloud_log.seek(0)
    found = re.search(pattern, cloud_log.read())
    return found and found.group(1)


def row(subject, direction):
    rows = driver.find_elements(By.CSS_SELECTOR, 'tr.envelope[data-subject="%s"][data-dir="%s"]' % (subject, direction))
    return rows and rows[-1]


def raw_text_of(envelope_row):  # opens the row and reads the exact text it shows
    envelope_row.click()
    return envelope_row.find_element(By.XPATH, "following-sibling::tr[1]//pre[@class='raw']").get_property("textContent")


try:
    for _ in range(300):
        page, port, blob = (cloud_said(p) for p in (r"web console on (\S+)", r"listening on wss://127.0.0.1:(\d+)/",
                                                    r"ZEL_BLOB_DOMAIN=(\S+)"))
        if page and port or cloud.poll() is not None:
            break
        time.sleep(0.1)
    assert page and port, "the local cloud did not start; see local_cloud.log"
    certs = os.path.join(state, "certs")
    host = subprocess.Popen([host_binary, "--server", "wss://127.0.0.1:%s/" % port, "--mac", "001122334455", "--ca",
                             certs + "/ca.pem", "--cert", certs + "/client.pem", "--key", certs + "/client.key",
                             "--clip", clip, "--wait", "90"], env=dict(os.environ, ZEL_BLOB_DOMAIN=blob),
                            stdout=open(os.path.join(out, "host.log"), "w"), stderr=subprocess.STDOUT)
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for flag in ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
                 "--disable-component-update --disable-sync --autoplay-policy=no-user-gesture-required "
                 "--window-size=1400,1100 --user-data-dir=" + tempfile.mkdtemp(dir=state)).split():
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    driver.get(page)
    wait(lambda: driver.find_element(By.ID, "link-state").text == "connected")
    # The library's own bytes, key order and all; a re-printed text would not match.
    version = raw_text_of(wait(lambda: row("version", "in")))
    assert re.fullmatch(r'\{"id":"001122334455\d+","from":"001122334455","to":"[^"]+","subject":"version",'
                        r'"date":"[0-9T:Z-]+","signature":"n/a","content":\{.+\}\}', version), version
    # A request from its form, the reply under it; invalid JSON is refused on the page.
    form = driver.find_element(By.CSS_SELECTOR, 'details[data-subject="details"]')
    form.find_element(By.TAG_NAME, "summary").click()
    wait(lambda: form.find_element(By.TAG_NAME, "textarea").get_property("value").strip())
    form.find_element(By.CSS_SELECTOR, "button[type=submit]").click()
    reply = wait(lambda: form.find_element(By.CSS_SELECTOR, "pre.reply").text.startswith("reply at") and
                 form.find_element(By.CSS_SELECTOR, "pre.reply").text)
    assert json.loads(reply.split("\n", 1)[1])["content"]["status"] == "OK", reply
    form.find_element(By.TAG_NAME, "textarea").send_keys("{not json")
    form.find_element(By.CSS_SELECTOR, "button[type=submit]").click()
    assert "not valid JSON" in form.find_element(By.CLASS_NAME, "form-error").text
    # Text that looks like markup stays text, spaces and all.
    hostile = '{"subject":"note",  "content":"<script>document.title=\'owned\'</script><b>bold</b>"}'
    cloud.stdin.write("raw " + hostile + "\n")
    cloud.stdin.flush()
    assert raw_text_of(wait(lambda: row("note", "out"))) == hostile
    assert driver.execute_script("return document.querySelectorAll('main script, main b').length") == 0
    assert driver.title == "Local cloud console"
    # The uploaded clip, decrypted by the cloud, plays.
    wait(lambda: driver.find_elements(By.CSS_SELECTOR, "#clips tr[data-acknowledged=yes] button.play"), 90)[0].click()
    video = driver.find_element(By.ID, "player-video")
    start = wait(lambda: video.get_property("duration") and video.get_property("currentTime") > 0 and
                 video.get_property("currentTime"))
    wait(lambda: video.get_property("currentTime") > start + 0.5)
    assert 3 < video.get_property("duration") < 5, video.get_property("duration")
    print("ok: link, version text, details reply, escaping and playback in", driver.capabilities["browserVersion"])
finally:
    if driver:
        driver.save_screenshot(os.path.join(out, "web_console.png"))
        driver.quit()
    host and host.kill()
    cloud.stdin.close()  # the console stops on end of input, and stops the blob storage with it
    cloud.wait(20)
    shutil.rmtree(state, ignore_errors=True)
