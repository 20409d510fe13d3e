"""Whole pieces into stems."""

from __future__ import annotations

import os
from collections.abc import Callable, Mapping
from pathlib import Path
from typing import Optional, Union

from . import _core
from .files import ModelPath, find_model
from .files import shipped_models as shipped_models
from .layers import Floats
from .processor import find_bus, require_level

Progress = Callable[[int, Optional[int]], object]
Levels = Optional[Mapping[Union[str, int], float]]


def _make_controls(
    busses: list[str],
    gains: Levels,
    sensitivities: Levels,
    mask_extrapolation: bool,
    channels_per_group: int,
    resample: bool,
) -> _core.Controls:
    controls = _core.Controls()
    controls.gains = [
        (find_bus(busses, bus), require_level(gain, 0.0, 3.4e38)) for bus, gain in (gains or {}).items()
    ]
    controls.sensitivities = [
        (find_bus(busses, bus), require_level(value, -100.0, 100.0))
        for bus, value in (sensitivities or {}).items()
    ]
    controls.extrapolates_masks = mask_extrapolation
    controls.channels_per_group = channels_per_group
    controls.resamples = resample
    return controls


def _make_names(busses: list[str]) -> list[str]:
    """Names that come twice get a number."""
    names: list[str] = []
    for bus in busses:
        name, count = bus, 2
        while name in names:
            name, count = f"{bus}-{count}", count + 1
        names.append(name)
    return names


def separate(
    audio: Floats,
    sample_rate: float,
    model: ModelPath,
    *,
    resample: bool = False,
    channels_per_group: int = 0,
    gains: Levels = None,
    sensitivities: Levels = None,
    mask_extrapolation: bool = True,
    progress: Optional[Progress] = None,
) -> dict[str, Floats]:
    """All stems of a piece in one pass, aligned with it and as long.

    Parameters
    ----------
    audio : float32 array
        [channels, samples]; any strides.
    sample_rate : float
        Hertz, a whole number.
    model : path or str
        A file, or the name of a shipped model.
    resample : bool
        Run at the model's own rate, with conversion there and back. Without it the frames follow the sample
        rate by a power of two.
    channels_per_group : int
        Process so many channels at a time, each group by an engine of its own; 0 for all together.
    gains, sensitivities, mask_extrapolation
        As for `Processor`.
    progress : callable, optional
        Called some times a second with the samples done and those in all. What it raises ends the pass.

    Returns
    -------
    dict of bus name to float32 array [channels, samples]
        The residual last. Without gains and sensitivities the stems add up to the input.

    Raises
    ------
    TypeError, ValueError
        The array is not float32, or not [channels, samples]; a number is out of its range.
    FileNotFoundError, ModelError
        No such model; no model in the file, or one whose numbers make a frame impossible.
    """
    if sample_rate != int(sample_rate) or not 1 <= sample_rate < 2**31:
        raise ValueError(f"wanted a whole number of hertz, got {sample_rate!r}")
    found = find_model(model)
    busses = _core.get_bus_names(found)
    controls = _make_controls(busses, gains, sensitivities, mask_extrapolation, channels_per_group, resample)
    stems = _core.separate(found, audio, int(sample_rate), controls, progress)
    return dict(zip(_make_names(busses), stems))


def separate_file(
    path: Union[str, os.PathLike[str]],
    model: ModelPath,
    folder: Union[str, os.PathLike[str]],
    *,
    format: Optional[str] = None,
    sample_format: Optional[str] = None,
    resample: bool = False,
    channels_per_group: int = 0,
    gains: Levels = None,
    sensitivities: Levels = None,
    mask_extrapolation: bool = True,
    progress: Optional[Progress] = None,
) -> dict[str, Path]:
    """From a file to one file for each bus, in memory that does not grow with its length.

    Parameters
    ----------
    path : path
        An audio file of any format that libsndfile reads.
    model : path or str
        A file, or the name of a shipped model.
    folder : path
        Where the stems go; made if it is not there. A stem appears when all are complete.
    format : str, optional
        Extension of the stems, such as "wav" or "flac"; that of the input unless given.
    sample_format : str, optional
        "pcm16", "pcm24", "pcm32", "float" or "double"; that of the input unless given.
    resample, channels_per_group, gains, sensitivities, mask_extrapolation, progress
        As for `separate`; progress is given None for a length that is not known.

    Returns
    -------
    dict of bus name to Path

    Raises
    ------
    OSError
        The input cannot be read, or an output cannot be written.
    ValueError, ModelError
        As for `separate`, and for a format that cannot hold the audio.
    """
    found = find_model(model)
    busses = _core.get_bus_names(found)
    controls = _make_controls(busses, gains, sensitivities, mask_extrapolation, channels_per_group, resample)
    extension = (format or "").lstrip(".")
    paths = _core.separate_file(
        found, os.fspath(path), os.fspath(folder), extension, sample_format or "", controls, progress
    )
    return dict(zip(_make_names(busses), map(Path, paths)))
