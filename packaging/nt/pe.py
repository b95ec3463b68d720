"""A small reader of x86-64 PE images: what the image check and the checksum writer need, and no more."""
import collections
import struct

MACHINE_AMD64 = 0x8664
SUBSYSTEM_NATIVE = 1
DEBUG_TYPE_CODEVIEW = 2
RELOCS_STRIPPED = 0x0001
DYNAMIC_BASE = 0x0040
NX_COMPAT = 0x0100
SECTION_DISCARDABLE = 0x02000000
SECTION_EXECUTE = 0x20000000
SECTION_WRITE = 0x80000000
UNWIND_CHAINED = 0x4
UNWIND_HANDLERS = 0x3

EXPORTS, IMPORTS, RESOURCES, EXCEPTIONS, SECURITY, RELOCATIONS, DEBUG = range(7)

Section = collections.namedtuple("Section", "name rva size offset raw_size flags")
RuntimeFunction = collections.namedtuple("RuntimeFunction", "begin end unwind")


class Image:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        self.header = self.u32(0x3C)
        if self.data[:2] != b"MZ" or self.data[self.header:self.header + 4] != b"PE\0\0":
            raise ValueError(f"{path}: not a PE image")
        coff = self.header + 4
        self.machine, count, self.timestamp = struct.unpack_from("<HHI", self.data, coff)
        optional_size, self.characteristics = struct.unpack_from("<HH", self.data, coff + 16)
        self.optional = coff + 20
        if self.u16(self.optional) != 0x20B:
            raise ValueError(f"{path}: not a 64-bit image")
        self.entry = self.u32(self.optional + 16)
        self.base = struct.unpack_from("<Q", self.data, self.optional + 24)[0]
        self.checksum_offset = self.optional + 64
        self.checksum = self.u32(self.checksum_offset)
        self.subsystem, self.dll_characteristics = struct.unpack_from("<HH", self.data, self.optional + 68)
        self.directories = [struct.unpack_from("<II", self.data, self.optional + 112 + 8 * i) for i in range(16)]
        self.sections = [self._section(self.optional + optional_size + 40 * i) for i in range(count)]

    def _section(self, offset):
        name, size, rva, raw_size, raw = struct.unpack_from("<8sIIII", self.data, offset)
        return Section(name.rstrip(b"\0").decode(), rva, size, raw, raw_size, self.u32(offset + 36))

    def u16(self, offset):
        return struct.unpack_from("<H", self.data, offset)[0]

    def u32(self, offset):
        return struct.unpack_from("<I", self.data, offset)[0]

    def section_at(self, rva):
        return next((s for s in self.sections if s.rva <= rva < s.rva + s.size), None)

    def offset(self, rva):
        section = self.section_at(rva)
        if section is None:
            raise ValueError(f"no section holds the address {rva:#x}")
        return rva - section.rva + section.offset

    def string(self, offset):
        return self.data[offset:self.data.index(b"\0", offset)].decode()

    def imports(self):
        """Pairs of a module's name and an imported name; imports by number are named #<number>."""
        for module, name, _ in self._import_entries():
            yield module, name

    def import_slots(self):
        """Pairs of a slot's address in the import address table and an imported name."""
        for _, name, slot in self._import_entries():
            yield slot, name

    def _import_entries(self):
        rva, size = self.directories[IMPORTS]
        if not size:
            return
        descriptor = self.offset(rva)
        while self.u32(descriptor + 12):
            module = self.string(self.offset(self.u32(descriptor + 12)))
            slot = self.u32(descriptor + 16)
            entry = self.offset(self.u32(descriptor) or slot)
            while value := struct.unpack_from("<Q", self.data, entry)[0]:
                by_number = value >> 63
                yield module, f"#{value & 0xFFFF}" if by_number else self.string(self.offset(value) + 2), slot
                entry += 8
                slot += 8
            descriptor += 20

    def runtime_functions(self):
        rva, size = self.directories[EXCEPTIONS]
        if not size:
            return []
        start = self.offset(rva)
        return [RuntimeFunction(*struct.unpack_from("<III", self.data, start + i)) for i in range(0, size, 12)]

    def unwind_version_and_flags(self, function):
        first = self.data[self.offset(function.unwind)]
        return first & 7, first >> 3

    def debug_entries(self):
        """Pairs of an entry's type and its data."""
        rva, size = self.directories[DEBUG]
        if not size:
            return
        for entry in range(self.offset(rva), self.offset(rva) + size, 28):
            kind, length, _, raw = struct.unpack_from("<IIII", self.data, entry + 12)
            yield kind, self.data[raw:raw + length]

    def pdb_path(self):
        for kind, data in self.debug_entries():
            if kind == DEBUG_TYPE_CODEVIEW and data[:4] == b"RSDS":
                return data[24:data.index(b"\0", 24)].decode()
        return None

    def computed_checksum(self):
        """The checksum that the kernel's loader computes: 16-bit words, carries folded, the field itself left out."""
        blank = self.data[:self.checksum_offset] + bytes(4) + self.data[self.checksum_offset + 4:]
        blank += bytes(len(blank) % 2)
        total = sum(struct.unpack(f"<{len(blank) // 2}H", blank))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)
