"""Ties the unwind tables of an object file's inline functions to the functions.

For this target the compiler puts .pdata and .xdata of a function in a COMDAT section into COMDAT sections without a
leader, as GNU linkers expect them. lld-link discards such sections, and the function is left without unwind
information. Here they become what that linker knows: COMDAT sections associated with the function's own.
"""

import pathlib
import struct
import sys

ANY, ASSOCIATIVE = 2, 5
STATIC = 3
SYMBOL = 18  # bytes of a symbol record, and of the auxiliary record behind one

path = pathlib.Path(sys.argv[1])
data = bytearray(path.read_bytes())
machine, section_count, _, symbols, symbol_count, optional = struct.unpack_from("<HHIIIH", data)
if machine != 0x8664:
    sys.exit(f"{path}: not an x64 object file")
strings = symbols + SYMBOL * symbol_count


def section_name(header):
    name = bytes(data[header:header + 8]).rstrip(b"\0")
    if name.startswith(b"/"):
        start = strings + int(name[1:])
        name = bytes(data[start:data.index(0, start)])
    return name.decode()


names = [section_name(20 + optional + 40 * index) for index in range(section_count)]
numbers = {name: number for number, name in enumerate(names, 1)}

index = 0
while index < symbol_count:
    record = symbols + SYMBOL * index
    number, _, storage, auxiliary = struct.unpack_from("<hHBB", data, record + 12)
    selection = record + SYMBOL + 14
    if storage == STATIC and auxiliary and number > 0 and data[selection] == ANY:
        table, _, function = names[number - 1].partition("$")
        if table in (".pdata", ".xdata"):
            if f".text${function}" not in numbers:
                sys.exit(f"{path}: {names[number - 1]} belongs to no function")
            struct.pack_into("<H", data, record + SYMBOL + 12, numbers[f".text${function}"])
            data[selection] = ASSOCIATIVE
    index += 1 + auxiliary

path.write_bytes(data)
