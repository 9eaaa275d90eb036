"""Power cuts and calls of the system that fail, while recordings are written.

powercut_test.py LIBRARY TAKES KYR SECONDS. LIBRARY is JournaledDisk.cc, TAKES is Takes.cc. A fault
is an acknowledged row that is lost, a row that was never written, a call that fails and leaves
something else than before, or a save that leaves neither the old recording nor the new one.
"""

import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

SECTOR = 512
ERRORS = {"EIO": 5, "ENOSPC": 28, "EINTR": 4}


class File:
    """A file or a folder: what is on the disk, and what was changed since it was synced."""

    def __init__(self, is_folder, content=b""):
        self.is_folder = is_folder
        self.content = bytearray(content)
        self.entries = {}
        self.pending = []


def apply(content, change):
    offset, data = change
    if data is None:
        del content[offset:]
        content.extend(bytes(offset - len(content)))
    else:
        content.extend(bytes(max(0, offset - len(content))))
        content[offset:offset + len(data)] = data


def torn(change, rng):
    """What is left of a write: some of its sectors."""
    offset, data = change
    if data is None:
        return [change]
    bounds = [0] + [b for b in range(SECTOR - offset % SECTOR, len(data), SECTOR)] + [len(data)]
    return [(offset + a, data[a:b]) for a, b in zip(bounds, bounds[1:]) if rng.random() < 0.5]


class Disk:
    """Files as they are on a disk, by the journal of a program that changed them."""

    def __init__(self, root):
        self.numbers = {}  # files by inode, as of now
        self.root = self.load(root)
        self.moves = []  # changes of folders that were not synced, in their order

    def load(self, path):
        file = File(path.is_dir(), b"" if path.is_dir() else path.read_bytes())
        known = self.numbers.setdefault(str(path.stat().st_ino), file)
        if path.is_dir():
            known.entries = {child.name: self.load(child) for child in path.iterdir()}
        return known

    def play(self, operation, arguments, data):
        number = arguments[0]
        if operation in ("write", "cut"):
            if number in self.numbers:
                change = (int(arguments[1]), data if operation == "write" else None)
                self.numbers[number].pending.append(change)
        elif operation == "sync":
            if number in self.numbers:
                self.sync(self.numbers[number])
        elif operation == "create":
            folder, name, inode, kind = arguments
            self.numbers[inode] = File(kind == "folder")
            self.move(("put", self.numbers.get(folder), name, self.numbers[inode]))
        elif operation == "link":
            folder, name, inode = arguments
            self.move(("put", self.numbers.get(folder), name, self.numbers.get(inode)))
        elif operation == "remove":
            self.move(("put", self.numbers.get(number), arguments[1], None))
        else:
            from_folder, name, to_folder, other = arguments
            self.move(
                (operation, self.numbers.get(from_folder), name, self.numbers.get(to_folder), other)
            )

    def move(self, move):
        if move[1] is not None and (move[0] == "put" or move[3] is not None):
            self.moves.append(self.resolved(move))

    def resolved(self, move):
        """What becomes of which entry, as all changes before it left them."""
        if move[0] == "put":
            return [move[1:]]
        operation, folder, name, other_folder, other = move
        now = {}
        for source, entry in ((folder, name), (other_folder, other)):
            now[source, entry] = source.entries.get(entry)
        for changes in self.moves:
            for source, entry, file in changes:
                if (source, entry) in now:
                    now[source, entry] = file
        replaced = now[other_folder, other] if operation == "exchange" else None
        return [(other_folder, other, now[folder, name]), (folder, name, replaced)]

    def sync(self, file):
        for change in file.pending:
            apply(file.content, change)
        file.pending = []
        if file.is_folder:
            for move in self.moves:
                if any(folder is file for folder, _, _ in move):
                    self.commit(move, lambda folder: folder.entries)
            self.moves = [
                move for move in self.moves if all(folder is not file for folder, _, _ in move)
            ]

    @staticmethod
    def commit(move, entries_of):
        for folder, name, file in move:
            if file is None:
                entries_of(folder).pop(name, None)
            else:
                entries_of(folder)[name] = file

    def after_cut(self, target, rng):
        """Writes what a power cut now may leave to the folder `target`."""
        how = rng.choice(("everything", "nothing", "beginning", "any"))
        kept = len(self.moves) if how == "everything" else rng.randint(0, len(self.moves))
        moves = {
            "everything": self.moves, "nothing": [], "beginning": self.moves[:kept],
            "any": [move for move in self.moves if rng.random() < 0.5],
        }[how]
        entries = {}

        def entries_of(folder):
            return entries.setdefault(id(folder), dict(folder.entries))

        for move in moves:
            self.commit(move, entries_of)

        def write(file, path, links):
            if file.is_folder:
                path.mkdir()
                for name, child in entries_of(file).items():
                    write(child, path / name, links)
            elif id(file) in links:
                os.link(links[id(file)], path)
            else:
                content = bytearray(file.content)
                for change in file.pending:
                    chance = rng.random()
                    if how == "everything" or (how != "nothing" and chance < 0.5):
                        apply(content, change)
                    elif how != "nothing" and chance < 0.75:
                        for part in torn(change, rng):
                            apply(content, part)
                path.write_bytes(content)
                links[id(file)] = path

        shutil.rmtree(target, ignore_errors=True)
        write(self.root, target, {})


