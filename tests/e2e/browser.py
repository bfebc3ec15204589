"""A headless Chromium, driven over the W3C WebDriver protocol."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

# Loopback is never reached through a proxy.
DIRECTLY = urllib.request.build_opener(urllib.request.ProxyHandler({}))
DRIVER = shutil.which("chromedriver")
CHROMIUM = shutil.which("chromium")
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"

OPTIONS = [
    "--headless=new", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
    "--disable-background-networking", "--disable-component-update", "--no-proxy-server",
    "--disable-dev-shm-usage", "--window-size=900,700",
    # Hosts without encryption that the browser does not take for this machine.
    "--host-resolver-rules=MAP *.test 127.0.0.1",
]


class Browser:
    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="chromium-")
        self.driver = subprocess.Popen(
            [DRIVER, "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
        )
        port = None
        while port is None:
            line = self.driver.stdout.readline()
            if not line:
                raise RuntimeError("chromedriver does not start")
            found = re.search(r"started successfully on port (\d+)", line)
            port = found and found.group(1)
        self.base = f"http://127.0.0.1:{port}"
        # Chromium refuses its sandbox to root.
        sandbox = ["--no-sandbox"] if os.geteuid() == 0 else []
        arguments = OPTIONS + sandbox + [f"--user-data-dir={self.profile}"]
        options = {"binary": CHROMIUM, "args": arguments}
        wanted = {"capabilities": {"alwaysMatch": {"goog:chromeOptions": options}}}
        session = self._call("POST", "/session", wanted)
        self.base += "/session/" + session["sessionId"]

    def reset(self):
        """As before the first visit."""
        self.open("about:blank")
        self.devtools("Network.clearBrowserCookies")
        self.slow_down(-1)
        self.devtools("Emulation.setScriptExecutionDisabled", value=False)
        self.devtools("Emulation.setEmulatedMedia", features=[])
        self.resize(900, 700)

    def close(self):
        self._call("DELETE", "")
        self.driver.terminate()
        self.driver.wait(30)
        self.driver.stdout.close()
        # The browser's last processes may still be writing.
        for _ in range(100):
            shutil.rmtree(self.profile, ignore_errors=True)
            if not os.path.exists(self.profile):
                return
            time.sleep(0.1)
        raise RuntimeError("the browser does not leave its profile")

    def _call(self, method, path, content=None):
        data = None if content is None else json.dumps(content).encode()
        request = urllib.request.Request(
            self.base + path, data, {"Content-Type": "application/json"}, method=method
        )
        try:
            with DIRECTLY.open(request, timeout=120) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(error.read().decode()) from error

    def _on_element(self, strategy, value, method, action, content=None):
        found = self._call("POST", "/element", {"using": strategy, "value": value})
        return self._call(method, f"/element/{found[ELEMENT]}/{action}", content)

    def _do(self, strategy, value, action, content):
        """Waits for the element: the page may still be on its way."""
        end = time.monotonic() + 10
        while True:
            try:
                return self._on_element(strategy, value, "POST", action, content)
            except RuntimeError:
                if time.monotonic() > end:
                    raise
            time.sleep(0.02)

    def open(self, url):
        self._call("POST", "/url", {"url": url})

    def url(self):
        return self._call("GET", "/url")

    def type_into(self, selector, text):
        self._do("css selector", selector, "value", {"text": text})

    def choose_files(self, selector, *paths):
        self.type_into(selector, "\n".join(map(str, paths)))

    def click(self, selector):
        self._do("css selector", selector, "click", {})

    def click_link(self, text):
        self._do("link text", text, "click", {})

    def visible_text(self):
        """What a person can read on the page; nothing while it is changing."""
        try:
            return self._on_element("css selector", "body", "GET", "text")
        except RuntimeError:
            return ""

    def label(self, selector):
        """What a screen reader calls an element."""
        return self._on_element("css selector", selector, "GET", "computedlabel")

    def press(self, keys):
        """Into whatever has the keyboard's focus."""
        kinds = ("keyDown", "keyUp")
        actions = [{"type": kind, "value": key} for key in keys for kind in kinds]
        source = {"type": "key", "id": "keyboard", "actions": actions}
        self._call("POST", "/actions", {"actions": [source]})

    def cookie(self, name):
        return self._call("GET", "/cookie/" + name)

    def set_cookie(self, cookie):
        self._call("POST", "/cookie", {"cookie": cookie})

    def resize(self, width, height):
        self._call("POST", "/window/rect", {"width": width, "height": height})

    def prefer(self, scheme):
        """As if the person had chosen "dark" or "light" for her desktop."""
        feature = {"name": "prefers-color-scheme", "value": scheme}
        self.devtools("Emulation.setEmulatedMedia", features=[feature])

    def devtools(self, command, **parameters):
        call = {"cmd": command, "params": parameters}
        self._call("POST", "/goog/cdp/execute", call)

    def slow_down(self, bytes_per_second):
        """As if by a slow line."""
        self.devtools("Network.enable")
        self.devtools(
            "Network.emulateNetworkConditions", offline=False, latency=0, downloadThroughput=-1,
            uploadThroughput=bytes_per_second,
        )

    def disable_scripts(self):
        self.devtools("Emulation.setScriptExecutionDisabled", value=True)

    def is_enabled(self, selector):
        return self._on_element("css selector", selector, "GET", "enabled")

    def run(self, script):
        return self._call("POST", "/execute/sync", {"script": script, "args": []})
