"""`vantrace view`: the page in a real browser, and who may ask for it."""

import http.client
import json
import os
import re
import signal
import subprocess
import sys
import threading
from pathlib import Path
from urllib.parse import urlsplit

import pytest

import vantrace
from conftest import run_python
from driven_page import DrivenBrowser

pytestmark = pytest.mark.unsanitized

EVIL = "<img src=x onerror=alert(1)>"
RULER = 24
ROW = 18


class Command:
    """`vantrace view` of a file, from its first lines until it is ended."""

    def __init__(self, file, *options, environment=None):
        self._process = subprocess.Popen(
            [sys.executable, "-m", "vantrace", "view", "--no-open", *options, file],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            env=environment,
        )
        self.lines = []
        while not self.lines or "Ctrl-C" not in self.lines[-1]:
            line = self._process.stdout.readline()
            assert line, self._process.stderr.read()
            self.lines.append(line)
        self.address = self.lines[0].split()[1]
        self.port = urlsplit(self.address).port
        self.path = urlsplit(self.address).path

    def end(self, number=signal.SIGINT):
        """The exit status and what was written to standard error."""
        self._process.send_signal(number)
        _, errors = self._process.communicate(timeout=60)
        return self._process.returncode, errors

    def ask(self, path, method="GET", **headers):
        """The response to a request as it is, with its body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        try:
            connection.request(method, path, headers=headers)
            response = connection.getresponse()
            return response, response.read()
        finally:
            connection.close()


def spin(rounds):
    for number in range(rounds):
        sum(range(number % 7 * 10))


def march():
    """What is looked at: nested events on two threads, one that ends on another, an open one."""
    with vantrace.event("whole", kind="cg"):
        for number in range(40):
            with vantrace.event("solve", n=number, tol=1e-6):
                with vantrace.event("assemble"):
                    spin(30)
                with vantrace.event(EVIL):
                    spin(100)
        vantrace.instant("done", value=3)
        thread = threading.Thread(target=late, name="second worker")
        thread.start()
        thread.join()


def late():
    with vantrace.event("only here"):
        spin(3000)


@pytest.fixture(name="file", scope="module")
def fixture_file(tmp_path_factory):
    file = tmp_path_factory.mktemp("view") / "own.vtrace"
    with vantrace.record(file):
        march()
    return file


@pytest.fixture(name="command", scope="module")
def fixture_command(file):
    command = Command(file)
    yield command
    assert command.end() == (0, "")


@pytest.fixture(name="browser", scope="module")
def fixture_browser():
    browser = DrivenBrowser()
    yield browser
    browser.close()


@pytest.fixture(name="page")
def fixture_page(browser, command):
    """The page, newly opened, when all is there; it must have met no error in the end."""
    open_page(browser, command.address)
    yield browser
    assert browser.seen() == {"errors": [], "messages": [], "requests": []}


def open_page(browser, address, options=None):
    browser.open(address, options or {})
    browser.wait("document.documentElement.dataset.phase === 'whole'")
    settle(browser)


def settle(browser):
    """Waits until the timeline and the flame graph show the present window."""
    browser.wait(
        "(() => { const {begin, end, shown} = document.getElementById('chart').dataset;"
        " const [from, to] = (shown ?? '').split('-').map(Number);"
        " return shown && from <= Math.max(0, begin) && to >= Math.floor(end); })()"
    )
    browser.wait("Boolean(document.getElementById('flame').dataset.of)")


def span(browser):
    return browser.ask("['begin', 'end'].map((k) => Number(document.getElementById('chart').dataset[k]))")


def answer(command, question):
    return json.loads(command.ask(command.path + question)[1])


def slices(command):
    """Each event's name, start, duration, thread, kind, row; from the server."""
    whole = answer(command, "state")["duration"]
    told = answer(command, f"window?begin=0&end={whole + 1}&pixels=20000&first=0&last=9")
    for thread, kind, row, flat in told["rows"]:
        for at in range(0, len(flat), 7):
            start, duration, name, *_ = flat[at : at + 7]
            yield told["names"][str(name)], start, duration, thread, kind, row


def place_of(page, command, wanted):
    """Where on the canvas the first event of a name is, in pixels."""
    _, start, duration, thread, kind, row = next(s for s in slices(command) if s[0] == wanted)
    begin, end = span(page)
    width = page.ask("document.getElementById('chart').clientWidth")
    top = page.ask(f"document.querySelector('#names [data-thread=\"{thread}\"]').offsetTop")
    instants = answer(command, "threads")[thread][6]
    row = row + instants if kind == 0 else row
    return (start + duration / 2 - begin) / (end - begin) * width, top + row * ROW + ROW / 2


