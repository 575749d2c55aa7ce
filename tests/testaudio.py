"""Generated test recordings: tone bursts over noise, placed on 20 ms frame
boundaries so that the analyzer's timing rules give exact segment times."""
import array
import math
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
        w.writeframes(samples.tobytes())


# Two bursts, and the segments the timing rules give for them: dated 7 frames
# (140 ms) before the first loud frame, ended 14 frames (280 ms) after the last.
BURSTS = [(1.0, 2.5), (3.5, 4.7)]
EXPECTED = [(0.86, 2.78), (3.36, 4.98)]
