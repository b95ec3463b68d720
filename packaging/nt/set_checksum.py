#!/usr/bin/env python3
"""Writes the checksum into the header of a kernel image: the kernel refuses an image whose checksum is wrong, and the
linker leaves it zero."""
import struct
import sys

import pe


def main():
    image = pe.Image(sys.argv[1])
    with open(sys.argv[1], "r+b") as file:
        file.seek(image.checksum_offset)
        file.write(struct.pack("<I", image.computed_checksum()))


if __name__ == "__main__":
    main()
