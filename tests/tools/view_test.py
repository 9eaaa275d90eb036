"""kyr view: what the server answers and refuses, and the report; kyr plot."""

import base64
import fcntl
import json
import math
import os
import pathlib
import pty
import re
import shutil
import socket
import struct
import subprocess
import termios
import unittest
import xml.etree.ElementTree as ET

from tool import KYR, ToolTest
from view_server import ViewServer

HOSTILE = "<script>alert(1)</script>\"'&\x1b[31m\x9b31m\u202e"


class ServerTest(ToolTest):
    def serve(self, *arguments):
        return ViewServer(*arguments, cwd=self.folder, env=self.environment())

    def test_answers_envelopes_of_any_window(self):
        rows = [(i / 10, math.sin(i / 7) * (50 if i == 777 else 1)) for i in range(3000)]
        self.store("time,speed [m/s]\n" + "".join(f"{t},{v}\n" for t, v in rows))
        with self.serve("rec") as server:
            run = server.json("runs")[0]
            self.assertEqual((run["name"], run["state"], run["from"], run["to"]),
                             ("rec", "finished", 0, 299.9))
            signal = run["signals"][0]
            self.assertEqual((signal["name"], signal["unit"], signal["kind"], signal["rows"]),
                             ("speed", "m/s", "number", 3000))
            identifier = signal["id"]
            count, points = server.points(0, 299.9, 50, identifier)
            self.assertEqual(count, 3000)
            self.assertLessEqual(len(points), 4 * 50)
            self.assertEqual(max(v for _, v in points), max(v for _, v in rows), "the peak is lost")
            self.assertLessEqual(set(points), set(rows), "points that no row has")
            # A close look shows all rows in the window, and one on each side of it.
            count, points = server.points(10.05, 10.55, 500, identifier)
            self.assertEqual((count, points), (5, rows[100:107]))
            # Between two rows there is the line from one to the other.
            self.assertEqual(server.points(10.01, 10.02, 10, identifier), (0, rows[100:102]))

    def test_shows_all_kinds_of_samples(self):
        self.odd_recording()
        for folder in ("odd", "odd.apart", "odd.hollow"):
            with self.serve(folder) as server:
                run = server.json("runs")[0]
                self.assertTrue(run["signals"])
                for signal in run["signals"]:
                    window = {"run": 0, "id": signal["id"], "from": 0, "to": 10, "columns": 20}
                    status, _, _ = server.ask("spans?" + "&".join(
                        f"{name}={value}" for name, value in window.items()))
                    self.assertIn(status, (200, 400), signal)
                self.assertEqual(server.ask()[0], 200, "the server is gone")

    def test_overlays_recordings_and_pairs_signals(self):
        self.store("time,x,y\n0,1,5\n1,2,6\n2,3,7\n")
        os.rename(self.folder / "rec", self.folder / "before")
        self.store("time,x,on\n0,4,true\n1,5,true\n3,6,false\n")
        with self.serve("before", "rec") as server:
            before, after = server.json("runs")
            self.assertEqual([before["name"], after["name"]], ["before", "rec"])
            ids = {signal["name"]: signal["id"] for signal in before["signals"]}
            window = {"from": 0, "to": 2, "columns": 100}
            pairs = server.numbers("pairs", run=0, id=ids["x"], y=ids["y"], **window)
            self.assertEqual(pairs, (3, 0, 1, 5, 2, 6, 3, 7))
            window["columns"] = 2
            few = server.numbers("pairs", run=0, id=ids["x"], y=ids["y"], **window)
            self.assertEqual(few, (3, 0, 1, 5, 3, 7))
            flag = next(each for each in after["signals"] if each["name"] == "on")
            self.assertEqual(flag["kind"], "boolean")
            spans = server.json("spans", run=1, id=flag["id"], to=3, columns=100, **{"from": 0})
            self.assertEqual([(s["from"], s["to"], s["value"]) for s in spans],
                             [(0, 3, 1), (3, 3, 0)])

    def test_pairs_signals_with_different_times(self):
        self.store("time,fine\n" + "".join(f"{i},{i * i}\n" for i in range(7)))
        os.rename(self.folder / "rec", self.folder / "a")
        self.store("time,coarse,step,note\n1,10,1,x\n5,50,2,y\n", "--type", "step=int32",
                   "--type", "coarse=double")
        self.run_tool("merge", "a", "rec", "both")
        nan = math.nan
        with self.serve("both") as server:
            ids = {each["name"]: each["id"] for each in server.json("runs")[0]["signals"]}
            for x, y, window, expected in [
                    ("coarse", "fine", (0, 6), [(nan, 0), (10, 1), (20, 4), (30, 9), (40, 16),
                                                (50, 25), (nan, 36)]),
                    ("fine", "step", (0, 6), [(0, nan), (1, 1), (4, 1), (9, 1), (16, 1), (25, 2),
                                              (36, nan)]),
                    ("fine", "coarse", (2, 4), [(4, 20), (9, 30), (16, 40)]),
                    ("fine", "coarse", (2.1, 2.9), []),
                    ("fine", "coarse", (7, 9), [])]:
                with self.subTest(x=x, y=y, window=window):
                    numbers = server.numbers("pairs", run=0, id=ids[x], y=ids[y], columns=100,
                                             to=window[1], **{"from": window[0]})
                    self.assertEqual(numbers[:2], (len(expected), 1))
                    self.assertEqual(str(list(zip(numbers[2::2], numbers[3::2]))),
                                     str([(float(a), float(b)) for a, b in expected]))
            path = f"pairs?run=0&id={ids['fine']}&y={ids['note']}&from=0&to=6&columns=9"
            self.assertEqual(server.ask(path)[0], 400)

    def test_hands_out_all_rows_of_a_window_where_they_are_few(self):
        self.store("time,on\n" + "".join(f"{i},{i % 3 == 0}\n" for i in range(1_000_001)))
        with self.serve("rec") as server:
            def rows(start, end):
                return server.numbers("rows", run=0, id=0, to=end, **{"from": start})
            self.assertEqual(rows(1.5, 3), (2, 2, 0, 3, 1))
            self.assertEqual(len(rows(1, 1e9)), 1 + 2 * 1_000_000)
            self.assertEqual(rows(0, math.inf), (1_000_001,), "too many are handed out")

    def test_follows_a_live_recording(self):
        writer = subprocess.Popen([KYR, "record", "-", "live", "--flush-seconds", "0.05"],
                                  stdin=subprocess.PIPE, text=True, cwd=self.folder,
                                  env=self.environment())
        self.addCleanup(writer.wait)
        self.addCleanup(writer.stdin.close)

        def write(*lines):
            writer.stdin.write("".join(line + "\n" for line in lines))
            writer.stdin.flush()

        write("time,speed", "0,1", "1,2")
        while not (self.folder / "live").exists() or "speed" not in self.run_any("info", "live"):
            self.assertIsNone(writer.poll())
        shutil.copytree(self.folder / "live", self.folder / "lost")
        with self.serve("live", "lost") as server:
            shutil.rmtree(self.folder / "lost")
            def wait_for(end):
                while server.json("states")[0].get("to") != end:
                    self.assertIsNone(writer.poll())
            wait_for(1)
            self.assertEqual(server.json("runs")[0]["state"], "live")
            identifier = server.json("runs")[0]["signals"][0]["id"]
            revision = server.json("states")[0]["revision"]
            write("2,9")
            wait_for(2)
            self.assertGreater(server.json("states")[0]["revision"], revision)
            self.assertEqual(server.points(0, 5, 100, identifier), (3, [(0, 1), (1, 2), (2, 9)]))
            writer.stdin.close()
            writer.wait()
            self.assertEqual(server.json("states")[0]["state"], "finished")
            self.assertEqual(server.points(0, 5, 100, identifier)[0], 3)

    def run_any(self, *arguments):
        return subprocess.run([KYR, *arguments], capture_output=True, text=True, check=False,
                              cwd=self.folder).stdout

    def test_refuses_all_but_its_own_page(self):
        self.store("time,x\n0,1\n")
        with self.serve("rec") as server:
            own = f"127.0.0.1:{server.port}"
            for name, expected, question in [
                ("the page", 200, {}),
                ("a tunnel", 200, {"headers": {"Host": "localhost:9000"}}),
                (
                    "its own script",
                    200,
                    {
                        "headers": {
                            "Host": own,
                            "Origin": f"http://{own}",
                            "Sec-Fetch-Site": "same-origin",
                        }
                    },
                ),
                ("HEAD", 200, {"method": "HEAD"}),
                ("no token", 403, {"token": ""}),
                ("another token", 403, {"token": "0" * 32}),
                ("another host", 403, {"headers": {"Host": "evil.example"}}),
                ("a host that begins alike", 403, {"headers": {"Host": "127.0.0.1.evil.example"}}),
                ("another page", 403, {"headers": {"Origin": "https://evil.example"}}),
                ("another port's page", 403, {"headers": {"Origin": "http://127.0.0.1:1"}}),
                ("no origin", 403, {"headers": {"Origin": "null"}}),
                ("a picture elsewhere", 403, {"headers": {"Sec-Fetch-Site": "cross-site"}}),
                ("POST", 405, {"method": "POST"}),
                ("content", 400, {"body": b"x"}),
                ("a file of the disk", 404, {"path": "../../../etc/passwd"}),
                ("an encoded one", 404, {"path": "%2e%2e%2f%2e%2e%2fetc%2fpasswd"}),
                ("a broken escape", 400, {"path": "%zz"}),
                ("a repeated part", 400, {"path": "points?id=0&id=1"}),
                ("no window", 400, {"path": "points?run=0&id=0"}),
                ("no such run", 400, {"path": "points?run=9&id=0&from=0&to=1&columns=9"}),
                ("no such signal", 400, {"path": "points?run=0&id=77&from=0&to=1&columns=9"}),
                (
                    "too many columns",
                    400,
                    {"path": "points?run=0&id=0&from=0&to=1&columns=99999999"},
                ),
                ("an endless window", 400, {"path": "points?run=0&id=0&from=0&to=inf&columns=9"}),
                ("NaN", 400, {"path": "points?run=0&id=0&from=nan&to=1&columns=9"}),
                ("a long path", 400, {"path": "x" * 20_000}),
            ]:
                with self.subTest(name):
                    self.assertEqual(server.ask(**question)[0], expected)

    def test_sends_a_strict_policy_with_each_answer(self):
        self.store("time,x\n0,1\n")
        with self.serve("rec") as server:
            for path in ("", "runs", "main.js", "nothing"):
                _, headers, _ = server.ask(path)
                policy = headers["Content-Security-Policy"]
                self.assertIn("default-src 'none'", policy)
                self.assertNotIn("unsafe", policy)
                self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
                self.assertEqual(headers["Referrer-Policy"], "no-referrer")
                self.assertNotIn("Access-Control-Allow-Origin", headers)
            page = server.get("").decode()
            for part in re.findall(r'(?:src|href)="([^"]*)"', page):
                self.assertNotIn("//", part, "the page loads something from elsewhere")

    def test_outlives_clients_that_misbehave(self):
        self.store("time,x\n0,1\n")
        with self.serve("rec") as server:
            for text in (b"", b"\r\n\r\n", b"GET\r\n\r\n", b"GET / HTTP/1.1\r\nbroken\r\n\r\n",
                         b"\x16\x03\x01\x02", b"GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n",
                         b"A" * 40_000):
                with socket.create_connection(("127.0.0.1", server.port)) as client:
                    try:
                        client.sendall(text)
                        client.shutdown(socket.SHUT_WR)
                        answer = client.recv(100)
                        self.assertTrue(not answer or b" 40" in answer, answer)
                    except OSError:
                        pass  # refused before it had sent all
            idle = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(40)]
            for client in idle[-10:]:
                client.sendall(b"GET /")
            self.assertEqual(server.ask()[0], 200, "strangers keep the page waiting")
            for client in idle:
                client.close()
            with socket.create_connection(("127.0.0.1", server.port)) as client:
                request = (
                    f"GET /{server.token}/ticks.js HTTP/1.1\r\nHost: localhost\r\n\r\n".encode()
                )
                client.sendall(request + request)
                answers = b""
                while answers.count(b"export function tickText") < 2:
                    answers += client.recv(65_536)

    def test_listens_to_this_machine_only(self):
        self.store("time,x\n0,1\n")
        with self.serve("rec") as server:
            listening = pathlib.Path("/proc/net/tcp").read_text().splitlines()
            ours = [
                line.split()[1]
                for line in listening
                if f":{server.port:04X} " in line.split()[1] + " "
            ]
            self.assertIn(f"0100007F:{server.port:04X}", ours)
            self.assertNotIn(f"00000000:{server.port:04X}", ours)
            self.fails("view", "rec", "--no-open", "--port", str(server.port),
                       says=["127.0.0.1", "in use"])

    def test_says_what_is_wrong_before_it_serves(self):
        self.store("time,x\n0,1\n")
        self.fails("view", "nothing", says=["nothing"])
        self.fails("view", "rec", "--signal", "y", says=['"y"'])
        self.fails("view", "rec", "--port", "70000", says=["70000", "65535"], exit_code=2)
        self.fails("view", "rec", "--no-open", "--html", "a.html", says=["--html"], exit_code=2)


