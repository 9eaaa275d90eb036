"""kyr view in a headless Chromium: what a user does with the page. Screenshots go to the folder of
the variable KYR_SCREENSHOTS, if it is set."""

import contextlib
import json
import math
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tools"))

from playwright.sync_api import sync_playwright  # noqa: E402

from tool import KYR, ToolTest  # noqa: E402
from view_server import ViewServer  # noqa: E402

CHROMIUM = os.environ.get("KYR_CHROMIUM", "/usr/bin/chromium")
HOSTILE = "<img src=x onerror=document.title='caught'>"


def rows_text(count=20_000):
    lines = ["time,car.speed [m/s],car.torque [N.m],car.gear,brake"]
    for i in range(count):
        t = i / 100
        speed = 20 + 8 * math.sin(t / 9) + (30 if i == 12_345 else 0)
        lines.append(f"{t},{speed},{90 * math.cos(t / 5)},{1 + int(t / 25) % 5},{t % 20 > 14}")
    return "\n".join(lines) + "\n"


class BrowserTest(ToolTest):
    @classmethod
    def setUpClass(cls):
        cls.playwright = sync_playwright().start()
        cls.browser = cls.playwright.chromium.launch(executable_path=CHROMIUM,
                                                     args=["--no-sandbox"])

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        cls.playwright.stop()

    @contextlib.contextmanager
    def page(self, *arguments, size=(1280, 720), anchor="", **options):
        """The page of `kyr view`, which must report no fault."""
        with ViewServer(*arguments, cwd=self.folder, env=self.environment()) as server:
            with self.opened(server.address + anchor, size, **options) as page:
                page.server = server
                yield page

    @contextlib.contextmanager
    def opened(self, address, size=(1280, 720), **options):
        context = self.browser.new_context(
            viewport={"width": size[0], "height": size[1]}, **options)
        page = context.new_page()
        faults = []
        page.on("pageerror", lambda error: faults.append(str(error)))
        page.on("console", lambda message: faults.append(message.text)
                if message.type == "error" else None)
        page.goto(address)
        page.wait_for_selector(".leaf, .note")
        yield page
        self.assertEqual(faults, [])
        context.close()

    def state(self, page):
        """What the address says once it is up to date."""
        page.wait_for_timeout(450)
        return json.loads(page.evaluate("decodeURIComponent(location.hash.slice(1))"))

    def wait_for_end(self, page, end):
        for _ in range(40):
            if self.state(page)["t"][1] == end:
                return
        self.fail(f"the window ends at {self.state(page)['t'][1]} and not at {end}")

    def add(self, page, *names):
        for name in names:
            page.locator(".leaf", has_text=name).first.click()
        page.wait_for_timeout(400)

    def inked(self, page, plot=0):
        """Pixels of a plot that are coloured and no grey."""
        return page.evaluate("""(place) => {
          const canvas = document.querySelectorAll("canvas")[place];
          const {data} = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
          let count = 0;
          for (let i = 0; i < data.length; i += 4) {
            const [low, high] = [Math.min(data[i], data[i + 1], data[i + 2]),
                                 Math.max(data[i], data[i + 1], data[i + 2])];
            if (data[i + 3] > 0 && high - low > 40) ++count;
          }
          return count;
        }""", plot)

    def shoot(self, page, name):
        folder = os.environ.get("KYR_SCREENSHOTS")
        if folder:
            page.screenshot(path=f"{folder}/{name}.png")

    def test_search_add_zoom_and_read(self):
        self.store(rows_text())
        with self.page("rec") as page:
            self.assertEqual(page.locator(".plot").count(), 0)
            page.keyboard.press("/")
            page.keyboard.type("torq")
            self.assertEqual(page.locator(".leaf").count(), 1)
            page.keyboard.press("ArrowDown")
            page.keyboard.press("Enter")
            page.wait_for_timeout(300)
            self.assertGreater(self.inked(page), 500)
            page.locator("#search").fill("")
            self.add(page, "speed", "gear", "brake")
            self.assertEqual(page.locator(".plot").count(), 4)
            for plot in range(4):
                self.assertGreater(self.inked(page, plot), 300, plot)
            box = page.locator("canvas").first.bounding_box()
            page.mouse.move(box["x"] + box["width"] / 2, box["y"] + 30)
            value = page.locator(".plot").first.locator(".value").inner_text()
            self.assertLessEqual(max(abs(float(each)) for each in value.split("…")), 90)
            page.locator("#reading", has_text="car.torque").wait_for(state="attached")
            before = self.state(page)["t"]
            for _ in range(3):
                page.mouse.wheel(0, -300)
            near = self.state(page)["t"]
            self.assertLess(near[1] - near[0], (before[1] - before[0]) / 3)
            page.mouse.down()
            page.mouse.move(box["x"] + box["width"] / 2 + 200, box["y"] + 30)
            page.mouse.up()
            self.assertLess(self.state(page)["t"][0], near[0])
            page.keyboard.press("0")
            self.assertEqual(self.state(page)["t"], before)
            page.keyboard.down("Shift")
            page.mouse.move(box["x"] + 300, box["y"] + 10)
            page.mouse.down()
            page.mouse.move(box["x"] + 500, box["y"] + 15, steps=4)
            page.mouse.up()
            page.keyboard.up("Shift")
            chosen = self.state(page)["t"]
            self.assertGreater(chosen[0], before[0])
            self.assertLess(chosen[1] - chosen[0], (before[1] - before[0]) / 3)
            page.mouse.dblclick(box["x"] + 400, box["y"] + 20)
            self.assertEqual(self.state(page)["t"], before)

    def test_fingers_zoom_and_move(self):
        self.store(rows_text(2000))
        with self.page("rec", "--signal", "car.speed", has_touch=True) as page:
            page.wait_for_timeout(300)
            box = page.locator("canvas").first.bounding_box()
            x, y = box["x"] + 400, box["y"] + 60
            devices = page.context.new_cdp_session(page)

            def touch(kind, *places):
                devices.send("Input.dispatchTouchEvent", {"type": kind, "touchPoints": [
                    {"x": place, "y": y, "id": i} for i, place in enumerate(places)]})

            start, end = self.state(page)["t"]
            touch("touchStart", x, x + 60)
            for i in range(20, 120, 20):
                touch("touchMove", x - i, x + 60 + i)
            touch("touchEnd")
            near = self.state(page)["t"]
            self.assertLess(near[1] - near[0], (end - start) / 3)
            touch("touchStart", x)
            for i in range(20, 120, 20):
                touch("touchMove", x + i)
            touch("touchEnd")
            moved = self.state(page)["t"]
            self.assertLess(moved[0], near[0])
            self.assertAlmostEqual(moved[1] - moved[0], near[1] - near[0])

    def test_a_link_shows_the_same(self):
        self.store(rows_text(2000))
        with self.page("rec") as page:
            self.add(page, "speed", "torque")
            page.get_by_role("button", name="Zoom in").click()
            page.locator(".plot select").first.select_option("points")
            state = self.state(page)
            anchor = page.evaluate("location.hash")
            self.shoot(page, "points")
        self.assertEqual(state["p"][0]["m"], "points")
        with self.page("rec", anchor=anchor) as page:
            self.assertEqual(self.state(page), state)
            self.assertEqual(page.locator(".plot").count(), 2)
        with self.page("rec", anchor="#nonsense%") as page:
            self.assertIn("no view", page.locator("#message").inner_text())

    def test_overlays_recordings(self):
        self.store(rows_text(3000))
        os.rename(self.folder / "rec", self.folder / "before")
        self.store(rows_text(3000).replace("car.torque [N.m]", "car.power [W]"))
        with self.page("before", "rec", "--signal", "car.speed") as page:
            page.wait_for_timeout(400)
            self.assertEqual(page.locator(".legend li").count(), 2)
            page.locator("#runs input").first.uncheck()
            self.assertEqual(page.locator(".legend li").count(), 1)
            page.locator(".leaf", has_text="power").drag_to(page.locator(".plot").first)
            self.assertEqual(page.locator(".plot").count(), 1)
            self.assertEqual(page.locator(".legend li").count(), 2)
            self.assertEqual(len(self.state(page)["p"][0]["s"]), 2)

    def test_draws_elements_of_matrices_and_x_y_plots(self):
        self.odd_recording()
        with self.page("odd") as page:
            matrix = page.evaluate("""async () => {
              const [run] = await (await fetch("runs")).json();
              return run.signals.find((each) => each.elements > 1 && each.rows > 1).name;
            }""")
            self.add(page, matrix)
            page.locator(".legend input").fill("0,1")
            page.locator(".legend input").press("Enter")
            self.assertEqual([s[2] for s in self.state(page)["p"][0]["s"]], [0, 1])
            self.assertEqual(page.locator(".legend li").count(), 2)
            varying = page.evaluate("""async () => {
              const [run] = await (await fetch("runs")).json();
              return run.signals.find((each) => each.category === "variable matrix").name;
            }""")
            self.add(page, varying)
            self.assertEqual(page.locator(".legend input").count(), 3, "no choice of elements")
        self.store(rows_text(2000))
        with self.page("rec", "--signal", "car.speed") as page:
            page.locator(".leaf", has_text="torque").drag_to(page.locator(".plot").first)
            page.get_by_role("button", name="x-y").click()
            page.wait_for_timeout(500)
            self.assertEqual(self.state(page)["p"][0]["x"], 1)
            self.assertGreater(self.inked(page), 500)
            self.shoot(page, "x-y")
        os.rename(self.folder / "rec", self.folder / "other")
        self.store("time,slow\n0,1\n9,2\n")
        self.run_tool("merge", "other", "rec", "both")
        with self.page("both", "--signal", "car.speed") as page:
            page.locator(".leaf", has_text="slow").drag_to(page.locator(".plot").first)
            page.get_by_role("button", name="x-y").click()
            page.locator(".legend", has_text="interpolated").wait_for()

    def test_follows_a_live_recording_and_pauses(self):
        writer = subprocess.Popen([KYR, "record", "-", "live", "--flush-seconds", "0.05"],
                                  stdin=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, text=True, cwd=self.folder)
        self.addCleanup(writer.wait)
        self.addCleanup(writer.stdin.close)

        def write(first, end):
            writer.stdin.write("".join(f"{i},{i % 7}\n" for i in range(first, end)))
            writer.stdin.flush()

        writer.stdin.write("time,speed\n")
        write(0, 10)
        while '"speed"' not in subprocess.run([KYR, "info", "live", "--json"], capture_output=True,
                                              text=True, cwd=self.folder, check=False).stdout:
            self.assertIsNone(writer.poll())
        with self.page("live", "--signal", "speed") as page:
            follow = page.get_by_role("button", name="Follow")
            self.assertEqual(follow.get_attribute("aria-pressed"), "true")
            write(10, 100)
            self.wait_for_end(page, 99)
            follow.click()
            write(100, 200)
            page.wait_for_timeout(1500)
            self.assertEqual(self.state(page)["t"][1], 99)
            follow.click()
            self.wait_for_end(page, 199)
            writer.stdin.close()
            follow.wait_for(state="hidden")

    def test_saves_what_is_seen(self):
        self.store(rows_text(500))
        with self.page("rec", "--signal", "car.gear", "--signal", "car.speed") as page:
            page.wait_for_timeout(400)
            contents = {}
            for name in ("PNG", "SVG", "CSV"):
                with page.expect_download() as download:
                    page.get_by_role("button", name=f"as {name}").click()
                contents[name] = pathlib.Path(download.value.path()).read_bytes()
        self.assertEqual(contents["PNG"][:4], b"\x89PNG")
        self.assertGreater(contents["SVG"].count(b"<path"), 4)
        lines = contents["CSV"].decode().splitlines()
        self.assertEqual(lines[0], "recording,signal,unit,element,time,value")
        self.assertEqual(len(lines), 1001)

    def test_saves_all_rows_or_tells_that_it_does_not(self):
        self.store("time,x\n" + "".join(f"{i},{i % 2}\n" for i in range(1_000_002)))
        with self.page("rec", "--signal", "x") as page:
            page.wait_for_timeout(400)
            for name, lines in [("plot-points.csv", range(100, 20_000)),
                                ("plot.csv", range(500_000, 900_000))]:
                with page.expect_download() as download:
                    page.get_by_role("button", name="as CSV").click()
                self.assertEqual(download.value.suggested_filename, name)
                content = pathlib.Path(download.value.path()).read_text()
                self.assertIn(content.count("\n"), lines)
                page.locator("#message", has_text="1,000,002 rows").wait_for()
                page.get_by_role("button", name="Zoom in").click()

    def test_a_report_needs_no_server(self):
        self.store(rows_text())
        self.run_tool("view", "rec", "--html", "report.html")
        with self.opened((self.folder / "report.html").as_uri()) as page:
            page.wait_for_timeout(300)
            self.assertEqual(page.locator(".plot").count(), 4)
            self.assertGreater(self.inked(page), 500)
            self.shoot(page, "report")

    def test_hostile_names_and_values_do_no_harm(self):
        long_name = HOSTILE + "y" * 65_536
        self.store(f"time,{HOSTILE},{long_name},wild,alone\n"
                   "0,1,2,inf,\n1,2,3,-inf,5\n1,3,4,nan,\n1,4,5,1e308,\n2,5,6,-1e308,\n")
        with self.page("rec") as page:
            for leaf in page.locator(".leaf").all():
                leaf.click()
            page.wait_for_timeout(500)
            self.assertEqual(page.locator(".plot").count(), 4)
            self.assertNotIn("caught", page.title())
            self.assertEqual(page.locator("img").count(), 0)
            self.shoot(page, "hostile")

    def test_fits_small_and_large_screens(self):
        self.store(rows_text())
        for size in ((1280, 720), (2560, 1440), (600, 900)):
            for scheme in ("light", "dark"):
                with self.subTest(size=size, scheme=scheme):
                    with self.page("rec", size=size, color_scheme=scheme) as page:
                        self.add(page, "speed", "gear", "brake")
                        page.locator(".leaf", has_text="torque").drag_to(
                            page.locator(".plot").first)
                        page.wait_for_timeout(500)
                        box = page.locator("canvas").first.bounding_box()
                        page.mouse.move(box["x"] + box["width"] * 0.6, box["y"] + 20)
                        page.wait_for_timeout(100)
                        self.assertLessEqual(
                            page.evaluate("document.documentElement.scrollWidth"), size[0])
                        self.assertGreaterEqual(box["height"], 80)
                        self.shoot(page, f"{size[0]}-{scheme}")

    def test_stays_fluid_while_it_is_dragged(self):
        self.store(rows_text(50_000))
        with self.page("rec", "--signal", "car.speed", "--signal", "car.torque") as page:
            page.wait_for_timeout(500)
            box = page.locator("canvas").first.bounding_box()
            page.evaluate("""() => {
              window.paints = [];
              for (const name of ["clearRect"]) {
                const original = CanvasRenderingContext2D.prototype[name];
                CanvasRenderingContext2D.prototype[name] = function(...all) {
                  const start = performance.now();
                  original.apply(this, all);
                  window.paints.push(start);
                };
              }
            }""")
            page.mouse.move(box["x"] + 500, box["y"] + 40)
            page.mouse.down()
            for i in range(40):
                page.mouse.move(box["x"] + 500 - 4 * i, box["y"] + 40)
            page.mouse.up()
            page.wait_for_timeout(200)
            self.assertGreater(page.evaluate("window.paints.length"), 20)


if __name__ == "__main__":
    unittest.main()
