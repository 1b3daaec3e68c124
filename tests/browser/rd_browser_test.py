#!/usr/bin/python3
# The integrators' test page (web/) in headless Chromium against a real
# vexo-host, with the page served from another origin.
#
#   rd_browser_test.py --build DIR --source DIR CASE
#
# CASE is one of
#   http    page on http://127.0.0.1:P discovers the service over HTTP (beside a
#           hostile fake service whose texts must stay text), reads DeviceInfo,
#           captures with errCode 0 and decodes the answer;
#   https   page on https://localhost:P, counted as a public site (address-space
#           override), service with IS_SSL_ENABLE=1; Chromium trusts the local
#           CA only through the NSS database of a temporary HOME that vexoctl
#           trust-tls filled (no flag that ignores certificate errors), and
#           pre-flights its local-network requests.
#
# Exit codes: 0 passed, 1 failed, 77 skipped (Chromium, chromedriver or
# python3-selenium not installed). A screenshot of the page goes to
# DIR/web-screenshots/CASE.png.

import argparse
import contextlib
import functools
import html
import http.server
import json
import os
import re
import shutil
import ssl
import subprocess
import sys
import tempfile
import threading
import time

SKIP = 77
CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
SCAN_TIMEOUT_MS = 1500
# The fake service's hostile texts: inserted as HTML they would run script.
HOSTILE_INFO = 'Fake <img src=x onerror="window.__vexo_pwned=1"> & <b>bold</b>'
HOSTILE_ERRINFO = '<script>window.__vexo_pwned=2</script>Scanner "busy"'


# What the case started (services, servers, browsers), stopped in reverse order
# when it ends, whether it passed or not.
CLEANUP = contextlib.ExitStack()


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


# ------------------------------------------------------------ page servers

# Serves web/ and records every request line (any other verb than GET or
# HEAD is logged as refused too), so the test can show that the page sends
# nothing back to its own origin but GETs of its files.
class PageHandler(http.server.SimpleHTTPRequestHandler):

    requests = []

    def log_message(self, fmt, *args):
        PageHandler.requests.append(self.requestline)


def serve_page(web_dir, tls_pair=None):
    handler = functools.partial(PageHandler, directory=web_dir)
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    if tls_pair:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*tls_pair)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    CLEANUP.callback(server.shutdown)
    return server.server_address[1]


# Another RD service on the machine whose texts carry markup.
class FakeRdHandler(http.server.BaseHTTPRequestHandler):

    def log_message(self, fmt, *args):
        pass

    def answer(self, status, body, extra=()):
        data = body.encode()
        self.send_response(status)
        self.send_header("Access-Control-Allow-Origin", "*")
        for name, value in extra:
            self.send_header(name, value)
        self.send_header("Content-Type", "text/xml")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def do_OPTIONS(self):
        self.answer(200, "", [("Access-Control-Allow-Methods", "RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH"),
                              ("Access-Control-Allow-Headers", "Content-Type")])

    def do_RDSERVICE(self):
        self.answer(200, '<RDService status="READY" info="%s">\n'
                         '\t<Interface id="CAPTURE" path="/rd/capture" />\n</RDService>\n' % html.escape(HOSTILE_INFO))

    def do_CAPTURE(self):
        self.rfile.read(int(self.headers.get("Content-Length", "0")))
        err = html.escape(HOSTILE_ERRINFO)
        self.answer(200, '<PidData><Resp errCode="700" errInfo="%s" fCount="0"/></PidData>' % err)


def serve_fake_rd(first_port, last_port):
    for port in range(first_port, last_port + 1):
        try:
            server = http.server.ThreadingHTTPServer(("127.0.0.1", port), FakeRdHandler)
        except OSError:
            continue
        threading.Thread(target=server.serve_forever, daemon=True).start()
        CLEANUP.callback(server.shutdown)
        return port
    raise Failure("no free port for the fake service")


# ----------------------------------------------------------- the service

