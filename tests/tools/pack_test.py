"""Packed recordings, which look like any other."""

import unittest

from tool import ToolTest

TABLE = "time,a,b,c\n" + "".join(f"{i},{i * 3},{i / 8},{7 if i % 5 else ''}\n" for i in range(40))


class Pack(ToolTest):
    def setUp(self):
        super().setUp()
        self.store(TABLE)
        (self.folder / "rec").rename(self.folder / "plain")
        self.stored = self.store(TABLE, "--pack").stdout
        self.storage = self.folder / "rec" / "storage"

    def test_commands_do_not_tell_the_difference(self):
        self.assertEqual(self.cat(), self.cat(recording="plain"))
        self.assertEqual(self.cat("b", "--from", 3, "--to", 5),
                         self.cat("b", "--from", 3, "--to", 5, recording="plain"))
        for options in (("a", "b"), ("--long",), ("--resample", "0.5")):
            texts = []
            for recording in ("rec", "plain"):
                self.run_tool("export", recording, f"{recording}.csv", *options, "--force")
                texts.append((self.folder / f"{recording}.csv").read_text())
            self.assertEqual(*texts)
        self.assertEqual(self.run_tool("recover", "rec").stdout.count("lost"), 0)
        self.run_tool("verify", "rec")

    def test_info_and_gc_know_packs(self):
        names = {path.name for path in self.storage.iterdir()}
        self.assertEqual(names, {"pack-0.parquet", "pack-1.parquet"})  # int64 and double
        for text in (self.stored, self.run_tool("info", "rec").stdout):
            self.assertIn("3 signals in 2 files", text)
            self.assertIn("5 small contents in 2 packs", text)
        info = self.info()
        self.assertEqual(info["totals"]["bytes"],
                         sum(path.stat().st_size for path in self.storage.iterdir()))
        self.assertEqual({file["pack"] for file in info["files"]}, {0, 1})
        (self.storage / "pack-9.parquet").write_text("stray")
        self.run_tool("gc", "rec")
        self.assertEqual({path.name for path in self.storage.iterdir()}, names)

    def test_only_contents_below_the_limit(self):
        self.store(TABLE, "--pack=300")  # 300 bytes hold 32 of the 40 values
        self.assertIn("pack-0.parquet", {path.name for path in self.storage.iterdir()})
        self.assertEqual(len(list(self.storage.iterdir())), 5)
        self.assertEqual(self.cat(), self.cat(recording="plain"))

    def test_damage(self):
        pack = self.storage / "pack-1.parquet"
        pack.write_bytes(pack.read_bytes()[:-1])
        self.assertIn("storage/pack-1.parquet: ", self.run_tool("verify", "rec", expect=1).stdout)
        for command in (("cat", "rec"), ("export", "rec", "out.csv", "--long"), ("recover", "rec")):
            self.fails(*command, says=["pack-1.parquet"])
        (self.folder / "rec" / "recording.json").write_text("{")
        self.fails("recover", "rec", says=["packed", 'the column "storage"'])


if __name__ == "__main__":
    unittest.main()
