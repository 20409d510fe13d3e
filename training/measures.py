"""How well a stem fits the truth, in decibels. Sounds are [samples, channels] or [samples] at 48 kHz."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
import places  # noqa: F401
import torch
from scipy.signal import butter, sosfiltfilt
from zevrant.torch import Spectra

RATE = 48000
Signal = npt.NDArray[np.float32]


def decibels(power: float) -> float:
    return 10 * float(np.log10(max(power, 1e-20)))


def energy(sound: Signal) -> float:
    return float(np.square(sound, dtype=np.float64).sum())


def si_sdr(estimate: Signal, truth: Signal) -> float:
    """Scale-invariant signal-to-distortion ratio, channels as one vector (Le Roux et al., ICASSP 2019)."""
    e, s = estimate.astype(np.float64).ravel(), truth.astype(np.float64).ravel()
    scaled = s * (e @ s / max(float(s @ s), 1e-20))
    return decibels(float(scaled @ scaled) / max(float(np.square(e - scaled).sum()), 1e-20))


def sdr(estimate: Signal, truth: Signal) -> float:
    """The plain ratio of the truth's energy to the error's."""
    return decibels(energy(truth) / max(energy(estimate - truth), 1e-20))


def blocks(sound: Signal, seconds: float) -> npt.NDArray[np.float64]:
    """Energy of successive stretches."""
    size = int(seconds * RATE)
    whole = np.square(sound[: len(sound) // size * size], dtype=np.float64)
    return whole.reshape(-1, size, *sound.shape[1:]).reshape(len(whole) // size, -1).sum(axis=1)


def pauses_of(truth: Signal, mix: Signal) -> npt.NDArray[np.bool_]:
    """Quarters of a second in which the source is silent and something else is not."""
    own, whole = blocks(truth, 0.25), blocks(mix, 0.25)
    silent = own < 1e-4 * np.median(own[own > 1e-9]) if (own > 1e-9).any() else own < 1
    return np.asarray(silent & (whole > 1e-3 * whole.mean()))


def leakage(stem: Signal, truth: Signal, mix: Signal) -> float | None:
    """The stem's level below the mix's while its own source pauses, if it does for a second in all."""
    pauses = pauses_of(truth, mix)
    if pauses.sum() < 4:
        return None
    return decibels(float(blocks(stem, 0.25)[pauses].sum() / blocks(mix, 0.25)[pauses].sum()))


def worst_second(stem: Signal, truth: Signal) -> float:
    """SDR of the second that is separated worst, among those in which the source is heard."""
    own, error = blocks(truth, 1.0), blocks(stem - truth, 1.0)
    heard = own > 0.03 * own.mean()
    return min((decibels(o / max(e, 1e-12)) for o, e in zip(own[heard], error[heard])), default=float("nan"))


def band(sound: Signal, low: float, high: float) -> Signal:
    """Without phase shift."""
    sections = butter(6, (low, high), "bandpass", fs=RATE, output="sos")
    return np.asarray(sosfiltfilt(sections, sound, axis=0), np.float32)


def ideal_masks(info: Any, stems: dict[str, Signal]) -> dict[str, Signal]:
    """What the best real masks between 0 and 1 would give in a model's frames."""
    samples, channels = next(iter(stems.values())).shape
    spectra = Spectra((info.fft_size, info.window_size, info.hop_size), channels=channels)
    with torch.no_grad():
        spectrum = {
            name: spectra.transform(torch.from_numpy(stem.T.copy())[None]) for name, stem in stems.items()
        }
        mix = torch.stack(list(spectrum.values())).sum(0)
        power = mix.abs().square() + 1e-12
        masks = {name: ((s * mix.conj()).real / power).clamp(0, 1) for name, s in spectrum.items()}
        return {name: spectra.inverse(mask * mix, samples)[0].numpy().T for name, mask in masks.items()}


def bss(stems: dict[str, Signal], truths: dict[str, Signal]) -> dict[str, float]:
    """SDR of BSS Eval v4 by stem: the median over windows of a second, as the package museval has it."""
    from museval.metrics import bss_eval

    names = list(truths)
    values = bss_eval(
        np.stack([truths[n] for n in names]), np.stack([stems[n] for n in names]), window=RATE, hop=RATE
    )[0]
    return {name: float(np.nanmedian(row)) for name, row in zip(names, values)}


def stoi(stem: Signal, truth: Signal) -> float:
    """Short-time objective intelligibility of mono speech, 0 to 1, by the package pystoi."""
    from pystoi import stoi as calculate

    return float(calculate(truth[:, 0], stem[:, 0], RATE))


def interval(values: npt.ArrayLike) -> float:
    """Half of the 95% interval of the mean, from the t distribution."""
    from scipy.stats import t

    v = np.asarray(values, float)
    return float(t.ppf(0.975, len(v) - 1) * v.std(ddof=1) / np.sqrt(len(v))) if len(v) > 1 else float("nan")
