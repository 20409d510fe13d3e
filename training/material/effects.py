"""What happens to parts and mixes between the instrument and the listener."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt
from scipy.fft import irfft, next_fast_len, rfft
from scipy.signal import lfilter, resample_poly

RATE = 48000
Signal = npt.NDArray[np.float32]  # [samples] or [samples, channels]
Chance = np.random.Generator


def filter_by(signal: Signal, gain: npt.NDArray[np.float64], size: int) -> Signal:
    """Multiplies the spectrum of the signal, zero-padded to size, by gain [size // 2 + 1]."""
    spectrum = rfft(signal, size, axis=0)
    spectrum *= gain if signal.ndim == 1 else gain[:, None]
    return irfft(spectrum, size, axis=0)[: len(signal)].astype(np.float32)


def band_pass(signal: Signal, low: float, high: float) -> Signal:
    """Zero-phase band with soft edges of second order."""
    size = next_fast_len(len(signal) + RATE // 20, real=True)
    f = np.fft.rfftfreq(size, 1 / RATE) + 1e-3
    return filter_by(signal, 1 / np.sqrt((1 + (low / f) ** 4) * (1 + (f / high) ** 4)), size)


def equalise(signal: Signal, c: Chance, depth: float) -> Signal:
    """A random smooth curve over the octaves, up to +-depth dB."""
    size = next_fast_len(len(signal) + RATE // 20, real=True)
    octaves = np.log2(np.fft.rfftfreq(size, 1 / RATE) + 20)
    points = np.linspace(4.3, 14.6, 7)
    return filter_by(signal, 10 ** (np.interp(octaves, points, c.uniform(-depth, depth, 7)) / 20), size)


def reverberate(signal: Signal, c: Chance, amount: float) -> Signal:
    """A room: early reflections and a tail of noise that decays faster in the treble, two different sides."""
    time = c.uniform(0.15, 2.2)
    length = int(RATE * time)
    t = np.arange(length) / RATE
    impulse = np.zeros((length, 2))
    for low, high, share in (
        (20, 800, c.uniform(0.7, 1.2)),
        (800, 4000, 1.0),
        (4000, 16000, c.uniform(0.3, 0.8)),
    ):
        tail = band_pass(c.standard_normal((length, 2)).astype(np.float32), low, high)
        impulse += tail * np.exp(-6.9 / (time * share) * t)[:, None]
    impulse[: int(c.uniform(0, 0.02) * RATE)] = 0
    impulse /= np.sqrt((impulse**2).sum() / 2)
    for _ in range(6):
        impulse[int(c.uniform(0.002, 0.05) * RATE) % length, c.integers(2)] += c.uniform(-0.4, 0.4)
    size = next_fast_len(len(signal) + length, real=True)
    wet = irfft(rfft(signal, size, axis=0) * rfft(impulse, size, axis=0), size, axis=0)[: len(signal)]
    return signal + np.float32(amount) * wet.astype(np.float32)


def distort(signal: Signal, c: Chance) -> Signal:
    """An overdriven amplifier and its loudspeaker."""
    drive = 10 ** (c.uniform(0, 36) / 20) / (np.sqrt(np.mean(signal**2)) * 4 + 1e-9)
    out = np.tanh(signal * np.float32(drive) + np.float32(c.uniform(0, 0.3)))
    return band_pass(out - out.mean(axis=0), c.uniform(50, 150), c.uniform(2500, 9000))


def chorus(signal: Signal, c: Chance) -> Signal:
    """Two copies with delays that wander, one for each side."""
    t = np.arange(len(signal))
    out = signal.copy()
    for side in range(2):
        delay = RATE * (
            c.uniform(0.005, 0.02)
            + c.uniform(0.0005, 0.004)
            * (1 + np.sin(2 * np.pi * c.uniform(0.1, 2) * t / RATE + c.uniform(0, 6)))
        )
        out[:, side] += np.interp(t - delay, t, signal[:, side], left=0).astype(np.float32) * np.float32(
            c.uniform(0.3, 1)
        )
    return out


def echo(signal: Signal, c: Chance) -> Signal:
    """Repetitions, each weaker than the last, from side to side."""
    delay, feedback = int(c.uniform(0.12, 0.5) * RATE), c.uniform(0.2, 0.6)
    out = signal.copy()
    for number in range(1, 5):
        if number * delay < len(signal):
            repeated = signal[: len(signal) - number * delay, :: -1 if number % 2 else 1]
            out[number * delay :] += np.float32(c.uniform(0.5, 1) * feedback**number) * repeated
    return out


def compression_gain(signal: Signal, threshold: float, ratio: float, attack: float, release: float) -> Signal:
    """The gain [samples] of a compressor on all channels; threshold in dB, times in seconds."""
    step = 32
    power = np.square(signal).reshape(len(signal), -1).mean(axis=1)
    blocks = power[: len(power) // step * step].reshape(-1, step).mean(axis=1)
    fast = lfilter([1 - np.exp(-step / RATE / attack)], [1, -np.exp(-step / RATE / attack)], blocks)
    over = np.maximum(0.0, 10 * np.log10(fast + 1e-10) - threshold) * (1 - 1 / ratio)
    slow = lfilter([1 - np.exp(-step / RATE / release)], [1, -np.exp(-step / RATE / release)], over)
    decibels = np.maximum(slow, 0.7 * over)
    at = np.arange(len(blocks)) * step + step
    return (10 ** (-np.interp(np.arange(len(signal)), at, decibels) / 20)).astype(np.float32)


def limiter_gain(signal: Signal, ceiling: float) -> Signal:
    """The gain [samples] that keeps all channels below the ceiling, with a look-ahead of 2 ms."""
    step = 48
    peaks = np.abs(signal).reshape(len(signal), -1).max(axis=1)
    peaks = np.pad(peaks, (0, -len(peaks) % step)).reshape(-1, step).max(axis=1)
    wanted = np.minimum(1.0, ceiling / (peaks + 1e-9))
    around = np.minimum.reduce([np.pad(wanted, (2, 2), mode="edge")[i : i + len(wanted)] for i in range(5)])
    keep = np.exp(-step / RATE / 0.08)
    level, gains = 1.0, np.empty(len(around))
    for i, gain in enumerate(around.tolist()):  # down at once, up slowly
        level = min(gain, keep * level + (1 - keep))
        gains[i] = level
    return np.interp(np.arange(len(signal)), (np.arange(len(gains)) + 0.5) * step, gains).astype(np.float32)


def master(stems: list[Signal], c: Chance) -> list[Signal]:
    """Bus compressor and limiter over the sum: one gain for all stems, so that they still add up."""
    mix = np.sum(stems, axis=0, dtype=np.float32)
    level = 10 * np.log10(np.mean(mix**2) + 1e-10)
    gain = compression_gain(
        mix, level + c.uniform(-6, 3), c.uniform(1.5, 6), c.uniform(0.002, 0.03), c.uniform(0.05, 0.4)
    )
    mix = mix * gain[:, None]
    loud = 10 ** (c.uniform(2, 8) / 20)
    gain = gain * limiter_gain(mix * np.float32(loud), float(np.abs(mix).max() * 0.9)) * np.float32(loud)
    return [stem * gain[:, None] for stem in stems]


def change_speed(signal: Signal, speed: float) -> Signal:
    """Played so much faster, in sixteenths: shorter and higher, or longer and lower."""
    return np.asarray(resample_poly(signal, 16, round(16 * speed), axis=0), np.float32)


def widen(signal: Signal, width: float) -> Signal:
    middle = signal.mean(axis=1, keepdims=True)
    return middle + np.float32(width) * (signal - middle)


def place(signal: Signal, position: float) -> Signal:
    """Balance from -1 (left) to 1 (right) by the sine law, unchanged in the middle."""
    angle = (position + 1) * np.pi / 4
    return signal * (np.array([np.cos(angle), np.sin(angle)]) * np.sqrt(2)).astype(np.float32)


def color_part(signal: Signal, c: Chance, role: str) -> Signal:
    """A random chain of effects for one part."""
    if role in ("riff", "chords", "lead", "bass") and c.random() < (0.3 if role == "riff" else 0.1):
        signal = distort(signal, c)
    if c.random() < 0.5:
        signal = equalise(signal, c, 8)
    if role in ("pad", "chords", "lead", "arpeggio") and c.random() < 0.2:
        signal = chorus(signal, c)
    if role in ("lead", "arpeggio", "voice", "riff") and c.random() < 0.25:
        signal = echo(signal, c)
    if c.random() < 0.25:
        signal = (
            signal
            * compression_gain(
                signal,
                10 * np.log10(np.mean(signal**2) + 1e-9),
                c.uniform(2, 8),
                c.uniform(0.001, 0.03),
                c.uniform(0.05, 0.3),
            )[:, None]
        )
    if role != "bass" and c.random() < 0.6:
        signal = reverberate(signal, c, c.choice([0.05, 0.1, 0.2, 0.4]))
    return widen(signal, c.uniform(0.3, 1.2)) if c.random() < 0.4 else signal