class ReportTest(ToolTest):
    def data(self, name="report.html"):
        page = (self.folder / name).read_text()
        return json.loads(re.search(r'id="data">(.*?)</script>', page, re.S)[1])

    def test_holds_the_page_and_its_data_in_a_bounded_file(self):
        self.store("time,a,on\n" + "".join(f"{i},{i % 97},{i % 2 == 0}\n" for i in range(20_000)))
        self.run_tool("view", "rec", "--html", "report.html")
        page = (self.folder / "report.html").read_text()
        self.assertNotRegex(page, r'(src|href)="(?!data:)')
        self.assertNotRegex(page, r"(?m)^(import|export) ")
        self.assertLess(len(page), 250_000)
        data = self.data()
        self.assertEqual(data["runs"][0]["open"], ["a", "on"])
        self.assertLess(len(next(iter(data["points"].values()))["points"]), 43_000)
        self.fails("view", "rec", "--html", "report.html", says=["report.html"], exit_code=1)
        self.run_tool("view", "rec", "--signal", "on", "--html", "report.html", "--force")
        self.assertEqual([each["name"] for each in self.data()["runs"][0]["signals"]], ["on"])

    def test_hostile_names_are_nothing_but_text(self):
        name = HOSTILE + "x" * 65_536
        quoted = '"' + name.replace('"', '""') + '"'
        self.store(f"time,{quoted}\n0,1\n1,nan\n2,inf\n3,-inf\n4,1e308\n5,-1e308\n")
        stored = self.info()["signals"][0]["name"]
        self.run_tool("view", "rec", "--html", "report.html")
        page = (self.folder / "report.html").read_text()
        self.assertNotIn("<script>alert", page)
        stored_points = next(iter(self.data()["points"].values()))
        self.assertTrue(stored_points["wide"])
        numbers = struct.unpack("=12d", base64.b64decode(stored_points["points"]))
        self.assertEqual(numbers[5:12:2], (math.inf, -math.inf, 1e308, -1e308))
        self.assertEqual(self.data()["runs"][0]["signals"][0]["name"], stored)
        self.run_tool("plot", "rec", "0", "-o", "plot.svg")
        svg = ET.parse(self.folder / "plot.svg").getroot()
        self.assertFalse(svg.findall(".//{*}script"))
        self.assertTrue(any("<script>" in (each.text or "") for each in svg.findall(".//{*}text")))
        self.assertFalse(set("\x1b\x9b\u202e") & set(self.run_tool("plot", "rec", "0").stdout))
        self.assertFalse(set("\x1b\x9b\u202e") & set(self.run_tool("info", "rec").stdout))
        with ViewServer("rec", cwd=self.folder) as server:
            self.assertEqual(server.json("runs")[0]["signals"][0]["name"], stored)
            count, points = server.points(0, 5, 100)
            self.assertEqual(count, 6)
            self.assertEqual(points[2], (2, math.inf))


