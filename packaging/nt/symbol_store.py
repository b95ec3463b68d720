#!/usr/bin/env python3
"""Puts kernel images and their PDBs where debuggers look for them in a store of symbols.

    symbol_store.py STORE IMAGE...

A PDB goes to NAME.pdb/GUIDAGE/NAME.pdb, an image to NAME.sys/TIMESTAMPSIZE/NAME.sys. The PDB is taken from beside its
image, and must be the one that the image was linked with. What is there already stays: the key names the contents.
Signing changes neither key, so images may be stored before or after it.
"""
import argparse
import pathlib
import shutil
import struct
import sys

import pe

PDB_MAGIC = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"
INFO_STREAM = 1


class StoreError(Exception):
    pass


def guid_text(raw):
    first, second, third = struct.unpack_from("<IHH", raw)
    return f"{first:08X}{second:04X}{third:04X}" + raw[8:16].hex().upper()


def debug_record(image):
    """The raw GUID, the age and the PDB's name that the linker wrote into the image."""
    for kind, data in image.debug_entries():
        if kind == pe.DEBUG_TYPE_CODEVIEW and data[:4] == b"RSDS":
            return data[4:20], struct.unpack_from("<I", data, 20)[0], data[24:data.index(b"\0", 24)].decode()
    raise StoreError("names no PDB")


def pdb_guid(path):
    """The raw GUID in a PDB's information stream, for which the file's own directory of blocks is read."""
    data = path.read_bytes()
    if not data.startswith(PDB_MAGIC):
        raise StoreError(f"{path} is no PDB")
    block, _, _, directory_size, _, map_block = struct.unpack_from("<6I", data, len(PDB_MAGIC))

    def gather(blocks, size):
        return b"".join(data[b * block:(b + 1) * block] for b in blocks)[:size]

    count = -(-directory_size // block)
    directory = gather(struct.unpack_from(f"<{count}I", data, map_block * block), directory_size)
    streams = struct.unpack_from("<I", directory)[0]
    sizes = [0 if size == 0xFFFFFFFF else size for size in struct.unpack_from(f"<{streams}I", directory, 4)]
    blocks_before = sum(-(-size // block) for size in sizes[:INFO_STREAM])
    first = 4 + 4 * streams + 4 * blocks_before
    blocks = struct.unpack_from(f"<{-(-sizes[INFO_STREAM] // block)}I", directory, first)
    return gather(blocks, sizes[INFO_STREAM])[12:28]


def store(root, source, key):
    target = root / source.name / key / source.name
    if not target.exists():
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, target)
    print(target)


def add(root, path):
    image = pe.Image(path)
    guid, age, name = debug_record(image)
    pdb = path.with_name(name)
    if pdb_guid(pdb) != guid:
        raise StoreError(f"{pdb} is not the PDB that {path} was linked with")
    size_of_image = image.u32(image.optional + 56)
    store(root, pdb, f"{guid_text(guid)}{age:x}")
    store(root, path, f"{image.timestamp:08X}{size_of_image:x}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("store", type=pathlib.Path)
    parser.add_argument("image", type=pathlib.Path, nargs="+")
    arguments = parser.parse_args()
    for path in arguments.image:
        try:
            add(arguments.store, path)
        except (StoreError, ValueError, OSError) as error:
            sys.exit(f"symbol_store.py: {path}: {error}")


if __name__ == "__main__":
    main()