# vexoctl lays out a working folder; vexo-host runs the service in it, without
# a Management server (a failed Init would leave the service USED).
class Service:

    def __init__(self, build, tmp, tls, scanner="Aratek_A600"):
        self.workdir = os.path.join(tmp, "wd")
        self.env = dict(os.environ, APPDATA=os.path.join(tmp, "appdata"), HOME=os.path.join(tmp, "home"))
        for folder in ("APPDATA", "HOME"):
            os.makedirs(self.env[folder], exist_ok=True)
        self.vexoctl([os.path.join(build, "vexoctl"), "init-workdir", self.workdir, "--scanner", scanner,
                      "--mgmt-url", "https://127.0.0.1:9/Zelm"] + (["--tls"] if tls else []))
        self.host = subprocess.Popen([os.path.join(build, "vexo-host"), "--workdir", self.workdir, "--no-mgmt", scanner],
                                     env=self.env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        CLEANUP.callback(self.stop)
        self.output = []
        threading.Thread(target=self._read, daemon=True).start()
        deadline = time.time() + 20
        while time.time() < deadline and not any("Start_RDservice returned" in l for l in self.output):
            time.sleep(0.05)
        started = [l for l in self.output if "Start_RDservice returned" in l]
        check(started and started[0].strip().endswith("returned 0"), "the host did not start: %s" % self.output)
        m = re.search(r"Server Listening On 127\.0\.0\.1 And Port (\d+)", self.rd_log())
        check(m, "no port in rd.log")
        self.port = int(m.group(1))

    def vexoctl(self, args):
        r = subprocess.run(args, env=self.env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        check(r.returncode == 0, "%s failed: %s" % (" ".join(args[:2]), r.stdout))
        return r.stdout

    def _read(self):
        for line in self.host.stdout:
            self.output.append(line)

    def rd_log(self):
        with open(os.path.join(self.workdir, "rd.log"), errors="replace") as f:
            return f.read()

    # The requests as the service logged them: "VERB PATH" of each "Request
    # is:" line (the service never logs a body).
    def requests(self):
        return re.findall(r"\) - Request is: (\S+ \S*), body of \d+ bytes", self.rd_log())

    def stop(self):
        if self.host.poll() is None:
            self.host.terminate()
            try:
                self.host.wait(10)
            except subprocess.TimeoutExpired:
                self.host.kill()
                self.host.wait()


# ----------------------------------------------------------- the browser

def start_browser(tmp, home, extra_args=()):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service as DriverService

    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    options.set_capability("goog:loggingPrefs", {"performance": "ALL"})
    args = ["--headless=new", "--disable-dev-shm-usage", "--window-size=1100,1500",
            "--user-data-dir=" + os.path.join(tmp, "profile"), "--no-first-run"]
    if os.geteuid() == 0:
        # Chromium's sandbox refuses to run as root; this flag is about process
        # isolation only and leaves certificate checking as it is.
        args.append("--no-sandbox")
    for a in list(args) + list(extra_args):
        options.add_argument(a)
    # Chromium reads its NSS database from $HOME/.pki/nssdb: a temporary HOME
    # keeps the user's own database out of the test.
    env = dict(os.environ, HOME=home)
    service = DriverService(CHROMEDRIVER, env=env, log_path=os.path.join(tmp, "chromedriver.log"))
    driver = webdriver.Chrome(service=service, options=options)
    CLEANUP.callback(driver.quit)
    return driver


def wait_text(driver, element_id, pattern, timeout=20):
    deadline = time.time() + timeout
    text = ""
    while time.time() < deadline:
        text = driver.find_element("id", element_id).text
        if re.search(pattern, text):
            return text
        time.sleep(0.1)
    raise Failure("#%s never matched %r; it reads %r" % (element_id, pattern, text))


def field(driver, name):
    cells = driver.find_elements("css selector", 'td[data-field="%s"]' % name)
    return cells[0].text if cells else None


def scan(driver, page_url, service_base):
    driver.get(page_url + "/index.html?scan=1&timeout=%d" % SCAN_TIMEOUT_MS)
    status = wait_text(driver, "scan-status", r"Scan done in [\d.]+ s")
    seconds = float(re.search(r"in ([\d.]+) s", status).group(1))
    rows = driver.find_elements("css selector", 'tr[data-base="%s"]' % service_base)
    check(rows, "%s not among the services found: %s" % (service_base, status))
    # A closed port fails at once and one that does not answer is given up
    # after the time-out, so the whole scan stays within a few seconds.
    check(seconds < SCAN_TIMEOUT_MS / 1000 + 3, "the scan took %.1f s" % seconds)
    cells = [c.text for c in rows[0].find_elements("tag name", "td")]
    check(cells[2] == "READY", "status %r" % cells[2])
    check(re.fullmatch(r"Korvane RD service\(.+\) is running", cells[3]), "info %r" % cells[3])
    rows[0].find_element("css selector", "input[type=radio]").click()
    check(driver.find_element("id", "chosen").text == service_base, "the service was not chosen")


def device_info_and_capture(driver, service, screenshot):
    driver.find_element("id", "deviceinfo").click()
    status = wait_text(driver, "answer-status", r"DEVICEINFO answered")
    check("HTTP 200" in status, status)
    dpid, mi = field(driver, "dpId"), field(driver, "mi")
    check(dpid and mi and field(driver, "rdsId") and field(driver, "dc") is not None, "DeviceInfo not decoded")

    # One finger, minutiae and image, through the PidOptions editor.
    driver.find_element("css selector", '#opt-fType option[value="2"]').click()
    fcount = driver.find_element("id", "opt-fCount")
    fcount.clear()
    fcount.send_keys("1")
    pid_options = driver.find_element("id", "pidoptions").get_attribute("value")
    check('fCount="1" fType="2"' in pid_options and 'env="P"' in pid_options, pid_options)
    driver.find_element("id", "capture").click()
    status = wait_text(driver, "answer-status", r"CAPTURE answered", timeout=40)
    check("HTTP 200" in status and "errCode 0 (" in status, status)
    check(field(driver, "errCode") == "0" and field(driver, "fCount") == "1", "Resp not decoded")
    check(re.fullmatch(r"\d+", field(driver, "nmPoints") or ""), "nmPoints %r" % field(driver, "nmPoints"))
    check(re.fullmatch(r"\d+", field(driver, "qScore") or ""), "qScore %r" % field(driver, "qScore"))
    check(re.fullmatch(r"\d{8}", field(driver, "ci") or ""), "ci %r" % field(driver, "ci"))
    check(field(driver, "DeviceInfo.dpId") == dpid, "DeviceInfo of the capture not decoded")
    check("<PidData" in driver.find_element("id", "raw").text, "raw answer not shown")
    driver.save_screenshot(screenshot)

    # What the service received: the page's requests only, and no PidData
    # went back anywhere (the page's own origin sees GETs only: case_http).
    verbs = [r.split(" ", 1)[0] for r in service.requests()]
    check({"RDSERVICE", "DEVICEINFO", "CAPTURE"} <= set(verbs), "service saw %s" % verbs)
    # A PidData (kilobytes) would not fit a request and be refused as too large.
    check("Request too large" not in service.rd_log(), "a PidData was sent to the service")


# --------------------------------------------------------------- the cases

def case_http(args, tmp):
    service = Service(args.build, tmp, tls=False)
    fake_port = serve_fake_rd(service.port + 1, 11120)
    page_port = serve_page(os.path.join(args.source, "web"))
    driver = start_browser(tmp, service.env["HOME"])
    scan(driver, "http://127.0.0.1:%d" % page_port, "http://127.0.0.1:%d" % service.port)
    # The fake service's markup is shown as text and never runs.
    fake_rows = driver.find_elements("css selector", 'tr[data-base="http://127.0.0.1:%d"]' % fake_port)
    check(fake_rows, "the fake service was not found")
    check(fake_rows[0].find_elements("tag name", "td")[3].text == HOSTILE_INFO, "info not shown as text")
    check(not driver.find_elements("css selector", "#services img, #services b"), "markup was inserted")
    device_info_and_capture(driver, service, os.path.join(args.shots, "http.png"))

    fake_rows[0].find_element("css selector", "input[type=radio]").click()
    driver.find_element("id", "capture").click()
    wait_text(driver, "answer-status", r"CAPTURE answered.*errCode 700")
    check(field(driver, "errInfo") == HOSTILE_ERRINFO, "errInfo %r" % field(driver, "errInfo"))
    check(not driver.find_elements("css selector", "#decoded script"), "markup was inserted")
    check(driver.execute_script("return window.__vexo_pwned === undefined"), "a service's text ran as script")
    # The page sends nothing back to its own origin but GETs of its files.
    check(PageHandler.requests, "the page server saw nothing")
    others = [r for r in PageHandler.requests if not r.startswith("GET ")]
    check(not others, "the page sent %s to its own origin" % others)


def case_https(args, tmp):
    if shutil.which("certutil") is None:
        raise Failure("certutil (libnss3-tools) is not installed")
    service = Service(args.build, tmp, tls=True)
    print(service.vexoctl([os.path.join(args.build, "vexoctl"), "trust-tls", service.workdir]).strip())
    ssl_dir = os.path.join(service.workdir, "cert", "ssl")
    page_port = serve_page(os.path.join(args.source, "web"),
                           (os.path.join(ssl_dir, "public.crt"), os.path.join(ssl_dir, "private.key")))
    page_url = "https://localhost:%d" % page_port
    # The page's own address counts as public, so its calls to the loopback
    # service are local-network requests that the browser checks first.
    driver = start_browser(tmp, service.env["HOME"], ["--ip-address-space-overrides=127.0.0.1:%d=public" % page_port])
    driver.execute_cdp_cmd("Network.enable", {})
    # Newer Chromium asks the user before a public page may reach local
    # addresses; the test gives that permission as a user would.
    for permission in ("local-network-access", "loopback-network", "local-network"):
        try:
            driver.execute_cdp_cmd("Browser.setPermission", {"origin": page_url, "permission": {"name": permission},
                                                             "setting": "granted"})
        except Exception as e:  # an older Chromium does not know the name
            print("permission %s not known: %s" % (permission, str(e).splitlines()[0]))
    # A page whose certificate the browser refused would not show the scan
    # (see the untrusting browser below).
    service_base = "https://127.0.0.1:%d" % service.port
    scan(driver, page_url, service_base)
    check(not driver.find_elements("css selector", 'tr[data-base="http://127.0.0.1:%d"]' % service.port),
          "an HTTPS service was listed as HTTP")
    device_info_and_capture(driver, service, os.path.join(args.shots, "https.png"))
    # The browser sent its pre-flights from a page it counted as public, and
    # accepted the service's answers (the capture above went through).
    public = [e for e in (json.loads(e["message"])["message"] for e in driver.get_log("performance"))
              if e["method"] == "Network.requestWillBeSentExtraInfo"
              and e["params"].get("clientSecurityState", {}).get("initiatorIPAddressSpace") == "Public"
              and e["params"]["headers"].get("Host", e["params"]["headers"].get("host")) == service_base[8:]]
    check(public, "no request to the service from a page counted as public")
    check(any(r.startswith("OPTIONS ") for r in service.requests()), "the service received no pre-flight")

    # The same page for a browser whose NSS database lacks the local CA:
    # it refuses the certificate, so the trust above came from that entry.
    untrusting_home = os.path.join(tmp, "untrusting")
    os.makedirs(untrusting_home)
    other = start_browser(untrusting_home, untrusting_home)
    other.get(page_url + "/index.html")
    check(not other.find_elements("id", "scan"), "an untrusting browser showed the page")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--source", required=True)
    parser.add_argument("case", choices=["http", "https"])
    args = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)
    try:
        import selenium  # noqa: F401
    except ImportError:
        print("SKIP: python3-selenium is not installed (scripts/install-deps.sh installs it)")
        return SKIP
    for program in (CHROMIUM, CHROMEDRIVER):
        if not os.access(program, os.X_OK):
            print("SKIP: %s is not installed (scripts/install-deps.sh installs it)" % program)
            return SKIP
    args.shots = os.path.join(args.build, "web-screenshots")
    os.makedirs(args.shots, exist_ok=True)
    tmp = tempfile.mkdtemp(prefix="vexo-browser-")
    started = time.time()
    try:
        {"http": case_http, "https": case_https}[args.case](args, tmp)
    except Failure as e:
        print("FAILED: %s" % e)
        return 1
    finally:
        CLEANUP.close()
        shutil.rmtree(tmp, ignore_errors=True)
    print("PASSED %s in %.1f s" % (args.case, time.time() - started))
    return 0


if __name__ == "__main__":
    sys.exit(main())
