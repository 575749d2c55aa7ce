"""Generated test recordings: tone bursts over noise, placed on 20 ms frame
boundaries so that the analyzer's timing rules give exact segment times."""
import array
import math
import struct
import sys
import wave


def signal(rate, bursts, total_s, channels=1, noise=100, tone=8000, seed=1):
    """16-bit samples: uniform noise everywhere, a 1 kHz tone inside each (start_s, end_s) burst."""
    n = int(round(total_s * rate))
    state = seed
    out = array.array("h")
    edges = [(int(round(a * rate)), int(round(b * rate))) for a, b in bursts]
    for i in range(n):
        state = (state * 1103515245 + 12345) & 0x7FFFFFFF
        x = ((state >> 8) % (2 * noise + 1)) - noise
        if any(a <= i < b for a, b in edges):
            x += tone * math.sin(2 * math.pi * 1000.0 * i / rate)
        s = max(-32768, min(32767, int(round(x))))
        for _ in range(channels):
            out.append(s)
    return out


def write_wav(path, rate, samples, channels=1):
    with wave.open(path, "wb") as w:
        w.setnchannels(channels)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(le_bytes(samples))


def le_bytes(samples):
    """16-bit samples as little-endian bytes, whatever the machine's order."""
    if sys.byteorder == "little":
        return samples.tobytes()
    swapped = array.array("h", samples)
    swapped.byteswap()
    return swapped.tobytes()


def write_float_wav(path, rate, values, channels=1):
    """A 32-bit float WAV file (format 3) of the given sample values (NaN and infinities allowed)."""
    data = struct.pack("<%df" % len(values), *values)
    fmt = struct.pack("<HHIIHH", 3, channels, rate, rate * 4 * channels, 4 * channels, 32)
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 4 + 8 + len(fmt) + 8 + len(data)) + b"WAVE")
        f.write(b"fmt " + struct.pack("<I", len(fmt)) + fmt)
        f.write(b"data" + struct.pack("<I", len(data)) + data)


def read_float_wav(path):
    """(rate, channels, values) of a 32-bit float WAV file, from its fmt and data chunks."""
    with open(path, "rb") as f:
        blob = f.read()
    assert blob[:4] == b"RIFF" and blob[8:12] == b"WAVE", path
    at, rate, channels, values = 12, None, None, None
    while at + 8 <= len(blob):
        kind, size = blob[at:at + 4], struct.unpack("<I", blob[at + 4:at + 8])[0]
        body = blob[at + 8:at + 8 + size]
        if kind == b"fmt ":
            code, channels, rate = struct.unpack("<HHI", body[:8])
            bits = struct.unpack("<H", body[14:16])[0]
            assert bits == 32 and code in (3, 0xFFFE), (code, bits)
        elif kind == b"data":
            values = list(struct.unpack("<%df" % (size // 4), body))
        at += 8 + size + (size & 1)
    return rate, channels, values


# Two bursts, and the segments the timing rules give for them: dated 7 frames
# (140 ms) before the first loud frame, ended 14 frames (280 ms) after the last.
BURSTS = [(1.0, 2.5), (3.5, 4.7)]
EXPECTED = [(0.86, 2.78), (3.36, 4.98)]
