"""Normalisation, activations, and the layers of this package that keep their shape."""

from __future__ import annotations

import math
from typing import Any, Optional

import numpy as np
from torch import nn

from ... import layers as records
from .. import layers as ours
from .arithmetic import multiply_values
from .lowering import Lowering
from .registry import ModuleHandler, for_functions, for_modules, functions, modules, unknown_operation
from .tracing import Obstacle
from .values import Array, Value, numbers, weights_of


@for_modules(nn.BatchNorm2d, nn.BatchNorm1d)
def _batch_norm(low: Lowering, module: nn.BatchNorm2d, value: Value) -> Value:
    if module.running_mean is None or module.running_var is None:
        raise Obstacle("BatchNorm without running statistics", "track_running_stats=True")
    scale = (module.running_var.double() + module.eps).rsqrt()
    weight = scale if module.weight is None else scale * module.weight.double()
    shift = -module.running_mean.double() * weight
    if module.bias is not None:
        shift = shift + module.bias.double()
    gain, offset = numbers(weight), numbers(shift)
    value = low.settle(value)
    if value.axes[1] == ("f",):
        return _per_frequency(low, value, gain, offset)
    source = low.by_name.get(value.layer)
    before = low.node.all_input_nodes[0]
    layer = source.record if source else None
    if isinstance(layer, (records.Conv, records.TransposedConv)) and len(before.users) == 1 and source:
        weights = np.asarray(layer.weights)
        if isinstance(layer, records.Conv):
            layer.weights = weights * gain
        elif weights.shape[2] == 1 and value.channels > 1:
            layer.weights = weights * gain  # channel-wise: inputs are outputs
        else:
            layer.weights = weights * gain[:, None]
        layer.bias = offset if layer.bias is None else np.asarray(layer.bias) * gain + offset
        return value
    return low.affine(value, gain, offset)


def _per_frequency(low: Lowering, value: Value, gain: Array, offset: Array) -> Value:
    bands: list[tuple[int, records.Weights]] = [(k, gain[k : k + 1]) for k in range(value.frequencies)]
    scaled = low.add(
        value, "gain", records.FrequencyRescale(bands), multiply_adds=value.frequencies * value.channels
    )
    return low.offset(scaled, np.repeat(offset[:, None], value.channels, 1), "")


@for_modules(ours.ChannelGain)
def _channel_gain(low: Lowering, module: ours.ChannelGain, value: Value) -> Value:
    return low.affine(value, numbers(module.gain), numbers(module.offset))


@for_modules(ours.RMSNorm)
def _rms_norm(low: Lowering, module: ours.RMSNorm, value: Value) -> Value:
    value = low.settle(value)
    offset = None if module.offset is None else numbers(module.offset)
    return low.add(
        value,
        "",
        records.Norm(numbers(module.gain), offset, mode=1),
        multiply_adds=2 * value.frequencies * value.channels,
    )


@for_modules(ours.LevelNorm)
def _level_norm(low: Lowering, module: ours.LevelNorm, value: Value) -> Value:
    weight = numbers(module.weight)
    return low.activation(value, records.PreNorm(np.concatenate([weight[:1], weight[:0:-1]])))


@for_modules(ours.LevelFollower)
def _level_follower(low: Lowering, module: ours.LevelFollower, value: Value) -> Value:
    if not math.isclose(module.scale, low.level_scale, rel_tol=1e-6):
        raise Obstacle(
            f"its scale is {module.scale}, and the engine's {low.level_scale} for this packing",
            "scale=spectra.level_scale",
        )
    return low.activation(value, records.ARPreNorm(module.attack, module.release, module.epsilon))


@for_modules(ours.FrequencyRescale)
def _frequency_rescale(low: Lowering, module: ours.FrequencyRescale, value: Value) -> Value:
    value = low.settle(value)
    taps = np.split(numbers(module.taps), np.cumsum(module.counts)[:-1])
    return low.add(
        value,
        "",
        records.FrequencyRescale(list(zip(module.first, taps))),
        frequencies=module.output_frequencies,
        multiply_adds=sum(module.counts) * value.channels,
    )


