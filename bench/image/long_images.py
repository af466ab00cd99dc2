#!/usr/bin/python3
"""Time and memory of whole jobs on PNG and JPEG of growing length: long_images.py NVO_RIP [WIDTH [ROWS...]]

Needs python3-pil, and disk space of five times the longest image in TMPDIR. Prints a Markdown table.
"""
import multiprocessing
import os
import pathlib
import subprocess
import sys
import tempfile
import time

try:
    import PIL.Image
except ImportError:
    sys.exit("The package python3-pil is missing, or this isn't Debian's python3.")

TILE = 1000


def artwork(width, rows):
    """Soft colours and small detail, on ground that is transparent in places."""
    ramp = PIL.Image.linear_gradient("L").resize((TILE, TILE))
    noise = PIL.Image.effect_noise((TILE, TILE), 60)
    alpha = PIL.Image.radial_gradient("L").resize((TILE, TILE)).point(lambda v: 255 if v < 160 else 0)
    tile = PIL.Image.merge("RGBA", (ramp, noise, ramp.rotate(90), alpha))
    image = PIL.Image.new("RGBA", (width, rows))
    for y in range(0, rows, TILE):
        for x in range(0, width, TILE):
            image.paste(tile, (x, y))
    return image


def write(path, width, rows, options):
    image = artwork(width, rows)
    (image if path.suffix == ".png" else image.convert("RGB")).save(path, dpi=(300, 300), **options)


def write_elsewhere(*arguments):
    """In another process: a job's peak of memory begins with that of the process that starts it."""
    writer = multiprocessing.Process(target=write, args=arguments)
    writer.start()
    writer.join()
    assert writer.exitcode == 0


def run(program, path, folder):
    start = time.monotonic()
    job = subprocess.Popen([program, str(path), str(folder / "out.prt")], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, env={**os.environ, "XDG_CONFIG_HOME": str(folder / "config")})
    _, status, use = os.wait4(job.pid, 0)
    assert status == 0, path
    (folder / "out.prt").unlink()
    return time.monotonic() - start, use.ru_utime + use.ru_stime, use.ru_maxrss / 1024


def main(program, width=6000, *rows):
    print("| File | Rows | File size, MB | Seconds | CPU seconds | CPU us a row | Memory, MiB |")
    print("|---|---|---|---|---|---|---|")
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        small = folder / "small.png"
        write_elsewhere(small, TILE, TILE, {})
        run(program, small, folder)  # makes the masks
        for count in map(int, rows or (10000, 20000, 40000)):
            for suffix, options in (("png", {"compress_level": 1}), ("jpg", {"quality": 92})):
                path = folder / f"long.{suffix}"
                write_elsewhere(path, int(width), count, options)
                wall, cpu, memory = run(program, path, folder)
                size = path.stat().st_size / 1e6
                figures = f"{size:.0f} | {wall:.1f} | {cpu:.1f} | {cpu / count * 1e6:.0f} | {memory:.0f}"
                print(f"| {suffix.upper()} | {count} | {figures} |", flush=True)
                path.unlink()


if len(sys.argv) < 2:
    sys.exit(__doc__)
if not pathlib.Path(sys.argv[1]).is_file():
    sys.exit(f"{sys.argv[1]} is missing; build it.")
main(*sys.argv[1:])