def click(page, command, name, what="click"):
    page.point("#chart", *place_of(page, command, name), what)


def test_the_page_shows_threads_and_what_was_recorded(page, file):
    assert page.texts("h1") == [file.name]
    assert "123 events · 2 threads" in page.texts("#subtitle")[0]
    assert page.texts("#names button") == ["MainThread", "second worker"]
    assert page.texts("#progress") == []
    assert "all " in page.texts("#range")[0]


def test_a_click_tells_name_place_and_context(page, command):
    click(page, command, "whole")
    page.wait("document.querySelector('#details dl')")
    assert page.texts("#details .what")[0].strip() == "whole"
    facts = dict(zip(page.texts("#details dt"), page.texts("#details dd")))
    assert facts["kind"] == "cg" and facts["thread"].startswith("MainThread of ")
    click(page, command, "only here")
    page.wait("document.querySelector('#details .what')?.innerText.includes('only here')")
    assert "second worker" in page.texts("#details dd")[2]


def test_an_instant_is_told_of(page, command):
    click(page, command, "done")
    page.wait("document.querySelector('#details dl')")
    assert page.texts("#details dt") == ["start", "thread", "value"]


def test_the_wheel_zooms_about_the_pointer(page):
    page.point("#chart", 2, 200, "wheel", -400)
    page.wait("!document.getElementById('whole').disabled")
    settle(page)
    begin, end = span(page)
    assert begin < 0.01 * end
    page.point("#chart", 2, 200, "wheel", 4000)
    page.wait("document.getElementById('whole').disabled")
    assert span(page)[1] > 2 * end


@pytest.mark.parametrize(
    "keys, back", [(["+", "d"], "0"), (["w", "ArrowRight"], "Home"), (["=", "d", "a"], "0")]
)
def test_keys_zoom_and_move(page, keys, back):
    whole = span(page)
    for key in keys:
        before = span(page)
        page.press(key)
        after = span(page)
        if key in "+w=":
            assert after[1] - after[0] == pytest.approx(0.6 * (before[1] - before[0]))
        else:
            sign = -1 if key == "a" else 1
            assert sign * (after[0] - before[0]) > 0
    page.press(back)
    assert span(page) == whole


def test_dragging_moves(page):
    page.press("+")
    page.press("+")
    begin, end = span(page)
    page.drag("#chart", 0.5, 0.7)
    after = span(page)
    assert after[0] == pytest.approx(begin - 0.2 * (end - begin), rel=0.02)
    assert after[1] - after[0] == pytest.approx(end - begin)


def test_a_double_click_fills_the_width(page, command):
    click(page, command, "only here", "double")
    page.wait("!document.getElementById('whole').disabled")
    settle(page)
    _, start, duration, *_ = next(s for s in slices(command) if s[0] == "only here")
    begin, end = span(page)
    assert begin < start and start + duration < end < start + 1.2 * duration


def test_search_counts_and_goes_from_one_to_the_next(page, command):
    starts = sorted(start for name, start, *_ in slices(command) if name == "solve")
    page.press("/")
    page.type("SOLV")
    shown = []
    for key in ("Enter", "Enter", "Shift+Enter"):
        page.press(key)
        page.wait(f"document.querySelector('#details dl') && {json.dumps(shown[-1:])}[0] !== "
                  "document.querySelector('#details dd').innerText")
        shown.append(page.texts("#details dd")[0])
        assert page.texts("#details .what")[0].strip() == "solve"
        assert page.texts("#details dt")[3:] == ["n", "tol"]
    assert page.texts("#found") == ["40 events of 1 name"]
    assert shown[0] == shown[2] != shown[1]
    assert len(starts) == 40


def frames(page, kind=""):
    """The names in the flame graph, also of frames that are too narrow for them."""
    labels = page.ask(f"[...document.querySelectorAll('.frame{kind}')].map((f) => f.ariaLabel)")
    return {label.split(",")[0] for label in labels}


def test_search_marks_names_in_the_flame_graph(page):
    page.fill("#search", "sol")
    assert frames(page, ".found") == {"solve"}
    page.fill("#search", "")
    assert frames(page, ".found") == set()


def test_the_flame_graph_is_of_the_window(page, command):
    assert frames(page) >= {"all threads", "whole", "solve", "only here"}
    click(page, command, "only here", "double")
    page.wait("!document.querySelector('.frame[aria-label^=solve]')")
    assert "only here" in frames(page)
    page.click("#by button[value=thread]")
    assert "second worker" in frames(page)