@for_modules(ours.FrequencyDense)
def _frequency_dense(low: Lowering, module: ours.FrequencyDense, value: Value) -> Value:
    weight, bias = weights_of(module)
    return low.add(low.settle(value), "", records.Dense(weight, bias), multiply_adds=int(weight.size))


@for_modules(ours.SeparableChannelConv)
def _separable(low: Lowering, module: ours.SeparableChannelConv, value: Value) -> Value:
    value = low.settle(value)
    time, frequency = numbers(module.time_kernel), numbers(module.frequency_kernel)
    if module.look_ahead:
        raise_at = "and the engine does not report it as latency"
        low.notes.append(f"{low.node.name}: waits for {module.look_ahead} slices, {raise_at}")
    return low.add(
        value,
        "",
        records.SeparableChannelConv(np.roll(time, -1), frequency),
        multiply_adds=value.frequencies * value.channels * (len(time) + len(frequency)),
    )


@for_modules(ours.SelfAttention)
def _self_attention(low: Lowering, module: ours.SelfAttention, value: Value) -> Value:
    value = low.settle(value)
    matrix, bias = numbers(module.channel_matrix), numbers(module.position_bias)
    times = None if module.time_weight is None else numbers(module.time_weight)
    history = 0 if times is None else len(times)
    return low.add(
        value,
        "",
        records.SelfAttention(matrix, bias, module.look_ahead, times),
        multiply_adds=value.frequencies * value.channels * (value.channels + history),
    )


@for_modules(nn.Dropout, nn.Dropout2d, nn.Dropout1d, nn.Identity)
def _nothing_to_do(low: Lowering, module: nn.Module, value: Value) -> Value:
    return value


@for_functions("relu")
def _relu(low: Lowering, value: Value, inplace: bool = False) -> Value:
    return low.activation(value, records.ReLU())


@for_functions("elu")
def _elu(low: Lowering, value: Value, alpha: float = 1.0, inplace: bool = False) -> Value:
    if alpha == 1.0:
        return low.activation(value, records.ELU())
    # alpha elu(x) + (1 - alpha) relu(x)
    value = low.settle(value)
    bent = low.affine(low.activation(value, records.ELU(), "elu"), alpha, 0.0, "scaled")
    straight = low.affine(low.activation(value, records.ReLU(), "relu"), 1.0 - alpha, 0.0, "scaled")
    return low.arithmetic(2, [bent, straight])


@for_functions("leaky_relu")
def _leaky_relu(low: Lowering, value: Value, negative_slope: float = 0.01, inplace: bool = False) -> Value:
    return low.activation(value, records.LeakyReLU(negative_slope))


@for_functions("sigmoid")
def _sigmoid(low: Lowering, value: Value) -> Value:
    return low.activation(value, records.Sigmoid())


@for_functions("hardsigmoid")
def _hardsigmoid(low: Lowering, value: Value, inplace: bool = False) -> Value:
    return low.activation(value, records.HardSigmoid())


@for_functions("softplus")
def _softplus(low: Lowering, value: Value, beta: float = 1.0, threshold: float = 20.0) -> Value:
    if beta == 1.0:
        return low.activation(value, records.Softplus())
    inner = low.activation(low.affine(value, beta, 0.0, "beta"), records.Softplus(), "softplus")
    return low.affine(inner, 1.0 / beta, 0.0)


@for_functions("tanh")
def _tanh(low: Lowering, value: Value) -> Value:
    """With a = elu(-2 |x|), which is exp(-2 |x|) - 1, the tangent of |x| is -a / (2 + a)."""
    value = low.settle(value)

    def half(sign: float, suffix: str) -> Value:
        side = low.activation(low.affine(value, sign, 0.0, "side"), records.ReLU(), "side")
        bent = low.activation(low.affine(side, -2.0, 0.0, "side"), records.ELU(), "side")
        return low.arithmetic(
            1, [low.affine(bent, 1.0, 2.0, suffix), low.affine(bent, -1.0, 0.0, suffix)], suffix
        )

    return low.arithmetic(3, [half(-1.0, "below"), half(1.0, "above")])


