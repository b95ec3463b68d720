#!/usr/bin/env python3
"""packaging/nt on images that are damaged in one place each: the check names the damage, and the checksum writer mends
what is its own.

    check_image.py IMAGE    a sound image, which is copied
"""
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

PACKAGING = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "nt"
sys.path.insert(0, str(PACKAGING))
import pe  # noqa: E402

IMAGE = None


def put(form, offset, *values):
    return lambda image, data: struct.pack_into(form, data, offset(image), *values)


def swapped_functions(image, data):
    start = image.offset(image.directories[pe.EXCEPTIONS][0])
    data[start:start + 24] = data[start + 12:start + 24] + data[start:start + 12]


def executable_and_writable(image, data):
    offset = image.optional + struct.unpack_from("<H", image.data, image.header + 20)[0] + 36
    flags = image.u32(offset)
    struct.pack_into("<I", data, offset, flags | pe.SECTION_EXECUTE | pe.SECTION_WRITE)


def rename_code(name):
    return put("8s", lambda image: image.optional + struct.unpack_from("<H", image.data, image.header + 20)[0], name)


def directory_size(index):
    return lambda image: image.optional + 112 + 8 * index + 4


def without_flag(flag):
    def damage(image, data):
        struct.pack_into("<H", data, image.optional + 70, image.dll_characteristics & ~flag)
    return damage


# What is done to the image before its checksum is written anew, and what the check says.
DAMAGES = [
    (put("<H", lambda image: image.header + 4, 0x14C), "machine is 0x14c"),
    (put("<H", lambda image: image.optional + 68, 3), "subsystem is 3"),
    (put("<I", lambda image: image.optional + 16, 0), "no entry point"),
    (without_flag(pe.NX_COMPAT), "not marked for no-execute data"),
    (without_flag(pe.DYNAMIC_BASE), "cannot be loaded at another address"),
    (put("<I", directory_size(pe.RELOCATIONS), 0), "no relocations"),
    (executable_and_writable, "is writable and executable"),
    (rename_code(b"PAGEcode"), "section PAGEcode may be paged out"),
    (put("<I", directory_size(pe.DEBUG), 0), "names no PDB"),
    (put("<I", directory_size(pe.EXCEPTIONS), 0), "no unwind data"),
    (swapped_functions, "unwind entries out of order"),
]


def run(script, *arguments):
    return subprocess.run([PACKAGING / script, *arguments], capture_output=True, text=True, check=False)


class DamagedImages(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.copy = pathlib.Path(self.directory.name) / IMAGE.name
        self.copy.write_bytes(IMAGE.read_bytes())

    def tearDown(self):
        self.directory.cleanup()

    def expect(self, complaint, *arguments, path=None):
        result = run("check_image.py", path or self.copy, *arguments)
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        self.assertIn(complaint, result.stderr)
        return result.stderr

    def test_a_copy_is_sound(self):
        self.assertEqual(run("check_image.py", self.copy).returncode, 0)

    def test_each_damage_is_named(self):
        for damage, complaint in DAMAGES:
            with self.subTest(complaint=complaint):
                data = bytearray(IMAGE.read_bytes())
                damage(pe.Image(IMAGE), data)
                self.copy.write_bytes(data)
                self.assertEqual(run("set_checksum.py", self.copy).returncode, 0)
                self.assertNotIn("checksum is ", self.expect(complaint))

    def test_a_checksum_is_of_the_whole_image(self):
        data = bytearray(IMAGE.read_bytes())
        data[-1] ^= 1
        self.copy.write_bytes(data)
        self.expect("checksum is ")

    def test_imports_are_held_to_the_list(self):
        none = pathlib.Path(self.directory.name) / "none.allow"
        none.write_text("# nothing\n")
        self.expect("which is not on the list of allowed imports", "--allow", none)

    def test_the_pdb_has_the_images_name(self):
        other = self.copy.rename(self.copy.with_name("other.sys"))
        self.expect("names its PDB", path=other)

    def test_what_is_no_image_is_refused(self):
        for content in (b"", b"MZ" + bytes(100), bytes(4096)):
            self.copy.write_bytes(content)
            self.assertNotEqual(run("check_image.py", self.copy).returncode, 0)


if __name__ == "__main__":
    IMAGE = pathlib.Path(sys.argv.pop())
    sys.exit(unittest.main())