def test_keys_walk_from_event_to_event(page):
    page.fill("#search", "solve")
    page.press("Enter")
    page.wait("document.querySelector('#details dl')")
    settle(page)
    page.ask("document.activeElement.blur()")
    shown = "document.querySelector('#details .what').innerText.trim()"
    page.press("Shift+ArrowDown")
    page.wait(f"{shown} === 'assemble'")
    page.press("Shift+ArrowUp")
    page.wait(f"{shown} === 'solve'")
    before = page.texts("#details dd")[0]
    page.press("Shift+ArrowRight")
    page.wait(f"document.querySelector('#details dd')?.innerText !== {json.dumps(before)}")
    assert page.ask(shown) == "solve"
    page.press("Escape")
    assert page.texts("#details .none") == ["Click on an event to see more of it."]


def test_threads_fold(page):
    second = "document.querySelector('#names [data-thread=\"1\"]').offsetTop"
    before = page.ask(second)
    page.click("#names [data-thread='0']")
    page.wait(f"{second} < {before}")
    assert page.ask("document.querySelector('#names [data-thread=\"0\"]').ariaExpanded") == "false"


def test_names_are_never_markup(page):
    page.fill("#search", EVIL)
    page.press("Enter")
    page.wait("document.querySelector('#details dl')")
    assert page.texts("#details .what")[0].strip() == EVIL
    assert EVIL in frames(page)
    assert page.ask("document.querySelectorAll('img').length") == 0


@pytest.mark.parametrize("look", [{"dark": True}, {"width": 400}])
def test_it_fits_the_window_light_and_dark(browser, command, look):
    open_page(browser, command.address, look)
    assert browser.ask("document.documentElement.scrollWidth <= innerWidth")
    colour = browser.ask("getComputedStyle(document.body).backgroundColor")
    brightness = sum(map(int, re.findall(r"\d+", colour)[:3])) / 3
    assert brightness < 60 if "dark" in look else brightness > 200


def test_nothing_else_runs_or_loads(browser, command):
    open_page(browser, command.address)
    browser.ask("document.body.append(Object.assign(document.createElement('script'), {text: 'window.x = 1'}))")
    browser.ask("fetch('http://127.0.0.2/').catch(() => {})")
    assert browser.ask("typeof window.x") == "undefined"
    seen = browser.seen()
    assert (seen["requests"], seen["errors"]) == ([], [])
    assert all("Content Security Policy" in text for text in seen["messages"])


def test_other_paths_learn_nothing(command):
    secret = command.path.strip("/")
    assert len(secret) >= 32
    almost = secret[:-1] + ("y" if secret.endswith("x") else "x")
    others = ["/", "/state", "/view.html", f"/{secret}", f"/{almost}/", f"/{secret}/../state"]
    inside = ["nothing", "_view.py", "../_view.py", "%2e%2e/_view.py", "a/b", "state/"]
    for path in [*others, *(command.path + name for name in inside), "/\udcff".encode("utf-8", "replace").decode()]:
        response, body = command.ask(path)
        assert (response.status, body) == (404, b""), path
        assert "Server" not in response.headers


@pytest.mark.parametrize("host", ["example.com", "example.com:80", "127.0.0.1", "", "127.0.0.1:1"])
def test_other_hosts_learn_nothing(command, host):
    response, body = command.ask(command.path, Host=host)
    assert (response.status, body) == (404, b"")


@pytest.mark.parametrize("method", ["POST", "HEAD", "OPTIONS", "PUT", "ODD"])
def test_other_methods_learn_nothing(command, method):
    response, body = command.ask(command.path, method)
    assert (response.status, body) == (404, b"")


@pytest.mark.parametrize(
    "question",
    ["window", "window?begin=x&end=1&pixels=1&first=0&last=0", "window?begin=0&end=1&pixels=-1&first=0&last=0",
     "flame?begin=0", "details?start=1&thread=99999999999&serial=0", "find?text=a", "ask_state", "__class__"],
)  # fmt: skip
def test_questions_without_meaning_find_nothing(command, question):
    assert command.ask(command.path + question)[0].status == 404


def test_no_page_of_elsewhere_may_read_it(command):
    response, _ = command.ask(command.path + "state", Origin="http://example.com")
    assert response.status == 200
    assert "Access-Control-Allow-Origin" not in response.headers
    assert response.headers["Cross-Origin-Resource-Policy"] == "same-origin"
    assert "frame-ancestors 'none'" in response.headers["Content-Security-Policy"]