@for_functions("abs", "absolute")
def _abs(low: Lowering, value: Value) -> Value:
    value = low.settle(value)
    below = low.activation(low.affine(value, -1.0, 0.0, "below"), records.ReLU(), "below")
    return low.arithmetic(2, [low.activation(value, records.ReLU(), "above"), below])


@for_functions("clamp", "clip", "hardtanh")
def _clamp(low: Lowering, value: Value, min: Any = None, max: Any = None, **_: Any) -> Value:
    value = low.settle(value)
    if min == 0 and max is None:
        return low.activation(value, records.ReLU())
    if min is not None:
        above = low.activation(low.affine(value, 1.0, -float(min), "above"), records.ReLU(), "above")
        value = low.affine(above, 1.0, float(min), "" if max is None else "raised")
    if max is not None:
        below = low.activation(low.affine(value, -1.0, float(max), "below"), records.ReLU(), "below")
        value = low.affine(below, -1.0, float(max))
    return value


@for_functions("square")
def _square(low: Lowering, value: Value) -> Value:
    return multiply_values(low, value, value)


@for_functions("pow")
def _pow(low: Lowering, value: Value, exponent: Any) -> Value:
    if exponent != 2:
        raise unknown_operation("sqrt")
    return multiply_values(low, value, value)


@for_functions("softmax")
def _softmax(low: Lowering, value: Value, dim: Optional[int] = None, **_: Any) -> Value:
    """Over channels. With the largest taken off, exp(x) is elu(x) + 1."""
    value = low.settle(value)
    if dim is None or value.axes[dim] != ("c",):
        raise Obstacle("softmax over another dimension than channels", "scores side by side in the channels")
    count = value.channels
    largest, shift = value, 1
    while shift < count:
        turned = low.mix_channels(largest, np.roll(np.eye(count, dtype=np.float32), shift, 0), None, "turn")
        excess = low.activation(low.arithmetic(3, [largest, turned], "excess"), records.ReLU(), "excess")
        largest = low.arithmetic(2, [largest, excess], "largest")
        shift *= 2
    if count > 1:
        value = low.arithmetic(3, [largest, value], "below")
    else:
        value = low.affine(value, 0.0, 0.0, "below")
    powers = low.affine(low.activation(value, records.ELU(), "power"), 1.0, 1.0, "power")
    total = low.mix_channels(powers, np.ones((count, count), np.float32), None, "total")
    return low.arithmetic(1, [total, powers])


def _module_as_function(name: str, *fields: str) -> ModuleHandler:
    def handler(low: Lowering, module: nn.Module, value: Value) -> Any:
        options = {field: getattr(module, field) for field in fields}
        return functions[name](low, value, **options)

    return handler


modules.update(
    {
        nn.ReLU: _module_as_function("relu"),
        nn.ELU: _module_as_function("elu", "alpha"),
        nn.LeakyReLU: _module_as_function("leaky_relu", "negative_slope"),
        nn.Sigmoid: _module_as_function("sigmoid"),
        nn.Hardsigmoid: _module_as_function("hardsigmoid"),
        nn.Softplus: _module_as_function("softplus", "beta"),
        nn.Tanh: _module_as_function("tanh"),
        nn.Softmax: _module_as_function("softmax", "dim"),
        nn.SiLU: lambda low, module, value: multiply_values(low, value, _sigmoid(low, value)),
    }
)


@for_functions("silu")
def _silu(low: Lowering, value: Value, inplace: bool = False) -> Value:
    return multiply_values(low, value, _sigmoid(low, value))


@for_modules(nn.PReLU)
def _prelu(low: Lowering, module: nn.PReLU, value: Value) -> Value:
    slope = numbers(module.weight)
    if len(slope) == 1:
        return low.activation(value, records.LeakyReLU(float(slope[0])))
    # slope x + (1 - slope) relu(x)
    value = low.settle(value)
    above = low.affine(low.activation(value, records.ReLU(), "above"), 1.0 - slope, 0.0, "scaled")
    return low.arithmetic(2, [above, low.affine(value, slope, 0.0, "slope")])
