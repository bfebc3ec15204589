"""The limits of time and of processor time that docs/deployment.md sets, each run
into: as documented, or shorter ones in their places."""

import concurrent.futures
import contextlib
import functools
import http.client
import time
import unittest

from accounts import GID, IS_ROOT, UID
import deployment
from deployment import HARAKIRI, PROCESSOR_LIMIT, TIME_LIMIT, machine, site
from processes import wait_for
from verdict import main

# More than what server and kernel keep for a client that takes its time.
DOWNLOAD = 32 << 20
ATTEMPTS = 4
# What the client of a front end that is ended sees; None: no answer.
STATUSES_AT_THE_END = {
    deployment.LighttpdSite: (500,), deployment.ApacheSite: (500, 504),
    deployment.NginxSite: (502,), deployment.BusyboxSite: (None,),
}
# The front end gets rid of an answer at the client's pace only, and is ended with
# it by the launcher's limit for a page.
ENDING_SLOW_DOWNLOADS = (deployment.BusyboxSite, deployment.ApacheWithThreads)


class Run:
    """A request that takes its time, and what becomes of the probe."""

    # How long the probe may go on when there is an answer, or none.
    patience = 20

    def __init__(self, the_site, action, *arguments):
        name = f"{type(the_site).__name__}-{type(self).__name__}-{action}"
        self.machine = the_site.machine
        self.path = self.machine.at("/notes") / name
        started = time.monotonic()
        self.make(the_site, name, action, *arguments)
        self.seconds = time.monotonic() - started
        self.has_ended = self.ends()

    def ends(self):
        process, self.note = self.path.read_text().split()
        with contextlib.suppress(TimeoutError):
            wait_for(lambda: int(process) not in self.machine.programs(), self.patience)
            return True
        return False


class SlowRun(Run):
    """A request that the probe would never answer."""

    method = "GET"

    def make(self, the_site, name, action, value=""):
        try:
            query = f"probe={action}&{name}&{value}"
            self.status = the_site.request(self.method, query).status
        except (http.client.HTTPException, OSError):
            self.status = None


class SlowPost(SlowRun):
    """The launcher gives it an hour."""

    method = "POST"
    # It is ended as soon as the web server gives up the request.
    patience = 5


class Unanswered:
    """A page whose back end never answers."""

    def __init__(self, visitor):
        started = time.monotonic()
        self.answer = visitor.page("whoami", **{"User-Agent": "never"})
        self.seconds = time.monotonic() - started


class SlowDownload(Run):
    """One that takes the client longer than a page may take."""

    def make(self, the_site, name, action):
        query = f"probe=send_all&{name}&{DOWNLOAD}&{DOWNLOAD}"
        with the_site.begin_download(f"page={action}&{query}", deployment.PIPE) as answer:
            self.announced = answer.length
            self.received = sum(map(len, self.pieces(answer)))

    def pieces(self, answer):
        until = time.monotonic() + TIME_LIMIT + 5
        with contextlib.suppress(http.client.IncompleteRead, ConnectionError):
            while piece := answer.read(deployment.PIPE):
                yield piece
                if time.monotonic() < until:
                    # As much in the time limit, whichever it is.
                    time.sleep(TIME_LIMIT / 60)


class StalledDownload(SlowDownload):
    """The client reads the beginning only, and stays until the probe has ended."""

    patience = TIME_LIMIT + 10

    def pieces(self, answer):
        yield answer.read(deployment.PIPE)
        self.ended_first = self.ends()