def test_it_listens_on_this_machine_alone(command):
    with open("/proc/net/tcp", encoding="ascii") as table:
        listening = [line.split()[1] for line in table if line.split()[3] == "0A"]
    assert f"0100007F:{command.port:04X}" in listening
    assert f"00000000:{command.port:04X}" not in listening


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_an_interrupt_ends_it_without_a_word(file, number):
    command = Command(file)
    assert command.end(number) == (0, "")
    with pytest.raises(ConnectionRefusedError):
        command.ask(command.path)


def test_over_ssh_it_tells_how_to_forward(file):
    ssh = {**os.environ, "SSH_CONNECTION": "10.0.0.9 50000 10.0.0.5 2222"}
    command = Command(file, environment=ssh)
    port = command.port
    assert f"ssh -N -L {port}:127.0.0.1:{port} -p 2222 " in command.lines[1]
    assert command.lines[1].endswith("@10.0.0.5\n")
    assert command.end() == (0, "")


def test_a_browser_is_told_by_a_file_that_others_cannot_read(file, tmp_path):
    """What stands in a browser's arguments, all users of a machine can see."""
    script = tmp_path / "browser"
    script.write_text(f'#!/bin/sh\nstat -c %a "$(dirname "${{1#file://}}")" > {tmp_path}/seen\n'
                      f'cat "${{1#file://}}" >> {tmp_path}/seen\necho "$1" > {tmp_path}/told.new\n'
                      f'mv {tmp_path}/told.new {tmp_path}/told\n')
    script.chmod(0o755)
    without_ssh = {k: v for k, v in os.environ.items() if k != "SSH_CONNECTION"}
    done = subprocess.Popen(
        [sys.executable, "-m", "vantrace", "view", file], stdout=subprocess.PIPE, text=True,
        env={**without_ssh, "BROWSER": f"{script} %s"},
    )
    address = done.stdout.readline().split()[1]
    # The browser of this test ends at once, and is waited for.
    connection = http.client.HTTPConnection("127.0.0.1", urlsplit(address).port, timeout=60)
    connection.request("GET", urlsplit(address).path)
    assert connection.getresponse().status == 200
    connection.close()
    mode, page = (tmp_path / "seen").read_text().split("\n", 1)
    told = (tmp_path / "told").read_text()
    done.send_signal(signal.SIGINT)
    done.communicate(timeout=60)
    assert (done.returncode, mode) == (0, "700")
    assert address in page and urlsplit(address).path not in told
    assert not os.path.exists(told.strip().removeprefix("file://"))


@pytest.mark.parametrize(
    "arguments, said",
    [
        ([], "view takes one file, not 0"),
        (["a", "b"], "view takes one file, not 2"),
        (["--odd", "a"], "view has no option '--odd'"),
        (["--port", "70000", "a"], "--port takes a number up to 65535"),
        (["--port"], "--port takes a value"),
        (["nowhere.vtrace"], "cannot read 'nowhere.vtrace'"),
        (["/dev/null"], "is no trace file"),
    ],
)
def test_what_the_command_line_gets_wrong_is_said(arguments, said):
    done = run_python("-m", "vantrace", "view", *arguments)
    assert done.returncode == 2 and said in done.stderr and "Traceback" not in done.stderr


def test_a_port_that_is_taken_is_said(command, file):
    done = run_python("-m", "vantrace", "view", "--no-open", "--port", command.port, file)
    assert done.returncode == 2
    assert f"cannot listen on port {command.port}" in done.stderr


def test_help_tells_the_options():
    done = run_python("-m", "vantrace", "view", "--help")
    assert done.returncode == 0 and "--no-open" in done.stdout


def test_the_example_of_the_page_about_it_runs(tmp_path):
    """What docs/view.md records is what its command opens."""
    text = (Path(__file__).parents[2] / "docs/view.md").read_text(encoding="utf-8")
    script = re.search(r"^```python\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)[1]
    (tmp_path / "waves.py").write_text(script, encoding="utf-8")
    assert run_python("waves.py", cwd=tmp_path).returncode == 0
    [line] = re.search(r"^```console\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)[1].splitlines()
    assert line.startswith("$ vantrace view ")
    command = Command(tmp_path / line.split()[-1])
    assert b"app.js" in command.ask(command.path)[1]
    assert {name for name, *_ in slices(command)} == {"wave", "sum", "done"}
    assert command.end() == (0, "")
