"""Decodes all images below a folder with other people's code: suite_references.py FOLDER

PNG by the few lines below and zlib alone, the other formats by Pillow. Writes FOLDER/references.tsv, a line an
image: path, width, height, samples a pixel and the file of its pixels, or "-" where the reference refuses it.
"""
import pathlib
import struct
import sys
import zlib

import PIL.Image

MAX_PIXELS = 4 << 20
MAX_OWN_PNG_PIXELS = 1 << 15  # beyond it Pillow is patient enough
ADAM7 = ((0, 0, 8, 8), (4, 0, 8, 8), (0, 4, 4, 8), (2, 0, 4, 4), (0, 2, 2, 4), (1, 0, 2, 2), (0, 1, 1, 2))
CHANNELS = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}
DEPTHS = {0: (1, 2, 4, 8, 16), 2: (8, 16), 3: (1, 2, 4, 8), 4: (8, 16), 6: (8, 16)}


def png_chunks(data):
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("signature")
    at = 8
    while at + 12 <= len(data):
        size, kind = struct.unpack(">I4s", data[at : at + 8])
        body = data[at + 8 : at + 8 + size]
        stated = data[at + 8 + size : at + 12 + size]
        checked = struct.pack(">I", zlib.crc32(kind + body)) == stated
        critical = not kind[0] & 32
        if not checked and critical:
            raise ValueError("checksum")
        if checked:
            yield kind, body
        if kind == b"IEND":
            return
        at += 12 + size


def unfilter(raw, at, row_bytes, rows, step):
    """Rows of one pass, and the position behind them."""
    above, out = bytearray(row_bytes), []
    for _ in range(rows):
        kind, row = raw[at], bytearray(raw[at + 1 : at + 1 + row_bytes])
        if len(row) < row_bytes or kind > 4:
            raise ValueError("data")
        at += 1 + row_bytes
        for i in range(row_bytes) if kind else ():
            left, up = row[i - step] if i >= step else 0, above[i]
            corner = above[i - step] if i >= step else 0
            guess = left + up - corner
            paeth = min(((abs(guess - v), n, v) for n, v in enumerate((left, up, corner))))[2]
            row[i] = row[i] + (0, left, up, (left + up) // 2, paeth)[kind] & 255
        out.append(row)
        above = row
    return out, at


def png_pixels(data):
    header, palette, trns, packed = None, b"", None, b""
    for kind, body in png_chunks(data):
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"PLTE":
            palette = body
        elif kind == b"tRNS":
            trns = body
        elif kind == b"IDAT":
            packed += body
    width, height, depth, color, method, filters, interlace = header
    if depth not in DEPTHS.get(color, ()) or method or filters or interlace > 1 or not packed:
        raise ValueError("header")
    if color == 3 and not palette or not width or not height:
        raise ValueError("palette or size")
    if width * height > MAX_OWN_PNG_PIXELS:
        return None
    raw = zlib.decompressobj().decompress(packed)

    count, top = CHANNELS[color], (1 << depth) - 1
    byte = lambda v: (2 * v * 255 + top) // (2 * top)
    key = tuple(v & top for v in struct.unpack(f">{len(trns) // 2}H", trns)) if trns and color in (0, 2) else None
    alphas = (trns or b"") if color == 3 else b""
    out, at = bytearray(width * height * 4), 0
    for x0, y0, dx, dy in ADAM7 if interlace else ((0, 0, 1, 1),):
        columns, rows = -(-(width - x0) // dx), -(-(height - y0) // dy)
        if columns <= 0 or rows <= 0:
            continue
        bits = count * depth
        lines, at = unfilter(raw, at, (columns * bits + 7) // 8, rows, max(1, bits // 8))
        for row, line in enumerate(lines):
            if depth == 16:
                samples = struct.unpack(f">{len(line) // 2}H", line)
            elif depth == 8:
                samples = line
            else:
                samples = [v >> s & top for v in line for s in range(8 - depth, -1, -depth)]
            for column in range(columns):
                s = tuple(samples[column * count : column * count + count])
                if color == 3:
                    entry = palette[s[0] * 3 : s[0] * 3 + 3] or b"\0\0\0"
                    pixel = (*entry, alphas[s[0]] if s[0] < len(alphas) else 255)
                else:
                    alpha = byte(s[-1]) if color & 4 else 0 if key == s else 255
                    pixel = (*map(byte, s[:3] if color & 2 else s[:1] * 3), alpha)
                place = ((y0 + row * dy) * width + x0 + column * dx) * 4
                out[place : place + 4] = bytes(pixel)
    return width, height, 4, bytes(out)


# The BMP suite has pictures of what its files show; Pillow misreads or refuses these.
BMP_PICTURES = {"pal4rle": "pal4", "pal4rletrns": "pal4rletrns-0", "pal8rletrns": "pal8rletrns-0", "rgb16-231": "",
                "rgb32-111110": "rgb24", "rgb32bf": "rgb24", "rgba16-4444": "", "rgba32": "", "rgba32abf": "rgba32",
                "pal8os2v2-16": "pal8"}


def pillow_pixels(path):
    if path.parent.parent.name == "bmp" and path.stem in BMP_PICTURES:
        path = path.parent.parent / "html" / f"{BMP_PICTURES[path.stem] or path.stem}.png"
    with PIL.Image.open(path) as image:
        kind = image.format
        if image.size[0] * image.size[1] > MAX_PIXELS or getattr(image, "n_frames", 1) > 1 and kind == "WEBP":
            return None
        image.load()
        if kind == "TIFF":
            extra = image.tag_v2.get(338, ())
            modes = {"L": "RGB", "RGB": "RGB", "CMYK": "CMYK", "RGBA": "RGBA"}
            if image.mode not in modes or image.tag_v2.get(262) not in (0, 1, 2, 5) or extra not in ((), (2,)):
                return None
            image = image.convert(modes[image.mode])
        elif image.mode == "CMYK":  # ink amounts
            light = [[(255 - v) for v in band.getdata()] for band in image.split()]
            pixels = b"".join(
                bytes((*((v * k + 127) // 255 for v in colours), 255)) for *colours, k in zip(*light)
            )
            return *image.size, 4, pixels
        else:
            image = image.convert("RGBA")
        return *image.size, len(image.mode), image.tobytes()


def main(folder):
    references = folder / "references"
    references.mkdir(exist_ok=True)
    suffixes = {".png", ".jpg", ".jpeg", ".bmp", ".webp", ".tif", ".tiff"}
    with open(folder / "references.tsv", "w", encoding="utf-8") as table:
        for number, path in enumerate(sorted(p for p in folder.rglob("*") if p.suffix in suffixes and p.is_file())):
            try:
                found = png_pixels(path.read_bytes()) if path.suffix == ".png" else pillow_pixels(path)
                if found is None and path.suffix == ".png":
                    found = pillow_pixels(path)
            except Exception as failure:
                found = None
                print(f"{path.relative_to(folder)}: {failure!r}", file=sys.stderr)
                table.write(f"{path.relative_to(folder)}\t0\t0\t0\t-\n")
                continue
            if found is None:
                table.write(f"{path.relative_to(folder)}\t0\t0\t0\t?\n")
                continue
            *shape, pixels = found
            (references / f"{number}.raw").write_bytes(pixels)
            table.write("\t".join(map(str, (path.relative_to(folder), *shape, f"references/{number}.raw"))) + "\n")


main(pathlib.Path(sys.argv[1]))
