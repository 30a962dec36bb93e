"""The page that vorldiag report writes.

vorldiag_report_test.py REPOSITORY BIN [--browser]

Without --browser its content; with it, how a browser shows it: in a narrow and in a wide window, on
a picture and on paper. Ends with 77 where there is no browser.
"""

import html
import json
import re
import shutil
import subprocess
import sys
import tempfile
from html.parser import HTMLParser
from importlib.util import find_spec
from pathlib import Path

from staged_tool import START, STOP, StagedTool

ATTACK = '<script>document.title="run"</script><img src=x onerror=alert(1)>&"' + "W" * 400


class Elements(HTMLParser):
    """Every tag with its attributes, and the text."""

    def __init__(self, page):
        super().__init__()
        self.tags = []
        self.text = ""
        self.feed(page)

    def handle_starttag(self, tag, attrs):
        self.tags.append((tag, dict(attrs)))

    def handle_data(self, data):
        self.text += data


def write_report(tool):
    tool.write_lines(START)
    tool.write_lines([("CAcAsSvc::Run", "ClientAgentCoreCleanUp Failed", 1)], level="ERROR")
    tool.write_lines(STOP)
    tool.write_lines(START[:11], process=48)
    tool.write_lines([("LoadVorlcoreDll", "Load Library Fail... with error (126)", 1),
                      ("DoPendingPatchTasks", "File not exist (C:\\x\\vorlupd.dll)", 1),
                      ("Strange::Function", ATTACK, 1)], process=48, level="ERROR")
    tool.write_configuration("[TRACE]\r\nFiles=20\r\nLevels=all\r\n"
                             "[STARTUP_OPTIONS]\r\nText1=M\u00fcller & S\u00f6hne\r\n")
    code, output = tool.run("report", "report.html", "--json")
    tool.expect("the file is written", code == 0)
    document = json.loads(output)
    page = (tool.folder / "report.html").read_text(encoding="utf-8")
    tool.expect("its size is told", document["command"] == "report" and document["bytes"] ==
                (tool.folder / "report.html").stat().st_size)
    return page


def check_content(tool, page):
    elements = Elements(page)
    tags = [tag for tag, _ in elements.tags]
    attributes = [name for _, all_of in elements.tags for name in all_of]
    parts = [all_of.get("id") for tag, all_of in elements.tags if tag == "section"]
    tool.expect("all parts", parts == [
        "attention", "status", "identity", "timeline", "errors", "settings"])
    tool.expect("nothing that runs or is loaded", not set(tags) & {
        "script", "img", "link", "iframe", "object", "embed", "base", "form"} and not set(
            attributes) & {"src", "href", "onerror", "onload"})
    tool.expect("no address but its own", "http:" not in page and "https:" not in page
                and "@import" not in page and "url(" not in page)
    tool.expect("a policy", "default-src 'none'" in page)
    tool.expect("the text of a hostile line stands there", ATTACK in elements.text)
    tool.expect("the missing registration, with what to do",
                "is not registered" in elements.text and "vorlsrvc -install" in elements.text)
    tool.expect("a bar for each of three", tags.count("svg") == 3)
    tool.expect("the slowest step first", re.search(
        r'<ol class="slow"><li>120 ms until <code>&quot;After calling ClientAgentCoreStartUp&quot; '
        r"of CAcAsSvc::Run</code>\s*</li>\s*<li>40 ms until", page))
    tool.expect("the slowest step of the stop", "70 ms until" in elements.text)
    tool.expect("what is missing in the other start", "Step 11 of 14 is missing" in elements.text)
    tool.expect("the explanation of a line", "126: vorlcore.dll or a library that it needs is missing"
                in elements.text)
    tool.expect("and of another", "the core reported a failure" in elements.text)
    tool.expect("what is usual is no error line", "File not exist" not in elements.text)
    settings = page[page.index('id="settings"'):]
    tool.expect("what differs from the default", re.findall(
        r'badge set">set</span>\s*<div class="what">([^<]*)</div>\s*<div class="how">([^<]*)<',
        settings) == [("TRACE Files", "20 (default: 10)"),
                      ("STARTUP_OPTIONS Text1", "M\u00fcller &amp; S\u00f6hne (default: (empty))")])
    tool.expect("the rest", settings.count('badge plain">default<') == 14 + 3)


