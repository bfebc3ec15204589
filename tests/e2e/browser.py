"""A headless Chromium."""

import os
import shutil
import tempfile

from processes import wait_for
from selenium.common.exceptions import WebDriverException
from selenium.webdriver import ActionChains, Chrome, ChromeOptions
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.wait import WebDriverWait

DRIVER = shutil.which("chromedriver")
CHROMIUM = shutil.which("chromium")
WINDOW = (900, 700)

OPTIONS = [
    "--headless=new", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-sync",
    "--disable-background-networking", "--disable-component-update", "--no-proxy-server",
    "--disable-dev-shm-usage",
    # Hosts without encryption that the browser does not take for this machine.
    "--host-resolver-rules=MAP *.test 127.0.0.1",
]


class Browser(Chrome):
    def __init__(self):
        options = ChromeOptions()
        options.binary_location = CHROMIUM
        # Loopback is never reached through a proxy.
        options.ignore_local_proxy_environment_variables()
        for option in OPTIONS:
            options.add_argument(option)
        # Chromium refuses its sandbox to root.
        if os.geteuid() == 0:
            options.add_argument("--no-sandbox")
        # Both leave files.
        self.folder = tempfile.mkdtemp(prefix="chromium-")
        service = Service(DRIVER, env={**os.environ, "TMPDIR": self.folder})
        super().__init__(options=options, service=service)
        self.set_window_size(*WINDOW)

    def quit(self):
        super().quit()
        # The browser's last processes may still be writing.
        wait_for(self.has_removed_folder)

    def has_removed_folder(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        return not os.path.exists(self.folder)

    def reset(self):
        """As before the first visit."""
        self.get("about:blank")
        self.delete_network_conditions()
        self.execute_cdp_cmd("Network.clearBrowserCookies", {})
        self.enable_scripts(True)
        self.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        self.set_window_size(*WINDOW)

    def _do(self, by, value, action):
        """Waits for the element: the page may still be on its way."""
        wait = WebDriverWait(self, 10, 0.02, [WebDriverException])
        wait.until(lambda _: action(self.find_element(by, value)) or True)

    def type_into(self, selector, text):
        self._do(By.CSS_SELECTOR, selector, lambda element: element.send_keys(text))

    def choose_files(self, selector, *paths):
        self.type_into(selector, "\n".join(map(str, paths)))

    def click(self, selector):
        self._do(By.CSS_SELECTOR, selector, lambda element: element.click())

    def click_link(self, text):
        self._do(By.LINK_TEXT, text, lambda element: element.click())

    def visible_text(self):
        """What a person can read on the page; nothing while it is changing."""
        try:
            return self.find_element(By.TAG_NAME, "body").text
        except WebDriverException:
            return ""

    def label(self, selector):
        """What a screen reader calls an element."""
        return self.find_element(By.CSS_SELECTOR, selector).accessible_name

    def is_enabled(self, selector):
        return self.find_element(By.CSS_SELECTOR, selector).is_enabled()

    def press(self, keys):
        """Into whatever has the keyboard's focus."""
        ActionChains(self).send_keys(keys).perform()

    def prefer(self, scheme):
        """As if the person had chosen "dark" or "light" for her desktop."""
        feature = {"name": "prefers-color-scheme", "value": scheme}
        self.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [feature]})

    def slow_down(self, bytes_per_second):
        """As if by a slow line."""
        self.set_network_conditions(
            offline=False, latency=0, download_throughput=-1, upload_throughput=bytes_per_second
        )

    def enable_scripts(self, are_enabled):
        self.execute_cdp_cmd("Emulation.setScriptExecutionDisabled", {"value": not are_enabled})