def operations(journal):
    text, at = journal.read_bytes(), 0
    while at < len(text):
        end = text.index(b"\n", at)
        operation, *arguments = text[at:end].decode().split(" ")
        at, data = end + 1, None
        if operation in ("write", "print"):
            size = int(arguments[-1])
            data, at = text[at:at + size], at + size
        yield operation, arguments, data


class Test:
    def __init__(self, library, takes, kyr, temp):
        self.library, self.takes, self.kyr, self.temp = library, takes, kyr, temp
        self.rng = random.Random(1)
        self.faults, self.cuts, self.calls = [], 0, 0
        self.checker = subprocess.Popen(
            [takes, "check"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self.bases = temp / "bases"
        self.make_bases()

    def run(self, command, root, expect=None, **settings):
        environment = os.environ | {
            "LD_PRELOAD": self.library,
            "KYR_DISK_ROOT": str(root),
            "TMPDIR": str(root / "tmp"),
        }
        environment |= {"KYR_DISK_" + name: str(value) for name, value in settings.items()}
        result = subprocess.run(
            [part.replace("ROOT", str(root)) for part in command],
            env=environment,
            capture_output=True,
            text=True,
            timeout=60,
        )
        if expect is not None and result.returncode not in expect:
            raise RuntimeError(f"{command}: {result.returncode} {result.stdout} {result.stderr}")
        return result

    def check(self, how, folder):
        self.checker.stdin.write(f"{how} {folder}\n")
        self.checker.stdin.flush()
        return self.checker.stdout.readline().strip()

    def base(self, name, source=None):
        folder = self.bases / name
        if source:
            shutil.copytree(self.bases / source, folder)
        else:
            (folder / "tmp").mkdir(parents=True)
        return folder

    def make_bases(self):
        """Folders in which the commands begin. Each holds the folder "rec", but for "nothing"."""
        self.base("nothing")
        old = self.base("old")
        csv = ["time,number"] + [f"{row / 2},{row % 7 + 0.5}" for row in range(40)]
        (self.temp / "new.csv").write_text("\n".join(csv) + "\n")
        (self.temp / "old.csv").write_text("\n".join(csv[:21]) + "\n")
        self.run([self.kyr, "import", str(self.temp / "old.csv"), "ROOT/rec"], old, (0,))
        (old / "rec" / "notes.txt").write_text("mine")
        garbage = self.base("garbage", "old")
        shutil.copy(garbage / "rec/storage/0.parquet", garbage / "rec/storage/77.parquet")
        # What a crash leaves behind the tenth flush, with rows that were not flushed any more.
        journal, live = self.temp / "live.journal", self.base("live")
        disk = Disk(live)
        self.run([self.takes, "live", "ROOT/rec"], live, (0,), JOURNAL=journal)
        changes = list(operations(journal))
        prints = [place for place, (operation, _, _) in enumerate(changes) if operation == "print"]
        tenth = prints[9]
        for operation, arguments, data in changes[:tenth + 6]:
            if operation != "print":
                disk.play(operation, arguments, data)
        everything = random.Random()
        everything.choice = lambda options: "everything"
        disk.after_cut(live, everything)
        damaged = self.base("damaged journal", "live")
        with open(damaged / "rec/recording.journal", "r+b") as file:
            file.seek(-20, os.SEEK_END)
            file.write(b"#")
        bare = self.base("no list", "live")
        (bare / "rec/recording.live.json").unlink()
        batch = self.base("damaged batch", "live")
        grown = min(path for path in (batch / "rec/storage").iterdir() if path.stem.isdigit())
        with open(grown, "r+b") as file:
            file.seek(grown.stat().st_size // 2)
            file.write(b"########")

    def commands(self):
        """Names, the folders in which they begin, and the commands; judge() tells them apart."""
        recover = [self.kyr, "recover", "ROOT/rec"]
        return [
            ("record", "nothing", [self.takes, "live", "ROOT/rec"]),
            ("record restarted", "nothing", [self.takes, "restarted", "ROOT/rec"]),
            ("record unsynced", "nothing", [self.takes, "unsynced", "ROOT/rec"]),
            ("save", "old", [self.takes, "save", "ROOT/rec"]),
            (
                "import",
                "old",
                [self.kyr, "import", str(self.temp / "new.csv"), "ROOT/rec", "--force"],
            ),
            ("gc", "garbage", [self.kyr, "gc", "ROOT/rec", "--stale"]),
            ("recover", "live", recover),
            ("recover", "damaged journal", recover),
            ("recover", "no list", recover),
            ("recover", "damaged batch", recover),
        ]

    def lost(self, folder):
        return sorted(path.read_bytes() for path in (folder / "rec" / "lost").glob("*"))

    def judge(self, name, base, folder, printed, is_done, whole):
        """What is wrong with a folder, if anything is."""
        if name == "record unsynced":
            # Rows may be lost, but none is wrong.
            answer = (
                self.check("recover", folder / "rec") if (folder / "rec").exists() else "refused"
            )
            return None if answer.startswith(("rows", "refused")) else answer
        if name in ("record", "record restarted"):
            acknowledged = [
                int(line.split()[1]) for line in printed if line.startswith("acknowledged")
            ]
            least = acknowledged[-1] if acknowledged else 0
            answer = (
                self.check("recover", folder / "rec") if (folder / "rec").exists() else "refused"
            )
            if answer.startswith("refused") and least == 0:
                return None
            rows = (
                [int(count) for count in answer.split()[1:]] if answer.startswith("rows") else [-1]
            )
            if name == "record restarted" and least >= 18 and len(rows) == 4:
                # The first signal has begun again behind 18 rows: all of that is there, or nothing.
                began_again = min(rows[1:]) >= max(21, least) and rows[0] >= max(3, least - 18)
                if began_again or (least == 18 and min(rows) >= least):
                    return None
            elif min(rows) >= least:
                return None
            return f"{answer}, {least} were acknowledged"
        if name == "recover":
            answer = self.check("recover", folder / "rec")
            if answer != whole[0]:
                return f"{answer}, expected {whole[0]}"
            missing = [len(content) for content in whole[1] if content not in self.lost(folder)]
            return f"files of {missing} bytes are missing in lost" if missing else None
        answer = self.check("read", folder / "rec")
        old, new = (
            "rows 20 0 0 0",
            {"save": "rows 40 40 40 40", "import": "rows 40 0 0 0", "gc": "rows 20 0 0 0"}[name],
        )
        if answer != new and (is_done or answer != old):
            return f"{answer}, which is neither the old recording nor the new one"
        if (folder / "rec/notes.txt").read_text() != "mine":
            return "notes.txt is lost"
        return None

    def uninterrupted(self, name, base, command):
        folder = self.temp / "run"
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(self.bases / base, folder)
        counted = self.temp / "count"
        counted.unlink(missing_ok=True)
        self.run(command, folder, (0, 3), COUNT=counted)
        return int(counted.read_text()), (self.check("read", folder / "rec"), self.lost(folder))

    def cut(self, name, base, command, whole, seconds):
        """Cuts the power at every moment of a command, as long as there is time."""
        folder, journal, target = self.temp / "run", self.temp / "journal", self.temp / "cut"
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(self.bases / base, folder)
        disk_before, end = Disk(folder), time.monotonic() + seconds
        journal.unlink(missing_ok=True)
        self.run(command, folder, (0, 3), JOURNAL=journal)
        changes = list(operations(journal))
        is_first = True
        while time.monotonic() < end:
            disk, printed = disk_before, []
            disk_before = None
            for place, (operation, arguments, data) in enumerate(changes):
                if operation == "print":
                    printed += data.decode().splitlines()
                else:
                    disk.play(operation, arguments, data)
                if operation not in ("sync", "print") and not is_first and self.rng.random() < 0.7:
                    continue
                disk.after_cut(target, self.rng)
                self.cuts += 1
                is_done = place == len(changes) - 1
                fault = self.judge(name, base, target, printed, is_done, whole)
                if fault:
                    self.tell(
                        f"{name} ({base}), cut behind change {place} of {len(changes)} "
                        f"({operation} {' '.join(arguments)}): {fault}"
                    )
                if time.monotonic() > end:
                    break
            is_first = False
            shutil.rmtree(folder, ignore_errors=True)
            shutil.copytree(self.bases / base, folder)
            disk_before = Disk(folder)
            journal.unlink(missing_ok=True)
            self.run(command, folder, (0, 3), JOURNAL=journal)
            changes = list(operations(journal))

    def fail(self, name, base, command, whole, count, seconds):
        """Lets each call of a command fail, in a random order, as long as there is time."""
        folder, end = self.temp / "run", time.monotonic() + seconds
        cases = [(call, error) for call in range(1, count + 1) for error in ERRORS]
        self.rng.shuffle(cases)
        for call, error in cases:
            if time.monotonic() > end:
                return
            shutil.rmtree(folder, ignore_errors=True)
            shutil.copytree(self.bases / base, folder)
            result = self.run(command, folder, FAIL_AT=call, ERROR=ERRORS[error])
            self.calls += 1
            printed = result.stdout.splitlines()
            is_done = result.returncode in (0, 3)
            fault = self.judge(name, base, folder, printed, is_done, whole)
            if result.returncode < 0 or (not is_done and not result.stderr.strip()):
                fault = f"ended with {result.returncode} {result.stderr.strip()}"
            if (
                not fault
                and error == "EINTR"
                and (not is_done or any(l.startswith("failed") for l in printed))
            ):
                fault = (
                    f"an interrupted call was a failure: {result.stdout} {result.stderr}".strip()
                )
            beside = self.beside(folder)
            if not fault and beside:
                self.run([self.kyr, "gc", "ROOT/rec", "--stale"], folder)
                fault = f"{beside} was left for good" if self.beside(folder) else None
            if fault:
                self.tell(f"{name} ({base}), call {call} of {count} fails with {error}: {fault}")

    @staticmethod
    def beside(folder):
        return [path.name for path in folder.iterdir() if path.name not in ("rec", "tmp")]

    def tell(self, fault):
        self.faults.append(fault)
        print(fault, flush=True)


def main():
    library, takes, kyr = (str(pathlib.Path(name).resolve()) for name in sys.argv[1:4])
    seconds = float(sys.argv[4])
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="kyr-powercut-", dir=memory) as temp:
        test = Test(library, takes, kyr, pathlib.Path(temp).resolve())
        commands = test.commands()
        for name, base, command in commands:
            count, whole = test.uninterrupted(name, base, command)
            test.cut(name, base, command, whole, seconds / len(commands) / 2)
            test.fail(name, base, command, whole, count, seconds / len(commands) / 2)
        print(f"{test.cuts} power cuts, {test.calls} calls that failed, {len(test.faults)} faults")
        sys.exit(1 if test.faults else 0)


if __name__ == "__main__":
    main()
