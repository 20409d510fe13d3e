"""What surrounds a network when it runs: frames, transform, packing, masks, overlap-add."""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence
from typing import Literal, NamedTuple

import torch
from torch import Tensor, nn
from torch.nn import functional

from ..packings import ComplexGroups, FrameHistory, Magnitudes, Packing

Network = Callable[[Tensor], Tensor]


class Analysis(NamedTuple):
    """What a stretch of audio becomes.

    Attributes
    ----------
    features : Tensor
        [batch, columns, frames, rows], real: what the network takes.
    spectrum : Tensor
        [batch, channels, frames, fft_size // 2 + 1], complex: what masks are applied to.
    """

    features: Tensor
    spectrum: Tensor


def _hann(length: int) -> Tensor:
    """The Hann window that stands half a sample off, so that it is symmetric and never 0; float64."""
    positions = torch.arange(length, dtype=torch.float64) + 0.5
    return 0.5 - 0.5 * torch.cos(2.0 * math.pi / length * positions)


def _windows(fft_size: int, window_size: int, hop_size: int) -> tuple[Tensor, Tensor]:
    """Analysis and synthesis window, each [window_size], rounded to float32 where the engine rounds."""
    if window_size < 3 * hop_size:
        root = _hann(window_size).sqrt().float()
        return root, root * (1.0 / fft_size)
    analysis = _hann(window_size).float()
    synthesis = torch.zeros(window_size)
    start = (window_size - 2 * hop_size) // 2
    synthesis[start : start + 2 * hop_size] = _hann(2 * hop_size).float()
    return analysis, synthesis / (analysis * float(window_size))