class PlotTest(ToolTest):
    def dots(self, text):
        return sum(bin(ord(c) - 0x2800).count("1") for c in text if 0x2800 <= ord(c) < 0x2900)

    def in_terminal(self, columns, rows, *arguments):
        near, far = pty.openpty()
        try:
            fcntl.ioctl(far, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            subprocess.run([KYR, *arguments], stdout=far, cwd=self.folder, timeout=20, check=True)
            return os.read(near, 65_536).decode()
        finally:
            os.close(near)
            os.close(far)

    def test_draws_in_the_terminal(self):
        self.store("time,up [m],down [m],flat [V]\n" +
                   "".join(f"{i},{i},{99 - i},7\n" for i in range(100)))
        text = self.run_tool("plot", "rec", "up").stdout
        columns = [max(i for i, c in enumerate(row) if "\u2800" < c <= "\u28ff")
                   for row in text.splitlines() if self.dots(row)]
        self.assertEqual(columns, sorted(columns, reverse=True), "the line does not rise")
        self.assertLessEqual(max(map(len, text.splitlines())), 80)
        both = self.run_tool("plot", "rec", "up", "down").stdout
        self.assertGreater(self.dots(both), self.dots(text) * 1.3)
        self.assertIn("flat [V]", self.run_tool("plot", "rec", "up", "flat").stdout)
        self.assertNotIn("\x1b", both, "colours without a terminal")

    def test_draws_what_there_is_of_odd_signals(self):
        for name, text, dots in [("one sample", "time,x\n3,5\n", 1),
                                 ("equal times", "time,x\n3,5\n3,6\n3,7\n", 1),
                                 ("NaN between", "time,x\n0,1\n1,nan\n2,1\n", 2),
                                 ("infinities", "time,x\n0,inf\n1,2\n2,-inf\n", 1)]:
            with self.subTest(name):
                self.store(text)
                self.assertGreaterEqual(self.dots(self.run_tool("plot", "rec", "x").stdout), dots)
        # Numbers so close to each other, or so far, that steps between ticks are none.
        for name, text in [("neighbours", "0,1e17\n1,100000000000000016\n"),
                           ("late times", "1.7e18,1\n1.7000000000000003e18,2\n"),
                           ("largest", "0,-1.7e308\n1,1.7e308\n"),
                           ("least", "0,0\n5e-324,5e-324\n"),
                           ("far", "1e300,1\n")]:
            with self.subTest(name):
                self.store("time,x\n" + text)
                self.assertGreaterEqual(self.dots(self.run_tool("plot", "rec", "x").stdout), 1)
                self.assertGreaterEqual(self.dots(self.in_terminal(5, 3, "plot", "rec", "x")), 1)
        self.store("time,x\n0,1\n1,nan\n2,1\n")
        self.assertEqual(self.dots(self.run_tool("plot", "rec", "x").stdout), 2,
                         "the line goes on over NaN")
        self.store("time,x,note\n")
        self.fails("plot", "rec", "x", says=["no rows"])
        self.fails("plot", "rec", "y", says=['"y"'])

    def test_draws_text_as_bands(self):
        self.store("time,x [m],note\n0,1,idle\n5,2,<b>run\uffff</b>\n10,3,end\n")
        rows = self.run_tool("plot", "rec", "x", "note").stdout.splitlines()
        band = next(row for row in rows if "idle" in row)
        self.assertLess(band.index("▏idle"), band.index("▏<b>run"))
        self.assertAlmostEqual(band.index("▏<b>run") - 12, 34, delta=2)
        self.assertEqual(len(self.run_tool("plot", "rec", "note").stdout.splitlines()), 3)
        self.run_tool("plot", "rec", "note", "-o", "plot.svg")
        svg = ET.parse(self.folder / "plot.svg").getroot()
        texts = [each.text for each in svg.findall(".//{*}text")]
        self.assertIn("<b>run\ufffd</b>", texts)
        self.assertEqual(len(svg.findall("{*}rect")), 1 + 3)

    def test_writes_svg_files(self):
        self.store("time,x [m],on\n" + "".join(f"{i},{i % 10}.5,{i % 2 == 1}\n" for i in range(50)))
        self.run_tool("plot", "rec", "x", "on", "--from", "10", "--to", "20", "-o", "plot.svg")
        svg = ET.parse(self.folder / "plot.svg").getroot()
        curves = [each.get("d") for each in svg.findall(".//{*}g/{*}path")]
        self.assertEqual(len(curves), 2)
        self.assertEqual(curves[0].count("L"), 12, "11 rows and one on each side")
        self.assertIn("V", curves[1], "truth values are no steps")
        self.fails("plot", "rec", "x", "-o", "plot.svg", says=["plot.svg"])


if __name__ == "__main__":
    unittest.main()
