"""How well a stem fits the truth, in decibels."""

from __future__ import annotations

import numpy as np
import numpy.typing as npt

Signal = npt.NDArray[np.float32]  # [samples, channels] or [samples]


def decibels(power: float) -> float:
    return 10 * float(np.log10(max(power, 1e-20)))


def si_sdr(estimate: Signal, truth: Signal) -> float:
    """Scale-invariant signal-to-distortion ratio, channels as one vector (Le Roux et al., ICASSP 2019)."""
    e, s = estimate.astype(np.float64).ravel(), truth.astype(np.float64).ravel()
    scaled = s * (e @ s / max(float(s @ s), 1e-20))
    return decibels(float(scaled @ scaled) / max(float(np.square(e - scaled).sum()), 1e-20))


def sdr(estimate: Signal, truth: Signal) -> float:
    """The plain ratio of the truth's energy to the error's."""
    s = truth.astype(np.float64).ravel()
    error = estimate.astype(np.float64).ravel() - s
    return decibels(float(s @ s) / max(float(error @ error), 1e-20))


def interval(values: npt.ArrayLike) -> float:
    """Half of the 95% interval of the mean, from the t distribution."""
    from scipy.stats import t

    v = np.asarray(values, float)
    return float(t.ppf(0.975, len(v) - 1) * v.std(ddof=1) / np.sqrt(len(v))) if len(v) > 1 else float("nan")
