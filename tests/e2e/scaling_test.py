"""Back ends that die, hang and go away while a site is under load: no visitor
may notice more than a delay."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from processes import wait_for
from scaling_hosts import can_make_namespaces
from scaling_site import Load, Site, block, document
from verdict import full, main

VISITS = 5_000
FEWER_VISITS = 900
SOURCE = pathlib.Path(os.environ["SOURCE"])
# What HAProxy asks to see whether a back end is well.
CHECK = bytes.fromhex(re.search(r"send-binary ([0-9a-f]+)$", block("haproxy"), re.M).group(1))


class SiteTest(unittest.TestCase):
    is_secure = False
    # How long a back end takes for a query.
    seconds = 0.03
    visitors = 32

    @classmethod
    def setUpClass(cls):
        cls.site = Site(cls.seconds, cls.is_secure)
        cls.addClassCleanup(cls.site.stop)

    def setUp(self):
        self.back_end = self.site.back_ends[0]
        self.site.wait_until_up()
        self.load = Load(self.site.web_servers(), self.visitors)
        self.addCleanup(self.load.stop)

    def answered_since(self, moment, back_end):
        return any(
            visit.began > moment and visit.back_end == back_end.name for visit in self.load.visits
        )

    def visit_on(self):
        self.load.wait_for_visits(FEWER_VISITS // 3)

    def wait_until_used(self, back_end):
        now = time.monotonic()
        self.load.wait_for(lambda: self.answered_since(now, back_end))

    def assert_none_failed(self):
        visits = self.load.stop()
        failed = [visit for visit in visits if visit.back_end is None]
        self.assertEqual(failed, [], f"{len(failed)} of {len(visits)}\n{self.site.logs()}")
        asked = self.site.asked()
        repeated = sum(asked[visit.session] > 1 for visit in visits)
        longest = max(visit.seconds for visit in visits)
        rate = len(visits) / (visits[-1].ended - visits[0].began)
        print(
            f"{len(visits)} visits, {rate:.0f} a second, {repeated} with a query carried"
            f" out more than once, the longest {longest:.2f} s",
            flush=True,
        )
        return longest, repeated

    def kill_and_start_again(self, visits):
        self.load.wait_for_visits(visits // 3)
        self.wait_until_used(self.back_end)
        redispatched = self.redispatched()
        self.back_end.service.kill()
        dead_since = time.monotonic()
        self.load.wait_for_visits(visits // 3)
        self.assertFalse(self.answered_since(dead_since, self.back_end))
        self.back_end.start()
        self.load.wait_for_visits(visits // 3)
        self.wait_until_used(self.back_end)
        longest, repeated = self.assert_none_failed()
        self.assertGreaterEqual(len(self.load.visits), visits)
        # Some have come to it when it was dead.
        self.assertGreater(repeated + self.redispatched() - redispatched, 0)
        self.assertLess(longest, 5)

    def redispatched(self):
        """How many queries have found it not listening."""
        states = [host.proxy_state(self.back_end.name) for host in self.site.web_hosts]
        return sum(int(state["wredis"]) + int(state["wretr"]) for state in states)


class KilledTest(SiteTest):
    def test_a_back_end_is_killed_and_started_again(self):
        self.kill_and_start_again(FEWER_VISITS)

    def test_without_any_back_end_visitors_get_an_error_at_once(self):
        self.load.stop()
        for back_end in self.site.back_ends:
            back_end.service.kill()
        for web_host in self.site.web_hosts:
            wait_for(lambda: web_host.back_ends_up() == 0)
            began = time.monotonic()
            logged = self.site.logs().count("back end 'panel'")
            status, page = web_host.web_server.visit("visit-in-vain")
            self.assertEqual(status, 502)
            self.assertIn("That did not work.", page)
            self.assertLess(time.monotonic() - began, 2)
            self.assertGreater(self.site.logs().count("back end 'panel'"), logged)
        for back_end in self.site.back_ends:
            back_end.start()


@full
class ScalingTest(SiteTest):
    def test_many_visits_see_a_back_end_killed_and_started_again(self):
        self.kill_and_start_again(VISITS)

    def lose_and_regain(self, lose, regain):
        """The longest visit, and how many queries were carried out twice."""
        self.visit_on()
        lose()
        lost_since = time.monotonic()
        wait_for(lambda: all(host.back_ends_up() == 2 for host in self.site.web_hosts))
        self.visit_on()
        self.assertFalse(self.answered_since(lost_since, self.back_end))
        regain()
        self.wait_until_used(self.back_end)
        self.visit_on()
        longest, repeated = self.assert_none_failed()
        self.assertLess(longest, 10)
        return longest, repeated

    def test_a_back_end_hangs_and_goes_on(self):
        send = self.back_end.service.signal
        stops, goes_on = (lambda: send(signal.SIGSTOP)), (lambda: send(signal.SIGCONT))
        longest, repeated = self.lose_and_regain(stops, goes_on)
        # Some have waited for it, and then have been sent elsewhere.
        self.assertGreater(longest, 1)
        self.assertGreater(repeated, 0)

    @unittest.skipUnless(can_make_namespaces(), "to unplug a host wants network namespaces")
    def test_a_host_is_unplugged(self):
        self.lose_and_regain(self.back_end.host.cut_off, self.back_end.host.plug_in)

    def test_a_back_end_is_drained_for_an_upgrade(self):
        self.visit_on()
        self.set_state("drain")
        for web_host in self.site.web_hosts:
            self.load.wait_for(lambda: web_host.proxy_state(self.back_end.name)["scur"] == "0")
        self.back_end.service.stop()
        self.visit_on()
        self.back_end.start()
        self.set_state("ready")
        self.wait_until_used(self.back_end)
        self.visit_on()
        _, repeated = self.assert_none_failed()
        self.assertEqual(repeated, 0)

    def set_state(self, state):
        for web_host in self.site.web_hosts:
            answer = web_host.proxy_command(f"set server panel/{self.back_end.name} state {state}")
            self.assertEqual(answer.strip(), "")

    def test_haproxy_gets_a_new_configuration(self):
        for web_host in self.site.web_hosts:
            self.visit_on()
            web_host.proxy.process.send_signal(signal.SIGUSR2)
        self.visit_on()
        _, repeated = self.assert_none_failed()
        self.assertEqual(repeated, 0)


class DocumentTest(unittest.TestCase):
    def test_the_check_is_what_the_command_shown_makes(self):
        command = re.search(r"^ *printf .*? tr .*?$", document("scaling"), re.S | re.M).group()
        done = subprocess.run(["sh", "-c", command], capture_output=True, text=True, check=True)
        self.assertEqual(done.stdout, CHECK.hex())

    def test_systemd_understands_the_drop_ins(self):
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="units-"))
        units = r"^```systemd /etc/systemd/system/(\S+)\n(.*?)^```"
        for name in ("deployment", "scaling"):
            for path, text in re.findall(units, document(name), re.S | re.M):
                file = pathlib.Path(folder, path)
                file.parent.mkdir(exist_ok=True)
                file.write_text(text)
        shutil.copy("/lib/systemd/system/haproxy.service", folder)
        environment = {**os.environ, "SYSTEMD_UNIT_PATH": f"{folder}:"}
        command = ["systemd-analyze", "verify", "panel-backend.socket", "haproxy.service"]
        done = subprocess.run(command, env=environment, capture_output=True, text=True)
        complaints = [line for line in done.stderr.splitlines() if folder in line]
        self.assertEqual(complaints, [])


@full
class FiguresTest(unittest.TestCase):
    def test_each_part_of_the_measuring_runs(self):
        script = SOURCE / "bench" / "scaling" / "scaling_figures.py"
        command = [sys.executable, "-B", script, "--quick"]
        done = subprocess.run(command, capture_output=True, text=True, timeout=300)
        self.assertEqual(done.returncode, 0, done.stderr)
        for figure in (
            "bytes a session in the store", "processor microseconds a whoami",
            "processor milliseconds a sign_in", "visits a second, without HAProxy",
            "microseconds a query, HAProxy, TLS", "processor microseconds a visit, uWSGI, TLS",
            "uWSGI's processor microseconds a check, TLS", "TLS sessions resumed",
            "bytes a query from the back end", "KB of HAProxy a connection",
            "connections in TIME_WAIT, back end" if can_make_namespaces() else "ports",
        ):
            self.assertRegex(done.stdout, rf"(?m)^{figure}: .*\d|^ports: not measured")


@full
class OverloadTest(SiteTest):
    # Three times as many as there are workers in the back ends.
    seconds = 0.3
    visitors = 72

    def test_visitors_wait_and_no_back_end_is_given_up(self):
        self.visit_on()
        longest, repeated = self.assert_none_failed()
        self.assertEqual(repeated, 0)
        self.assertGreater(longest, 2 * self.seconds)
        for web_host in self.site.web_hosts:
            for back_end in self.site.back_ends:
                self.assertEqual(web_host.proxy_state(back_end.name)["chkdown"], "0")


@full
class SecureScalingTest(SiteTest):
    """The same with TLS between the hosts."""

    is_secure = True

    def test_a_back_end_is_killed_and_started_again(self):
        self.kill_and_start_again(FEWER_VISITS)

    def test_a_stranger_in_place_of_a_back_end_gets_no_query(self):
        for certificate in (
            self.site.certificate(self.back_end.name, self.site.new_authority("stranger")),
            self.site.certificate("back2"),
        ):
            self.back_end.proxy.stop()
            asked = self.back_end.asked()
            self.back_end.start_proxy(certificate)
            for web_host in self.site.web_hosts:
                wait_for(lambda: self.reason(web_host) == "L6RSP")
            self.visit_on()
            self.assertEqual(self.back_end.asked(), asked)
        self.back_end.proxy.stop()
        self.back_end.start_proxy(self.site.certificate(self.back_end.name))
        self.wait_until_used(self.back_end)
        self.assert_none_failed()

    def reason(self, web_host):
        """Why the back end is not used."""
        state = web_host.proxy_state(self.back_end.name)
        return state["status"] == "DOWN" and state["check_status"]

    def test_a_client_without_a_certificate_gets_no_answer(self):
        self.load.stop()
        self.assertIn(b"access", self.answer_to(self.site.certificate("web")))
        self.assertEqual(self.answer_to(None), b"")
        stranger = self.site.new_authority("other-stranger")
        self.assertEqual(self.answer_to(self.site.certificate("web", stranger)), b"")

    def answer_to(self, certificate):
        identity = ["-cert", certificate] if certificate else []
        connect = ("openssl", "s_client", "-quiet", "-connect", self.back_end.public_address)
        command = [*self.back_end.host.enter, *connect, "-CAfile", self.site.authority, *identity]
        return subprocess.run(command, input=CHECK, capture_output=True, timeout=30).stdout


if __name__ == "__main__":
    main()
