"""The page of `oriel serve` in a real browser."""
import pytest
from browser import Browser
from conftest import PATIENCE, wait_until
from test_serve import JAM, Server

READY = "00 00 00 00 00 00 00 00 00 00 00 00"
# What a name or a text might try: elements, attributes, entities, addresses.
INJECTIONS = ["<img src=x onerror=hit=1>", "</span><script>hit=1</script>", '" onmouseover="hit=1', "&lt;b&gt;&#60;b&#62;",
              "javascript:hit=1", "<svg/onload=hit=1>", "${hit=1}", "<style>*{display:none}</style>", "\u202eno\u202c"]
FOREIGN = ("document.querySelectorAll('img, b, iframe, style, main script, [onerror], [onload], "
           "[onmouseover], [style]').length + (typeof hit == 'undefined' ? 0 : 1000)")


@pytest.fixture
def page(up):
    up.add("Front desk")
    server = Server(up)
    with Browser(up.folder / "browser") as browser:
        empty = browser.screenshot()
        browser.open(server.url)
        browser.wait("document.getElementById('link')?.textContent == 'live'")
        browser.wait("document.querySelectorAll('#printers > li').length == 1")
        browser.machine, browser.server, browser.empty = up, server, empty
        yield browser


def status(page, printer, value):
    page.machine.run("set", printer, "PrinterStatus", "--hex", value)


def test_a_jam_is_seen_at_once(page):
    assert len(page.screenshot()) > 3 * len(page.empty)
    page.value("""seen = []; new MutationObserver(() => {
        const row = document.querySelector('#printers > li.error');
        if (row && !seen.pending) seen.push(Date.now());
        seen.pending = !!row;
    }).observe(document.getElementById('printers'), {subtree: true, childList: true, attributes: true})""")
    delays = []
    for count in range(1, 6):
        status(page, "Front desk", JAM)
        seen = page.wait(f"seen.length >= {count} && seen[{count - 1}]")
        written = page.value("fetch('/api/printers').then((answer) => answer.json())"
                             ".then((all) => Date.parse(all.printers[0].changed))")
        delays.append(seen - written)
        status(page, "Front desk", READY)
        page.wait("document.querySelector('#printers > li.none')")
    assert min(delays) < 200, delays  # milliseconds; a machine that is busy may take longer now and then
    assert page.wait("document.getElementById('news').textContent").startswith("Front desk: paper jam, unit 2")
    assert page.value("document.querySelectorAll('#printers svg rect.error').length") == 1


def test_nothing_that_a_printer_says_becomes_markup(page):
    for text in INJECTIONS:
        if text.isascii():
            page.machine.add(text)
        page.machine.set("Front desk", "PrinterLocation", text.encode("cp1252", "ignore").decode("cp1252"))
    page.machine.file("job", "text")
    for text in INJECTIONS[:3]:
        page.machine.run("print", "Front desk", page.machine.folder / "job", "--held", "--title", text, code=None)
        display = (text.encode().ljust(132, b"\0")).hex(" ")
        page.machine.run("set", "Front desk", "PrinterDisplay", "--hex", display, code=None)
    count = 1 + sum(text.isascii() for text in INJECTIONS)
    page.wait(f"document.querySelectorAll('#printers > li').length == {count}")
    page.value("document.querySelectorAll('details').forEach((each) => (each.open = true))")
    page.wait(f"document.querySelectorAll('#printers table').length >= {count}")
    names = page.value("[...document.querySelectorAll('#printers .name')].map((each) => each.textContent)")
    assert set(names) == {"Front desk", *(text for text in INJECTIONS if text.isascii())}
    assert page.value(FOREIGN) == 0
    assert page.errors == []
    # And the policy holds where the page would not: a script of its own in the document does not run.
    page.value("document.body.insertAdjacentHTML('beforeend', '<img src=x onerror=hit=1><i onclick=hit=1></i>')")
    page.value("document.querySelector('i').click()")
    assert page.value("typeof hit") == "undefined"
    wait_until(lambda: page.value("1") and [error for error in page.errors if "Content Security Policy" in error])


def test_keyboard_names_and_narrow_screens(page):
    page.machine.add("Lab")
    page.wait("document.querySelectorAll('#printers > li').length == 2")
    page.press("/", text="/")
    assert page.value("document.activeElement.id") == "filter"
    for letter in "lab":
        page.press(letter, text=letter)
    page.wait("document.querySelectorAll('#printers > li:not([hidden])').length == 1")
    page.press("Escape", code="Escape", windowsVirtualKeyCode=27)
    page.wait("document.querySelectorAll('#printers > li:not([hidden])').length == 2")
    for _ in range(2):
        page.press("Tab", code="Tab", windowsVirtualKeyCode=9)
    assert page.value("document.activeElement.tagName") == "SUMMARY"
    page.press("Enter", code="Enter", windowsVirtualKeyCode=13, text="\r")
    page.wait("document.querySelector('#printers details[open] table')")
    backs = []
    for dark in (False, True):
        page.size(360, 700, dark)
        backs.append(page.value("getComputedStyle(document.body).backgroundColor"))
        assert page.value("document.documentElement.scrollWidth") <= 360
    assert backs[0] != backs[1]
    nodes = page.call("Accessibility.getFullAXTree")["nodes"]
    named = {"searchbox", "combobox", "meter", "image", "list", "heading", "DisclosureTriangle"}
    found = {node["role"]["value"] for node in nodes if not node["ignored"]}
    nameless = [node for node in nodes if not node["ignored"] and node["role"]["value"] in named - {"list"}
                and not node.get("name", {}).get("value")]
    assert {"searchbox", "combobox", "meter"} <= found and nameless == []


def test_the_page_comes_back_with_the_server(page):
    page.server.program.kill()
    page.wait("document.getElementById('link').textContent.includes('lost')")
    status(page, "Front desk", JAM)
    page.machine.start("serve", "--port", str(page.server.port))
    page.wait("document.getElementById('link').textContent == 'live'", PATIENCE)
    page.wait("document.querySelector('#printers > li.error')")
    page.machine.kill_service()
    page.wait("document.querySelector('#printers > li.none')", PATIENCE)
    assert page.errors == []
