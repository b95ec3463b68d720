#!/usr/bin/python3
"""What the kernel images are delivered with, read by tools that know nothing of this project: versions, INFs as registry
values in a hive, signatures, the store of symbols.

    nt_delivery.py BUILD VERSION    a finished build of preset nt, and the project's version

The interpreter is named by its path, because pefile is a package of the system's own.
"""
import configparser
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

import pefile

PACKAGING = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "nt"
BUILD = None
VERSION = None
NAMES = ("gvnd", "gvmemfs")


def run(*command, refuses=False):
    done = subprocess.run([str(word) for word in command], text=True, capture_output=True, check=False)
    if (done.returncode != 0) != refuses:
        raise AssertionError(f"{command} ended with {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout + done.stderr


def read_inf(name):
    parser = configparser.ConfigParser(delimiters=("=",), comment_prefixes=(";",), allow_no_value=True, strict=True,
                                       interpolation=None)
    parser.optionxform = str
    parser.read_string((BUILD / f"{name}.inf").read_text(encoding="ascii"))
    return parser


def empty_hive():
    """A registry hive with a root key and its security descriptor, and nothing else: hivex makes none from nothing."""
    def cell(data):
        padded = data + bytes(-(len(data) + 4) % 8)
        return struct.pack("<i", -(len(padded) + 4)) + padded

    none = 0xFFFFFFFF
    name = b"ROOT"
    descriptor = struct.pack("<BBHIIII", 1, 0, 0x8000, 0, 0, 0, 0)
    root_size = len(cell(bytes(76) + name))
    root = struct.pack("<2sHq11I", b"nk", 0x2C, 0, 0, 0, 0, 0, none, none, 0, none, 0x20 + root_size, none, 0)
    root += struct.pack("<IIIIHH", 0, 0, 0, 0, len(name), 0) + name
    security = struct.pack("<2sHIIII", b"sk", 0, 0x20 + root_size, 0x20 + root_size, 1, len(descriptor)) + descriptor
    cells = cell(root) + cell(security)
    left = 4096 - 32 - len(cells)
    bin_ = struct.pack("<4sIIIIqI", b"hbin", 0, 4096, 0, 0, 0, 0) + cells + struct.pack("<i", left) + bytes(left - 4)
    header = struct.pack("<4sIIqIIIIIII", b"regf", 1, 1, 0, 1, 5, 0, 1, 0x20, 4096, 1).ljust(508, b"\0")
    checksum = 0
    for word in struct.unpack("<127I", header):
        checksum ^= word
    return (header + struct.pack("<I", checksum)).ljust(4096, b"\0") + bin_


class Delivery(unittest.TestCase):
    def setUp(self):
        self.work = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.work)

    def test_images_tell_their_version(self):
        for name in NAMES:
            image = pefile.PE(BUILD / f"{name}.sys")
            fixed = image.VS_FIXEDFILEINFO[0]
            numbers = (fixed.FileVersionMS >> 16, fixed.FileVersionMS & 0xFFFF,
                       fixed.FileVersionLS >> 16, fixed.FileVersionLS & 0xFFFF)
            self.assertEqual(".".join(map(str, numbers)), VERSION + ".0")
            self.assertEqual((fixed.ProductVersionMS, fixed.ProductVersionLS), (fixed.FileVersionMS, fixed.FileVersionLS))
            self.assertEqual(fixed.FileType, 3)
            strings = {key.decode(): value.decode() for info in image.FileInfo[0] if info.Key == b"StringFileInfo"
                       for table in info.StringTable for key, value in table.entries.items()}
            self.assertEqual(strings["FileVersion"], VERSION + ".0")
            self.assertEqual(strings["OriginalFilename"], f"{name}.sys")
            self.assertTrue(strings["FileDescription"])
            self.assertTrue(image.verify_checksum())

    def test_infs_name_what_is_there(self):
        for name in NAMES:
            inf = read_inf(name)
            text = (BUILD / f"{name}.inf").read_bytes()
            self.assertEqual(text.count(b"\n"), text.count(b"\r\n"))
            self.assertNotIn(b"@", text)
            self.assertEqual(inf["Version"]["DriverVer"].split(",")[1], VERSION + ".0")
            self.assertEqual(inf["Version"]["CatalogFile"], f"{name}.cat")
            copied = list(inf[inf["DefaultInstall.NTamd64"]["CopyFiles"]])
            self.assertEqual(copied, [f"{name}.sys"])
            self.assertEqual(copied, list(inf[inf["DefaultUninstall.NTamd64"]["DelFiles"]]))
            self.assertEqual(copied, list(inf["SourceDisksFiles"]))
            for file in copied:
                self.assertTrue((BUILD / file).exists())
            self.assertEqual(inf["DefaultUninstall.NTamd64.Services"]["DelService"], f"{name},0x200")

    # The values go through a hive that another library makes of the registry file.
    def test_infs_become_services(self):
        hive = self.work / "SYSTEM"
        hive.write_bytes(empty_hive())
        prefix = r"HKEY_LOCAL_MACHINE\SYSTEM"
        base = "\n".join(("Windows Registry Editor Version 5.00", "", rf"[{prefix}\ControlSet001]", "",
                          rf"[{prefix}\ControlSet001\Services]", ""))
        (self.work / "base.reg").write_text(base)
        run("hivexregedit", "--merge", "--prefix", prefix, hive, self.work / "base.reg")
        for name in NAMES:
            reg = run(PACKAGING / "inf_to_reg.py", "--control-set", 1, BUILD / f"{name}.inf")
            (self.work / f"{name}.reg").write_text(reg)
            run("hivexregedit", "--merge", "--prefix", prefix, hive, self.work / f"{name}.reg")
        gvnd = self.values(hive, "gvnd")
        self.assertEqual(gvnd, {
            "Type": "dword:00000002", "Start": "dword:00000003", "ErrorControl": "dword:00000001",
            "ImagePath": r"2:\SystemRoot\System32\drivers\gvnd.sys", "Group": "1:File System",
            "DisplayName": "1:gvnd file system", "Description": "1:File system whose storage is a plugin's",
            "NumVcbWorkers": "dword:00000010"})
        gvmemfs = self.values(hive, "gvmemfs")
        self.assertEqual(gvmemfs, {
            "Type": "dword:00000001", "Start": "dword:00000003", "ErrorControl": "dword:00000001",
            "ImagePath": r"2:\SystemRoot\System32\drivers\gvmemfs.sys", "DependOnService": "7:gvnd",
            "DisplayName": "1:gvmemfs volume", "Description": "1:File system in memory, a plugin of gvnd",
            "LinkName": r"1:\??\gvmemfs", "Sddl": "1:D:P(A;;GA;;;SY)(A;;GA;;;BA)",
            "Arguments": "1:capacity=1G,label=Memory"})
        # A setting that the image does not ask for by this name would be none.
        for name, settings in (("gvnd", ("NumVcbWorkers",)), ("gvmemfs", ("LinkName", "Sddl", "Arguments"))):
            image = (BUILD / f"{name}.sys").read_bytes()
            for setting in settings:
                self.assertIn((setting + "\0").encode("utf-16-le"), image)

    def values(self, hive, service):
        text = run("hivexregedit", "--export", hive, rf"\ControlSet001\Services\{service}")
        values = {}
        for line in text.splitlines():
            if line.startswith('"'):
                name, _, data = line[1:].partition('"=')
                values[name] = self.plain(data)
        return values

    @staticmethod
    def plain(data):
        """A number as it stands, a text with its type in front."""
        if not data.startswith("hex("):
            return data
        kind, _, octets = data[4:].partition("):")
        return f"{kind}:" + bytes.fromhex(octets.replace(",", "")).decode("utf-16-le").rstrip("\0")

    def test_symbols_are_found_by_what_debuggers_ask_for(self):
        run(PACKAGING / "symbol_store.py", self.work / "store", *(BUILD / f"{name}.sys" for name in NAMES))
        for name in NAMES:
            image = pefile.PE(BUILD / f"{name}.sys")
            summary = run("llvm-pdbutil", "dump", "--summary", BUILD / f"{name}.pdb")
            facts = dict(line.strip().split(": ") for line in summary.splitlines() if line.count(": ") == 1)
            key = facts["GUID"].strip("{}").replace("-", "") + format(int(facts["Age"]), "x")
            self.assertEqual((self.work / "store" / f"{name}.pdb" / key / f"{name}.pdb").read_bytes(),
                             (BUILD / f"{name}.pdb").read_bytes())
            entry = next(e.entry for e in image.DIRECTORY_ENTRY_DEBUG if getattr(e.entry, "name", None) == "CV_INFO_PDB70")
            self.assertEqual(entry.Signature_String.upper(), key.upper())
            key = f"{image.FILE_HEADER.TimeDateStamp:08X}{image.OPTIONAL_HEADER.SizeOfImage:x}"
            self.assertTrue((self.work / "store" / f"{name}.sys" / key / f"{name}.sys").exists())
            # And addresses are named by them.
            self.assertEqual(run("llvm-symbolizer", f"--obj={BUILD / name}.sys", "--relative-address",
                                 hex(image.OPTIONAL_HEADER.AddressOfEntryPoint)).splitlines()[0].split("(")[0],
                             "DriverEntry")
        # One image's PDB beside the other.
        shutil.copy(BUILD / "gvnd.sys", self.work)
        shutil.copy(BUILD / "gvmemfs.pdb", self.work / "gvnd.pdb")
        self.assertIn("is not the PDB", run(PACKAGING / "symbol_store.py", self.work / "other", self.work / "gvnd.sys",
                                            refuses=True))

    def test_signatures_hold_and_break(self):
        sign = PACKAGING / "sign"
        run(sign, "test-certificate", self.work / "key")
        certificate = self.work / "key" / "test.pem"
        key = ("--", "-certs", certificate, "-key", self.work / "key" / "test.key")
        run(sign, "images", self.work / "signed", *(BUILD / f"{name}.sys" for name in NAMES), *key)
        verify = ("osslsigncode", "verify", "-CAfile", certificate, "-in")
        for name in NAMES:
            signed = self.work / "signed" / f"{name}.sys"
            run(*verify, signed)
            self.assertTrue(pefile.PE(signed).verify_checksum())
            run(PACKAGING / "check_image.py", signed)
            data = bytearray(signed.read_bytes())
            data[pefile.PE(signed).get_offset_from_rva(0x1000)] ^= 1
            (self.work / "changed.sys").write_bytes(data)
            run(*verify, self.work / "changed.sys", refuses=True)
            run(*verify, BUILD / f"{name}.sys", refuses=True)
        # The signature is not taken for that of another certificate, and none is left behind then.
        run(sign, "test-certificate", self.work / "other")
        run(sign, "images", self.work / "refused", "--ca", self.work / "other" / "test.pem", BUILD / "gvmemfs.sys", *key,
            refuses=True)
        self.assertEqual(list((self.work / "refused").iterdir()), [])
        cabinet = self.work / "gvnd.cab"
        run(sign, "submission", cabinet, *(BUILD / f"gvnd.{suffix}" for suffix in ("sys", "inf", "pdb")), *key)
        run(*verify, cabinet)
        self.assertEqual(run("gcab", "-t", cabinet).split(), [rf"gvnd\gvnd.{suffix}" for suffix in ("inf", "pdb", "sys")])


if __name__ == "__main__":
    BUILD, VERSION = pathlib.Path(sys.argv.pop(1)), sys.argv.pop(1)
    unittest.main()
