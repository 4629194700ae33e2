#!/usr/bin/env python3
"""Makes the files fuzz/corpus/<family>/<name>.case from the recipes in fuzz/corpus/<family>.txt.
With --check nothing is written: files that differ, are missing or have no recipe are named.
A recipe is a Python expression of the builders below; `let` lines of a list name parts of it."""
import pathlib
import sys

CORPUS = pathlib.Path(__file__).resolve().parent.parent / 'fuzz' / 'corpus'


def b(*values):
    return bytes(v & 255 for v in values)


def be(count, *values):
    return b''.join((v % 256**count).to_bytes(count, 'big') for v in values)


def le(count, *values):
    return b''.join((v % 256**count).to_bytes(count, 'little') for v in values)


def patched(data, at, new):
    return data[:at] + new + data[at + len(new):]


def padded(data, multiple):
    return data + bytes(-len(data) % multiple)


# Alias pix: a packet is count, blue, green, red.
def alias_header(width, height, x, y, bits):
    return be(2, width, height, x, y, bits)


def alias(width, height, packets):
    return alias_header(width, height, 0, 0, 24) + bytes(packets)


# BMP. The offset of the rows is that of nothing: they follow the palette.
def bmp_header(bits, width, height, colors, compression, size=40):
    return (b'BM' + le(4, 77, 0, 1234, size, width, height) + le(2, 1, bits) + le(4, compression) +
            b'\x7f' * 12 + le(4, colors, 0))


def bmp(bits, width, height, colors, rest):
    return bmp_header(bits, width, height, colors, 0) + bytes(rest)


def bmp_core(bits, width, height, rest):
    return b'BM' + le(4, 77, 0, 26, 12) + le(2, width, height, 1, bits) + bytes(rest)


def bmp_written(bits, width, height, rows):
    return (b'BM' + le(4, 54 + len(rows), 0, 54, 40, width, height) + le(2, 1, bits) + le(4, 0, len(rows)) +
            bytes(16) + bytes(rows))


# CATIA pictures: a header, then for each sub-block of lines one of each component, in records of 80 bytes.
def catia_header(width, height, block_samples=262144):
    text = patched(bytes(1200), 96, b'PIXEL   ')
    for at, part in (114, b'2'), (152, b'PICTURE '), (968, le(4, block_samples)), (1120, le(4, width, height, 1, 10407)):
        text = patched(text, at, part)
    return text


def catia_block(data, length=None):
    return padded(padded(le(4, len(data) if length is None else length), 80) + bytes(data), 80)


def catia_blocks(*components):
    return b''.join(catia_block(data) for data in components)


