"""Networks as their authors write them: nothing here knows what they will run on.

Each takes and gives [batch, channels, time, frequency].
"""

from __future__ import annotations

import torch
from torch import Tensor, nn
from torch.nn import functional as F


class UNet(nn.Module):
    """Strided encoder and decoder over frequency with skips, on magnitudes, kernels causal by padding."""

    def __init__(self, channels: int = 1, width: int = 8, depth: int = 3, busses: int = 1) -> None:
        super().__init__()
        sizes = [channels] + [width * 2**k for k in range(depth)]
        self.down = nn.ModuleList(
            nn.Conv2d(sizes[k], sizes[k + 1], (2, 5), stride=(1, 2), padding=(0, 2)) for k in range(depth)
        )
        self.norms = nn.ModuleList(nn.BatchNorm2d(size) for size in sizes[1:])
        self.up = nn.ModuleList(
            nn.ConvTranspose2d(
                sizes[k + 1] * (1 if k == depth - 1 else 2), max(sizes[k], width), (1, 5), (1, 2), (0, 2)
            )
            for k in reversed(range(depth))
        )
        self.last = nn.Conv2d(width + channels, busses * channels, 1)

    def forward(self, x: Tensor) -> Tensor:
        skips = []
        y = x
        for conv, norm in zip(self.down, self.norms):
            skips.append(y)
            y = F.leaky_relu(norm(conv(F.pad(y, (0, 0, 1, 0)))), 0.2)
        for conv in self.up:
            skip = skips.pop()
            y = F.relu(conv(y))
            y = F.pad(y, (0, skip.shape[-1] - y.shape[-1]))
            y = torch.cat([y, skip], 1)
        return torch.sigmoid(self.last(y))


class TemporalConvNet(nn.Module):
    """Dilated one-dimensional convolutions over all bins of a frame, with residual and chomp."""

    class Block(nn.Module):
        def __init__(self, width: int, hidden: int, dilation: int) -> None:
            super().__init__()
            self.enter = nn.Conv1d(width, hidden, 1)
            self.first = nn.PReLU(hidden)
            self.depthwise = nn.Conv1d(
                hidden, hidden, 3, dilation=dilation, padding=2 * dilation, groups=hidden
            )
            self.norm = nn.BatchNorm1d(hidden)
            self.second = nn.PReLU()
            self.leave = nn.Conv1d(hidden, width, 1)
            self.chomp = 2 * dilation

        def forward(self, x: Tensor) -> Tensor:
            y = self.first(self.enter(x))
            y = self.depthwise(y)[:, :, : -self.chomp]
            return x + self.leave(self.second(self.norm(y)))

    def __init__(self, bins: int, width: int = 24, hidden: int = 32, blocks: int = 4) -> None:
        super().__init__()
        self.bottleneck = nn.Conv1d(bins, width, 1)
        self.blocks = nn.Sequential(*(self.Block(width, hidden, 2**k) for k in range(blocks)))
        self.mask = nn.Conv1d(width, bins, 1)

    def forward(self, x: Tensor) -> Tensor:
        y = x.squeeze(1).transpose(1, 2)  # [batch, bins, time]
        y = self.mask(self.blocks(self.bottleneck(y)))
        return F.relu(y).transpose(1, 2).unsqueeze(1)