class Spectra(nn.Module):
    """From audio to what the engine feeds to a network, and from its results back to audio. Differentiable.

    What is trained inside of it is what runs later: results differ from the engine's by rounding alone.

    Parameters
    ----------
    frames : (int, int, int)
        Samples of the transform (a power of two), of the window and of the hop. The transform is at least as
        long as the window, and the window at least two hops. Only windows of two or of four hops, and for
        four hops only a transform as long as the window, give back what went in.
    packing : Packing, optional
        How spectra lie in the network's input. All bins as `Magnitudes` unless given.
    output_packing : Packing, optional
        How results lie in its output; only its kind is used, the numbers are the input's. As the input
        unless given.
    channels : int
        Channels of the model. Audio with another number has all of its channels averaged for the network.
    busses : sequence of str
        Names of the outputs, the residual last.
    mode : "mask" or "spectrum"
        Whether results are complex masks for the input or the spectra of the busses.
    mask_extrapolation : bool
        Whether bins that the network does not see follow the smoothed magnitude of those below; otherwise
        they are 0.
    sample_rate : float
        Hertz; kept for the export.

    Examples
    --------
    >>> spectra = Spectra((2048, 2048, 1024), channels=2, busses=["Voice", "Rest"])
    >>> stems = spectra(audio, network)          # [batch, 2 busses, 2 channels, samples]
    """

    analysis_window: Tensor
    synthesis_window: Tensor
    smoothing: Tensor
    shares: Tensor

    def __init__(
        self,
        frames: tuple[int, int, int] = (2048, 2048, 512),
        packing: Packing | None = None,
        *,
        output_packing: Packing | None = None,
        channels: int = 1,
        busses: Sequence[str] = ("Processed", "Residual"),
        mode: Literal["mask", "spectrum"] = "mask",
        mask_extrapolation: bool = True,
        sample_rate: float = 48000.0,
    ) -> None:
        super().__init__()
        fft_size, window_size, hop_size = frames
        if fft_size < 4 or fft_size & (fft_size - 1):
            raise ValueError(f"the transform takes a power of two of samples, not {fft_size}")
        if hop_size < 1 or not 2 * hop_size <= window_size <= fft_size:
            raise ValueError(
                f"frames {frames}: a window takes at least two hops and at most the transform's samples"
            )
        if not busses or channels < 1:
            raise ValueError("a model takes a channel and the name of the residual at least")
        if mode not in ("mask", "spectrum"):
            raise ValueError(f'mode is "mask" or "spectrum", not {mode!r}')
        self.fft_size, self.window_size, self.hop_size = fft_size, window_size, hop_size
        self.packing = packing if packing is not None else Magnitudes(fft_size // 2 + 1)
        self.output_packing = output_packing if output_packing is not None else self.packing
        self.channels = channels
        self.busses = tuple(busses)
        self.mode = mode
        self.mask_extrapolation = mask_extrapolation
        self.sample_rate = sample_rate
        self._check_packings()

        analysis, synthesis = _windows(fft_size, window_size, hop_size)
        bins = self.packing.all_bins
        # The level of a bin counts the less, the further it lies below the hidden ones.
        smoothing = 0.02 * 0.98 ** torch.arange(bins - 1, -1, -1, dtype=torch.float64)
        places = torch.arange(bins - self.packing.fine_bins) % self.packing.group_size
        self.register_buffer("analysis_window", analysis, persistent=False)
        self.register_buffer("synthesis_window", synthesis, persistent=False)
        self.register_buffer("smoothing", smoothing.float(), persistent=False)
        self.register_buffer("shares", places.float() / self.packing.group_size, persistent=False)

    def _check_packings(self) -> None:
        for packing in (self.packing, self.output_packing):
            if isinstance(packing, FrameHistory):
                raise ValueError("no conversion is defined for FrameHistory: a network cannot run on it")
        packing = self.packing
        if not 1 <= packing.all_bins <= self.fft_size // 2 + 1 or packing.fine_bins < 0:
            raise ValueError(
                f"{packing}: a transform of {self.fft_size} samples has {self.fft_size // 2 + 1} bins"
            )
        if not 1 <= packing.group_size <= 127:
            raise ValueError(f"{packing}: a group holds 1 to 127 bins")
        if (packing.all_bins - packing.fine_bins) % packing.group_size:
            raise ValueError(f"{packing}: the bins above the fine ones have to fill whole groups")
        if packing.group_size > 1 and not isinstance(self.output_packing, ComplexGroups):
            raise ValueError("results of grouped rows can only be read back as groups")

    # ---- what a network meets -----------------------------------------------------------------------

    @property
    def input_shape(self) -> tuple[int, int]:
        """Channels and frequencies of the network's input."""
        return self.channels * self.packing.columns_per_channel, self.packing.rows

    @property
    def output_shape(self) -> tuple[int, int]:
        """Channels and frequencies of the network's output."""
        busses = len(self.busses) - 1
        return busses * self.channels * self.output_packing.columns_per_channel, self.packing.rows

    @property
    def level_scale(self) -> float:
        """What the engine multiplies levels by in a `LevelFollower`, so that packings are measured alike."""
        packing = self.packing
        if packing.all_bins < self.fft_size // 2 or packing.group_size != 1:
            return 1.0
        columns, rows = self.input_shape
        return math.sqrt(columns * rows / (self.channels * (self.fft_size // 2 + 1)))

    @property
    def frame_latency(self) -> int:
        """Samples that a model without look-ahead delays audio by."""
        return self.hop_size * (2 if self.window_size < 3 * self.hop_size else 3)

    # ---- audio to features ----------------------------------------------------------------------------

    def count_frames(self, samples: int, look_ahead: int = 0) -> int:
        """Frames that it takes to give back so many samples, with so many frames of look-ahead."""
        return -(-samples // self.hop_size) + 1 + look_ahead

    def transform(self, audio: Tensor, look_ahead: int = 0) -> Tensor:
        """Spectra of all frames that the audio reaches.

        Parameters
        ----------
        audio : Tensor
            [batch, channels, samples]
        look_ahead : int
            Further frames behind the end, for networks that hold back so many.

        Returns
        -------
        Tensor
            [batch, channels, frames, fft_size // 2 + 1], complex, without any scaling
        """
        if audio.dim() != 3:
            raise ValueError(f"audio is [batch, channels, samples]; this is {tuple(audio.shape)}")
        samples = audio.shape[-1]
        head = self.window_size - self.hop_size * (1 if self.window_size < 3 * self.hop_size else 2)
        frames = self.count_frames(samples, look_ahead)
        length = (frames - 1) * self.hop_size + self.window_size
        padded = functional.pad(audio, (head, max(0, length - head - samples)))[..., :length]
        blocks = padded.unfold(-1, self.window_size, self.hop_size) * self.analysis_window
        if self.fft_size > self.window_size:
            blocks = functional.pad(blocks, (self.fft_size - self.window_size, 0))
        return torch.fft.rfft(blocks)

    def pack(self, spectrum: Tensor) -> Tensor:
        """[batch, channels, frames, bins] complex -> [batch, columns, frames, rows] real."""
        if spectrum.shape[1] != self.channels:
            spectrum = spectrum.mean(1, keepdim=True).expand(-1, self.channels, -1, -1)
        packing = self.packing
        fine, bins = packing.fine_bins, packing.all_bins
        seen = spectrum[..., :bins]
        if packing.columns_per_channel == 1:
            if fine == 0:
                return seen.abs()
            parts = torch.view_as_real(seen[..., :fine])
            rectified = torch.cat([parts, -parts], -1).clamp(min=0.0).flatten(-2)
            return torch.cat([rectified, seen[..., fine:].abs()], -1)
        if packing.group_size > 1:
            group = packing.group_size
            grouped = seen[..., fine : fine + (bins - fine) // group * group]
            seen = torch.cat([seen[..., :fine], grouped.unflatten(-1, (-1, group)).mean(-1)], -1)
        pairs = torch.view_as_real(seen)  # [batch, channels, frames, rows, 2]
        return pairs.permute(0, 1, 4, 2, 3).flatten(1, 2)

    def analyse(self, audio: Tensor, look_ahead: int = 0) -> Analysis:
        """`transform` and `pack` at once; see there."""
        spectrum = self.transform(audio, look_ahead)
        return Analysis(self.pack(spectrum), spectrum)

    # ---- results to audio -----------------------------------------------------------------------------

    def unpack(self, results: Tensor) -> Tensor:
        """[batch, columns, frames, rows] real -> [batch, busses, channels, frames, bins] complex.

        The residual is not among the busses here.
        """
        columns, rows = self.output_shape
        if results.dim() != 4 or results.shape[1] != columns or results.shape[3] != rows:
            raise ValueError(
                f"results are [batch, {columns}, frames, {rows}]; these are {list(results.shape)}"
            )
        packing = self.packing
        fine, bins = packing.fine_bins, packing.all_bins
        by_bus = results.unflatten(1, (len(self.busses) - 1, self.channels, -1))
        if self.output_packing.columns_per_channel == 2:
            seen = torch.view_as_complex(by_bus.movedim(3, -1).contiguous())[..., :bins]
            if self.output_packing.code == ComplexGroups.code:
                seen = self._spread_groups(seen)
        else:
            real = by_bus.squeeze(3)
            parts = real[..., : 4 * fine].unflatten(-1, (fine, 4)) if fine else real[..., :0].unsqueeze(-1)
            plain = real[..., 4 * fine : 3 * fine + bins]
            seen = torch.complex(plain, torch.zeros_like(plain))
            if fine:
                fine_values = torch.complex(parts[..., 0] - parts[..., 2], parts[..., 1] - parts[..., 3])
                seen = torch.cat([fine_values, seen], -1)

        hidden = self.fft_size // 2 + 1 - bins
        if hidden == 0:
            return seen
        smoothed = (seen.abs() * self.smoothing).sum(-1, keepdim=True)
        if not self.mask_extrapolation:
            smoothed = torch.zeros_like(smoothed)
        above = torch.complex(smoothed, torch.zeros_like(smoothed))
        return torch.cat([seen, above.expand(*seen.shape[:-1], hidden)], -1)

    def _spread_groups(self, rows: Tensor) -> Tensor:
        """From each row of a group to the next in a straight line, and from the last one to zero."""
        packing = self.packing
        fine, bins, group = packing.fine_bins, packing.all_bins, packing.group_size
        rest = bins - fine
        index = torch.arange(rest, device=rows.device) // group
        padded = torch.view_as_complex(functional.pad(torch.view_as_real(rows), (0, 0, 0, 1)))[..., fine:]
        has_next = torch.arange(fine, bins, device=rows.device) + group < bins
        here, following = padded[..., index], padded[..., index + 1] * has_next
        return torch.cat([rows[..., :fine], (1.0 - self.shares) * here + self.shares * following], -1)

    def mix(self, results: Tensor, spectrum: Tensor) -> Tensor:
        """Spectra of all busses, the residual last.

        Parameters
        ----------
        results : Tensor
            [batch, columns, frames, rows], the network's output. Result k belongs to frame k, so a network
            that holds frames back has fewer results than there are frames; what one with strides makes beyond
            the last frame is left out.
        spectrum : Tensor
            [batch, channels, frames, bins], from `transform`

        Returns
        -------
        Tensor
            [batch, busses, channels, frames of results, bins], complex
        """
        busses = self.unpack(results[:, :, : spectrum.shape[2]])
        frames = spectrum[:, None, :, : busses.shape[3]]
        if busses.shape[2] != spectrum.shape[1]:
            busses = busses.mean(2, keepdim=True).expand(-1, -1, spectrum.shape[1], -1, -1)
        if self.mode == "mask":
            busses = busses * frames
        return torch.cat([busses, frames - busses.sum(1, keepdim=True)], 1)

    def inverse(self, spectrum: Tensor, samples: int | None = None) -> Tensor:
        """Overlap-add. [..., frames, fft_size // 2 + 1] complex -> [..., samples].

        Two frames make a hop, so n frames give (n - 1) * hop_size samples, and sample 0 is sample 0 of what
        went into `transform`.
        """
        window, hop = self.window_size, self.hop_size
        time = torch.fft.irfft(spectrum, n=self.fft_size, norm="forward")
        blocks = time[..., self.fft_size - window :] * self.synthesis_window
        newest = window - hop * (1 if window < 3 * hop else 2)
        older = blocks[..., :-1, newest : newest + hop]
        newer = blocks[..., 1:, newest - hop : newest]
        audio = (older + newer).flatten(-2)
        return audio if samples is None else audio[..., :samples]

    def synthesise(self, results: Tensor, spectrum: Tensor, samples: int | None = None) -> Tensor:
        """`mix` and `inverse` at once: [batch, busses, channels, samples], the residual last."""
        return self.inverse(self.mix(results, spectrum), samples)

    def forward(self, audio: Tensor, network: Network, look_ahead: int = 0) -> Tensor:
        """Separates audio by a network.

        Parameters
        ----------
        audio : Tensor
            [batch, channels, samples]
        network : callable
            features [batch, columns, frames, rows] -> results of the same layout with the columns of
            `output_shape`, and `look_ahead` frames fewer where it holds some back
        look_ahead : int
            Frames that the network holds back.

        Returns
        -------
        Tensor
            [batch, busses, channels, samples], the residual last, aligned with the input
        """
        features, spectrum = self.analyse(audio, look_ahead)
        return self.synthesise(network(features), spectrum, audio.shape[-1])
