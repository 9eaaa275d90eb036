"""Damaged recordings: kyr verify names every fault."""

import unittest

from tool import ToolTest


class Verify(ToolTest):
    def setUp(self):
        super().setUp()
        self.store("time,a,b\n0,1,0.5\n1,2,1.5\n")
        self.storage = self.folder / "rec" / "storage"

    def faults(self):
        return self.run_tool("verify", "rec", expect=1).stdout.splitlines()

    def test_sound(self):
        self.assertEqual(
            self.run_tool("verify", "rec").stdout, "rec: sound, 2 signals in 3 files\n"
        )

    def test_a_flipped_bit_anywhere(self):
        for file in sorted(self.storage.iterdir()):
            content = file.read_bytes()
            for position in range(0, len(content), 11):
                with self.subTest(file=file.name, position=position):
                    damaged = bytearray(content)
                    damaged[position] ^= 1 << (position % 8)
                    file.write_bytes(damaged)
                    self.assertEqual([line.split(":")[0] for line in self.faults()],
                                     [f"storage/{file.name}"])
                    if position % 3 == 0:
                        self.fails("cat", "rec", says=[f"storage/{file.name}"])
            file.write_bytes(content)
        self.run_tool("verify", "rec")

    def test_a_flipped_bit_in_the_description(self):
        file = self.folder / "rec" / "recording.json"
        content = file.read_bytes()
        # Blanks between the members may change, because they mean nothing.
        for position in [i for i, c in enumerate(content) if chr(c) not in " \n"][::29]:
            damaged = bytearray(content)
            damaged[position] ^= 1
            file.write_bytes(damaged)
            with self.subTest(position=position):
                for command in ("verify", "info", "cat"):
                    self.fails(command, "rec", says=["recording.json"])

    def test_files_missing_cut_short_and_unknown(self):
        first, second, third = sorted(self.storage.iterdir())
        first.unlink()
        second.write_bytes(second.read_bytes()[:-1])
        (self.storage / "stranger").touch()
        faults = self.faults()
        self.assertEqual(len(faults), 3)
        for fault, file in zip(sorted(faults), (first.name, second.name, "stranger")):
            self.assertTrue(fault.startswith(f"storage/{file}: "), fault)

    def test_samples_that_do_not_match(self):
        self.odd_recording()
        self.assertIn('"uneven"', self.run_tool("verify", "odd", expect=1).stdout)

    def test_no_recording(self):
        (self.folder / "other").mkdir()
        for folder in ("other", "missing"):
            for command in ("verify", "info", "cat"):
                self.fails(command, folder, says=[folder])


if __name__ == "__main__":
    unittest.main()