class ComplexMaskNet(nn.Module):
    """Encoder and decoder over real and imaginary parts; the mask is multiplied as complex numbers are."""

    def __init__(self, width: int = 12) -> None:
        super().__init__()
        self.encode = nn.ModuleList(
            [nn.Conv2d(2, width, (2, 3), (1, 2), (1, 1)), nn.Conv2d(width, 2 * width, (2, 3), (1, 2), (1, 1))]
        )
        self.decode = nn.ModuleList(
            [
                nn.ConvTranspose2d(4 * width, width, (2, 3), (1, 2), (0, 1)),
                nn.ConvTranspose2d(2 * width, 2, (2, 3), (1, 2), (0, 1)),
            ]
        )
        self.norms = nn.ModuleList(nn.BatchNorm2d(n) for n in (width, 2 * width, width))
        self.middle = nn.Conv2d(2 * width, 2 * width, (1, 1))

    def forward(self, x: Tensor) -> Tensor:
        time = x.shape[2]
        a = F.elu(self.norms[0](self.encode[0](x)[:, :, :time]))
        b = F.elu(self.norms[1](self.encode[1](a)[:, :, :time]))
        y = torch.tanh(self.middle(b))
        y = F.elu(self.norms[2](self.decode[0](torch.cat([y, b], 1))[:, :, :time]))
        mask = self.decode[1](torch.cat([y, a], 1))[:, :, :time]
        re = x[:, :1] * mask[:, :1] - x[:, 1:] * mask[:, 1:]
        im = x[:, :1] * mask[:, 1:] + x[:, 1:] * mask[:, :1]
        return torch.cat([re, im], dim=1)


class SeparableNet(nn.Module):
    """Depthwise and pointwise convolutions with a gate, and one that is grouped."""

    def __init__(self, channels: int = 2, width: int = 16, layers: int = 3) -> None:
        super().__init__()
        self.enter = nn.Conv2d(channels, width, 1)
        self.pads = nn.ModuleList(nn.ZeroPad2d((1, 1, 2 * 2**k, 0)) for k in range(layers))
        self.depth = nn.ModuleList(
            nn.Conv2d(width, width, (3, 3), dilation=(2**k, 1), groups=width) for k in range(layers)
        )
        self.point = nn.ModuleList(nn.Conv2d(width, 2 * width, 1, groups=4) for _ in range(layers))
        self.act = nn.Hardsigmoid()
        self.leave = nn.Sequential(nn.Conv2d(width, channels, 1), nn.Softplus())

    def forward(self, x: Tensor) -> Tensor:
        y = self.enter(x / (x + 0.1))
        for pad, depth, point in zip(self.pads, self.depth, self.point):
            value, gate = point(depth(pad(y))).chunk(2, dim=1)
            y = y + value * self.act(gate)
        return self.leave(y).clamp(0.0, 1.0)


class AttentionNet(nn.Module):
    """Each slice looks back at a few before it, by softmax over the scores of its keys."""

    def __init__(self, bins: int, width: int = 12, history: int = 5) -> None:
        super().__init__()
        self.embed = nn.Conv2d(1, width, (1, 9), stride=(1, 4), padding=(0, 4))
        self.query, self.key, self.value = (nn.Conv2d(width, width, 1) for _ in range(3))
        self.spread = nn.Linear((bins - 1) // 4 + 1, bins)
        self.mask = nn.Conv2d(width, 1, 1)
        self.history, self.scale = history, width**-0.5

    def forward(self, x: Tensor) -> Tensor:
        time = x.shape[2]
        y = torch.relu(self.embed(x))
        q, k, v = self.query(y), self.key(y), self.value(y)
        past = [
            (F.pad(k, (0, 0, j, 0))[:, :, :time], F.pad(v, (0, 0, j, 0))[:, :, :time])
            for j in range(self.history)
        ]
        scores = torch.cat([(q * key).sum(1, keepdim=True) for key, _ in past], dim=1)
        weights = torch.softmax(scores * self.scale, dim=1)
        y = y + sum(weights[:, j : j + 1] * value for j, (_, value) in enumerate(past))
        return torch.sigmoid(self.mask(self.spread(y)))


class RecurrentNet(nn.Module):
    """A dense layer, a GRU over time, and a dense layer for the mask."""

    def __init__(self, bins: int, width: int = 24) -> None:
        super().__init__()
        self.enter = nn.Linear(bins, width)
        self.memory: nn.Module = nn.GRU(width, width, batch_first=True)
        self.leave = nn.Linear(width, bins)

    def forward(self, x: Tensor) -> Tensor:
        y = torch.tanh(self.enter(x.squeeze(1)))
        y, _ = self.memory(y)
        return torch.sigmoid(self.leave(y)).unsqueeze(1)