def browse(*arguments):
    with tempfile.TemporaryDirectory() as profile:
        result = subprocess.run(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
             "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", f"--user-data-dir={profile}", "--hide-scrollbars", *arguments],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            check=False, timeout=120,
        )
    return result.stdout.decode("utf-8")


def measure(tool, page):
    """What a browser makes of the page in windows of several widths."""
    frames = "".join(f'<iframe width="{width}" height="800" style="border:0" srcdoc="{html.escape(page)}">'
                     "</iframe>" for width in (360, 1000))
    (tool.folder / "frames.html").write_text(
        f"<!DOCTYPE html><body>{frames}<pre id=result></pre><script>onload = () => {{"
        "const shown = [...document.querySelectorAll('iframe')].map(frame => {"
        "  const inside = frame.contentDocument, root = inside.documentElement;"
        "  return {title: inside.title, scroll: root.scrollWidth, width: root.clientWidth,"
        "    outside: [...inside.querySelectorAll('body *')].filter("
        "      e => e.getBoundingClientRect().right > root.clientWidth + 1).length,"
        "    bars: [...inside.querySelectorAll('svg rect')].map("
        "      e => Math.round(e.getBoundingClientRect().width)),"
        "    colours: [...new Set([...inside.querySelectorAll('.badge')].map("
        "      e => frame.contentWindow.getComputedStyle(e).backgroundColor))]}});"
        "document.getElementById('result').textContent = JSON.stringify(shown);"
        "}</script>", encoding="utf-8")
    dom = browse("--dump-dom", (tool.folder / "frames.html").as_uri())
    return json.loads(html.unescape(re.search(r'<pre id="result">(.*?)</pre>', dom, re.S)[1]))


def check_in_browser(tool, page):
    from PIL import Image

    narrow, wide = measure(tool, page)
    for shown in (narrow, wide):
        tool.expect(f"nothing lies outside of {shown['width']} pixels: {shown}",
                    shown["scroll"] <= shown["width"] and shown["outside"] == 0)
        tool.expect("no script of a trace line has run", shown["title"].startswith("Client Agent on"))
        tool.expect("bars with a width", len(shown["bars"]) > 10 and max(shown["bars"]) > 100)
        tool.expect("a colour for each verdict", len(shown["colours"]) >= 5)
    tool.expect("two widths", (narrow["width"], wide["width"]) == (360, 1000))

    picture = tool.folder / "page.png"
    browse("--window-size=800,6000", f"--screenshot={picture}", (tool.folder / "report.html").as_uri())
    with Image.open(picture) as image:
        pixels = dict((colour, count) for count, colour in
                      image.convert("RGB").getcolors(maxcolors=1 << 24))
    for name, colour in {"ok": (26, 127, 55), "error": (179, 38, 30), "warning": (154, 103, 0),
                         "slowest step": (217, 115, 13), "text": (28, 28, 28)}.items():
        tool.expect(f"the picture shows {name}", pixels.get(colour, 0) > 20)
    tool.expect("on a white page", max(pixels, key=pixels.get) == (255, 255, 255))

    paper = tool.folder / "page.pdf"
    browse("--no-pdf-header-footer", f"--print-to-pdf={paper}", (tool.folder / "report.html").as_uri())
    printed = paper.read_bytes() if paper.exists() else b""
    tool.expect("it can be printed", printed.startswith(b"%PDF") and
                2 <= len(re.findall(rb"/Type\s*/Page\b", printed)) <= 20)


with StagedTool(sys.argv[1], sys.argv[2]) as staged:
    if "--browser" not in sys.argv:
        check_content(staged, write_report(staged))
    elif shutil.which("chromium") is None or find_spec("PIL") is None:
        print("LEFT OUT: Debian's chromium or python3-pil is missing, nobody has looked at the page")
        sys.exit(77)
    else:
        check_in_browser(staged, write_report(staged))
sys.exit(staged.failures != 0)
