"""The pictures of docs/pictures, of a `scripts/demo page` that runs in a terminal of its own: scripts/pictures."""
import html
import os
import re
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.wait import WebDriverWait

PICTURES = "docs/pictures"
PATIENCE_S = 600  # of a build, too
TOP = (100, 24)
PAGE = "1100,900"


class Terminal:
    """tmux's, with the sockets of a folder of its own."""

    def __init__(self, folder, name, columns, lines, command):
        self._socket = f"{folder}/{name}"
        self._tmux("new-session", "-d", "-x", str(columns), "-y", str(lines), command)

    def _tmux(self, *words):
        return subprocess.run(["tmux", "-u", "-S", self._socket, "-f", "/dev/null", *words], check=True,
                              stdout=subprocess.PIPE, env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout.decode()

    def screen(self, *how):
        return self._tmux("capture-pane", "-p", *how)

    def keys(self, *keys):
        self._tmux("send-keys", *keys)

    def wait(self, pattern):
        ends = time.monotonic() + PATIENCE_S
        while not (found := re.search(pattern, self.screen())):
            if time.monotonic() > ends:
                sys.exit(f"pictures: no {pattern} in:\n{self.screen()}")
            time.sleep(0.2)
        return found


# A screen as a drawing.

WIDTH, HEIGHT, MARGIN = 8.4, 18, 12
GROUND, INK = "#16181d", "#d8dbe2"
COLOURS = {31: "#ff7b72", 36: "#76d7e0"}  # those that avwatch uses


class Drawing:
    """Of a screen as tmux says it, with the terminal's orders for attributes (SGR) between its texts."""

    def __init__(self, screen, columns, lines):
        self._pieces, self._orders = [], set()
        for row, line in enumerate(screen.split("\n")[:lines]):
            self._draw_line(row, line)
        width, height = columns * WIDTH + 2 * MARGIN, lines * HEIGHT + 2 * MARGIN
        self.text = "\n".join([
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" width="{width:.0f}" '
            f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14">',
            f'<rect width="100%" height="100%" rx="6" fill="{GROUND}"/>', *self._pieces, "</svg>\n"])

    def _draw_line(self, row, line):
        column = 0
        for orders, text in re.findall(r"(?:\x1b\[([\d;]*)m|[\x0e\x0f])?([^\x1b\x0e\x0f]*)", line):
            for order in re.findall(r"\d+", orders):
                self._obey(int(order))
            if text:
                self._draw_run(row, column, text)
            column += len(text)

    def _obey(self, order):
        if order in (0, 39):
            self._orders = set() if order == 0 else self._orders - COLOURS.keys()
        else:
            self._orders.add(order)

    def _draw_run(self, row, column, text):
        x, y, length = MARGIN + column * WIDTH, MARGIN + row * HEIGHT, len(text) * WIDTH
        ink = next((COLOURS[order] for order in self._orders if order in COLOURS), INK)
        if 7 in self._orders:
            self._pieces.append(f'<rect x="{x:.1f}" y="{y}" width="{length:.1f}" height="{HEIGHT}" fill="{ink}"/>')
            ink = GROUND
        if text.strip():
            how = "".join(f' {name}="{value}"' for order, name, value in (
                (1, "font-weight", "bold"), (2, "opacity", "0.65"), (4, "text-decoration", "underline"))
                          if order in self._orders)
            self._pieces.append(
                f'<text x="{x:.1f}" y="{y + 13}" textLength="{length:.1f}" fill="{ink}"{how} '
                f'xml:space="preserve">{html.escape(text)}</text>')


def draw_top(folder, command):
    top = Terminal(folder, "top", *TOP, command)
    top.wait("q leave")
    top.keys("f", "r")
    time.sleep(5)
    top.keys("Down")
    time.sleep(2)
    with open(f"{PICTURES}/top.svg", "w") as file:
        file.write(Drawing(top.screen("-e"), *TOP).text)
    top.keys("q")


def photograph_page(link):
    options = Options()
    # Hidden scrollbars would take no room, and heads leave it for them.
    for word in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=" + PAGE):
        options.add_argument(word)
    with webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options) as browser:
        browser.get(link + "#table=applications")
        WebDriverWait(browser, PATIENCE_S).until(
            lambda _: len(browser.find_elements(By.CSS_SELECTOR, "#space .row")) > 3)
        time.sleep(3)
        browser.save_screenshot(f"{PICTURES}/page.png")


def main(seconds):
    os.makedirs(PICTURES, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        demo = Terminal(folder, "demo", 200, 50, "scripts/demo page || sleep 5")
        try:
            link = demo.wait(r"http://\S+:\d+/")[0]
            top = demo.wait(r"\S+/avwatch .* top")[0]
            time.sleep(float(seconds))
            draw_top(folder, top)
            photograph_page(link)
        finally:
            demo.keys("C-c")


if __name__ == "__main__":
    main(*sys.argv[1:])
