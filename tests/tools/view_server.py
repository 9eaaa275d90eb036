"""Runs `kyr view` for tests."""

import http.client
import json
import re
import select
import signal
import struct
import subprocess
import urllib.parse

from tool import KYR


class ViewServer:
    """`kyr view` of some recordings, until the with block ends."""

    def __init__(self, *arguments, **options):
        self.process = subprocess.Popen([KYR, "view", "--no-open", *map(str, arguments)],
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        **options)
        readable, _, _ = select.select([self.process.stdout], [], [], 30)
        self.address = self.process.stdout.readline().strip() if readable else ""
        match = re.fullmatch(r"http://127\.0\.0\.1:(\d+)/([0-9a-f]{32})/", self.address)
        if not match:
            self.process.kill()
            raise AssertionError(f"no address: {self.address}{self.process.communicate()[1]}")
        self.port, self.token = int(match[1]), match[2]

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=20)
        assert self.process.returncode == 0, self.process.returncode

    def ask(self, path="", method="GET", headers=None, token=None, body=None):
        """Status, headers and body of an answer."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        connection.request(method, f"/{self.token if token is None else token}/{path}", body=body,
                           headers=headers or {})
        answer = connection.getresponse()
        content = answer.read()
        connection.close()
        return answer.status, answer.headers, content

    def get(self, path, **query):
        """The body of an answer, which must be there."""
        if query:
            path += "?" + urllib.parse.urlencode(query)
        status, _, content = self.ask(path)
        assert status == 200, (path, status, content)
        return content

    def json(self, path, **query):
        return json.loads(self.get(path, **query))

    def numbers(self, path, **query):
        content = self.get(path, **query)
        return struct.unpack(f"={len(content) // 8}d", content)

    def points(self, start, end, columns, identifier=0, run=0, element=0):
        """The number of rows, and pairs of time and value."""
        numbers = self.numbers("points", run=run, id=identifier, element=element, to=end,
                               columns=columns, **{"from": start})
        return numbers[0], list(zip(numbers[2::2], numbers[3::2]))