@functools.cache
def slow_runs():
    """All of them side by side: each takes as long as the limits are."""
    sites = {kind: site(kind) for kind in deployment.SITES}
    all_sites = sites | {kind: site(kind, "other") for kind in deployment.OTHER_SITES}
    visitor = deployment.Visitor(sites[deployment.LighttpdSite], *deployment.web_ids())
    workers = concurrent.futures.ThreadPoolExecutor(len(sites) * 2 + len(all_sites) * 3 + 4)
    runs = {"unanswered": workers.submit(Unanswered, visitor)}
    for kind, the_site in sites.items():
        for action in ("wait", "wait_stubbornly"):
            runs[kind, action] = workers.submit(SlowRun, the_site, action)
    for kind, the_site in all_sites.items():
        for run, action in (
            (SlowDownload, "download"), (SlowDownload, "page"), (StalledDownload, "stall"),
        ):
            runs[kind, action] = workers.submit(run, the_site, action)
    for kind in (deployment.ApacheSite, deployment.NginxSite):
        runs[kind, "post"] = workers.submit(SlowPost, sites[kind], "wait_stubbornly")
    if IS_ROOT:
        ids = f"{UID}&{GID}"
        runs["become"] = workers.submit(SlowRun, site(deployment.NginxSite, "root"), "become", ids)
    # One after the other: it takes them longer side by side.
    spinner = concurrent.futures.ThreadPoolExecutor(1)
    for kind, the_site in sites.items():
        runs[kind, "spin"] = spinner.submit(SlowRun, the_site, "spin")
    for pool in (workers, spinner):
        pool.shutdown(wait=False)
    return runs


class LimitTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        slow_runs()

    def check_each(self, action, check, kinds=deployment.SITES + deployment.OTHER_SITES):
        for kind in kinds:
            with self.subTest(kind.__name__, action=action):
                check(kind, slow_runs()[kind, action].result())

    def assert_ended_by_the_time_limit(self, run):
        self.assertGreater(run.seconds, TIME_LIMIT - 1)
        self.assertLess(run.seconds, TIME_LIMIT + 20)
        self.assertTrue(run.has_ended)

    def test_a_program_that_never_ends_is_ended(self):
        def check(kind, run):
            self.assert_ended_by_the_time_limit(run)
            self.assertIn(run.status, STATUSES_AT_THE_END[kind])

        for action in ("wait", "wait_stubbornly"):
            self.check_each(action, check, deployment.SITES)

    def test_a_program_that_spins_is_ended_by_its_processor_time(self):
        def check(kind, run):
            # The kernel counts in ticks, and less exactly than the program.
            self.assertGreater(float(run.note), PROCESSOR_LIMIT * 0.5)
            self.assertLess(run.seconds, TIME_LIMIT - 1)
            self.assertIn(run.status, STATUSES_AT_THE_END[kind])
            self.assertTrue(run.has_ended)

        self.check_each("spin", check, deployment.SITES)

    @deployment.needs_root
    def test_one_that_has_become_an_account_and_never_ends_is_ended(self):
        self.assert_ended_by_the_time_limit(slow_runs()["become"].result())

    def test_a_slow_client_gets_a_download_whole(self):
        def check(_, run):
            self.assertEqual((run.announced, run.received), (DOWNLOAD, DOWNLOAD))
            self.assertGreater(run.seconds, TIME_LIMIT)

        self.check_each("download", check)

    def test_a_slow_client_gets_a_page_as_far_as_the_time_goes(self):
        def check(kind, run):
            self.assertEqual(run.announced, DOWNLOAD)
            self.assertEqual(run.received < DOWNLOAD, kind in ENDING_SLOW_DOWNLOADS)

        self.check_each("page", check)

    def test_a_client_that_takes_nothing_keeps_no_front_end(self):
        self.check_each("stall", lambda _, run: self.assertTrue(run.ended_first))

    def test_a_post_that_never_ends_is_ended_by_apache_and_given_up_by_nginx(self):
        """The launcher gives it an hour, and the server less."""
        for kind, statuses, has_ended in (
            (deployment.ApacheSite, (500, 504), True), (deployment.NginxSite, (504,), False),
        ):
            run = slow_runs()[kind, "post"].result()
            with self.subTest(kind.__name__):
                self.assertIn(run.status, statuses)
                self.assertLess(run.seconds, TIME_LIMIT + 40)
                self.assertEqual(run.has_ended, has_ended)

    def test_a_back_end_that_never_answers_is_given_up_in_time(self):
        run = slow_runs()["unanswered"].result()
        self.assertEqual(run.answer.status, 502)
        self.assertIn("The service behind this panel does not answer.", run.answer.body)
        executions = (machine().at("/notes") / "never").read_text()
        self.assertEqual(len(executions), ATTEMPTS)
        self.assertGreater(run.seconds, ATTEMPTS * HARAKIRI * 0.9)
        self.assertLess(run.seconds, TIME_LIMIT - 1)
        print(f"{run.seconds:.1f} s for {ATTEMPTS} attempts", end=" ", flush=True)


if __name__ == "__main__":
    main()