def catia_run(count, value):
    return b(255, value) * ((count - 1) // 255) + b((count - 1) % 255 + 1, value)


# Tiled IFF. A header is width, height, flags (1 color, 2 alpha, 4 depth), bytes of a sample - 1, tiles, compression.
def iff_chunk(name, data):
    return padded(name + be(4, len(data)) + data, 4)


def iff_form(kind, chunks):
    return b'FOR4' + be(4, len(chunks) + 4) + kind + chunks


def iff_header_data(width, height, flags=1, depth=0, tiles=1, compression=0):
    return be(4, width, height, 0, flags) + be(2, depth, tiles) + be(4, compression)


def iff_header(*fields):
    return iff_chunk(b'TBHD', iff_header_data(*fields))


def iff_tile(bounds, data, name=b'RGBA'):
    return iff_chunk(name, be(2, *bounds) + bytes(data))


def iff(fields, tiles):
    return iff_form(b'CIMG', iff_header(*fields) + iff_form(b'TBMP', tiles))


def iff_whole(fields, data, name=b'RGBA'):
    return iff(fields, iff_tile([0, 0, fields[0] - 1, fields[1] - 1], data, name))


# Softimage PIC. A group is compression, mask of channels, bits.
def pic_header(width, height, aspect=0x3f800000, fields=3):
    return (b(0x53, 0x80, 0xf6, 0x34, 0x40, 0x60, 0, 0) + padded(b'Written by Brannock libimg', 80) + b'PICT' +
            be(2, width, height) + be(4, aspect) + be(2, fields, 0))


def pic(width, height, groups, pixels):
    chain = [b(i + 1 < len(groups), *(group[2:] or [8]), *group[:2]) for i, group in enumerate(groups)]
    return pic_header(width, height) + b''.join(chain) + bytes(pixels)


# Wavefront RLA. Windows are left, right, bottom, top; the lines come one after the other.
def rla_header(active=(0, 1, 0, 1), mattes=1, bits=8, matte_bits=None, colors=3, storage=0, matte_type=0,
               window=(0, 9, 0, 9), gamma=b'2'):
    text = be(2, *window, *active, 0, storage, colors, mattes, 0, 0xfffe) + gamma
    return padded(padded(text, 658) + be(2, bits, matte_type, bits if matte_bits is None else matte_bits), 740)


def rla_record(packets):
    return be(2, len(packets)) + bytes(packets)


def rla(lines, **header):
    starts = [740 + 4 * len(lines) + len(b''.join(lines[:y])) for y in range(len(lines))]
    return rla_header(**header) + be(4, *starts) + b''.join(lines)


# SGI. Starts of rows count from the first byte of the packets.
def sgi_header(storage, size, dimension, width, height, channels, largest=0):
    return padded(be(2, 474) + b(storage, size) + be(2, dimension, width, height, channels, 0, 0, 0, largest), 512)


def sgi_rows(table, packets):
    first = 512 + 8 * len(table)
    return (be(4, *(start + first for start, _ in table)) + be(4, *(length for _, length in table)) +
            bytes(packets))


# Targa.
def tga(rest, type, depth=8, width=1, height=1, descriptor=0, id_length=0, map_type=0, first_entry=0, map_length=0,
        entry_bits=0, x=0, y=0):
    return (b(id_length, map_type, type) + le(2, first_entry, map_length) + b(entry_bits) +
            le(2, x, y, width, height) + b(depth, descriptor) + bytes(rest))


# TIFF. An entry is tag, type, values; the strips' own entries are added.
SHORT, LONG = 3, 4


def tiff_directory(entries, big=False):
    put = be if big else le
    text, values = (b'MM' if big else b'II') + put(2, 42) + put(4, 8) + put(2, len(entries)), b''
    for tag, kind, numbers in entries:
        field = put(2 if kind == SHORT else 4, *numbers)
        if len(field) > 4:
            values, field = values + field, put(4, 8 + 2 + 12 * len(entries) + 4 + len(values))
        text += put(2, tag, kind) + put(4, len(numbers)) + padded(field, 4)
    return text + put(4, 0) + values


def tiff(entries, strips=(), big=False, strip_type=LONG):
    def text(first):
        starts = [first + len(b''.join(strips[:i])) for i in range(len(strips))]
        tables = [[273, strip_type, starts], [279, strip_type, [len(strip) for strip in strips]]]
        return tiff_directory(sorted(entries + tables if strips else entries, key=lambda entry: entry[0]), big)
    return text(len(text(0))) + b''.join(strips)


def tiff_one(width, height, bits, photometric, more=()):
    return [*more, [256, LONG, [width]], [257, LONG, [height]], [258, SHORT, [bits]], [262, SHORT, [photometric]],
            [277, SHORT, [1]]]


def tiff_colors(width, height, components, bits, more=()):
    entries = [*more, [256, LONG, [width]], [257, SHORT, [height]], [258, SHORT, [bits] * components],
               [262, SHORT, [2]], [277, SHORT, [components]]]
    return entries + ([[339, SHORT, [3] * components]] if bits == 32 else [])


def tiff_written(pixels, width=1, height=1, packed=False, components=3, bits=8, alpha=0, kind=1):
    entries = [[254, LONG, 0], [256, LONG, width], [257, LONG, height], [258, SHORT, 184],
               [259, SHORT, 32773 if packed else 1], [262, SHORT, 2], [273, LONG, 204], [277, SHORT, components],
               [278, LONG, height], [279, LONG, len(pixels)], [284, SHORT, 1], [338, SHORT, alpha], [339, SHORT, 196]]
    counts = {258: components, 338: int(components == 4), 339: components}
    return (b'II' + le(2, 42) + le(4, 10) + bytes(2) + le(2, 13) +
            b''.join(le(2, tag, kind) + le(4, counts.get(tag, 1), value) for tag, kind, value in entries) + bytes(16) +
            le(2, bits, bits, bits, bits) + bytes(4) + le(2, kind, kind, kind, kind) + bytes(pixels))


def rows_of(path):
    rows = []
    for line in path.read_text().splitlines():
        if line.startswith(' ') and rows:
            rows[-1] += ' ' + line.strip()
        elif line and line[0] != '#':
            rows.append(line)
    return rows


def files_of(path):
    """Returns name and bytes of each case of a list."""
    names, files = dict(globals()), {}
    for row in rows_of(path):
        if row.startswith('let '):
            exec(row[4:], names)  # pylint: disable=exec-used
            continue
        name, recipe = row.split(' => ')[0].split(':', 1)
        if name in files:
            sys.exit(f'{path}: two cases are named {name}')
        files[name] = eval(recipe.strip(), names)  # pylint: disable=eval-used
    return files


def main():
    faults = []
    for path in sorted(CORPUS.glob('*.txt')):
        folder = path.with_suffix('')
        files = {f'{name}.case': data for name, data in files_of(path).items()}
        present = {file.name: file for file in folder.glob('*.case')}
        if sys.argv[1:] == ['--check']:
            faults += [folder / name for name in sorted(present.keys() | files.keys())
                       if name not in present or files.get(name) != present[name].read_bytes()]
            continue
        folder.mkdir(exist_ok=True)
        for name in present.keys() - files.keys():
            present[name].unlink()
        for name, data in files.items():
            (folder / name).write_bytes(data)
    for fault in faults:
        print(f'{fault}: not what its recipe makes')
    return bool(faults)


if __name__ == '__main__':
    sys.exit(main())
