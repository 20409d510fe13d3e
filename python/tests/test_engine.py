"""The compiled part: streams, whole pieces, tensors, files, and what is refused."""

from __future__ import annotations

import threading
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest
import zevrant
from zevrant import layers as zl
from zevrant.layers import Floats

model = "harmonic-percussive"
root = Path(__file__).resolve().parents[2]


def make_noise(*shape: int) -> Floats:
    return 0.2 * np.random.default_rng(len(shape)).standard_normal(shape).astype(np.float32)


def test_blocks_of_any_length_and_layout_make_the_same_sound() -> None:
    audio = make_noise(2, 20000)
    whole = zevrant.Processor(model, 2, 48000)
    wanted = np.concatenate([whole.process(audio), whole.flush()], axis=1)
    assert wanted.shape == (2, 20000 + whole.latency) and not wanted[:, : whole.latency].any()
    stems = zevrant.separate(audio, 48000, model)
    assert np.abs(sum(stems.values()) - wanted[:, whole.latency :]).max() < 1e-6  # the mix of all busses

    with zevrant.Processor(model, 2, 48000) as processor:
        for turn in range(2):  # flush starts anew
            parts, start, random = [], 0, np.random.default_rng(turn)
            interleaved = np.ascontiguousarray(audio.T).T  # strides of a file that was read by frames
            while start < audio.shape[1]:
                size = int(random.choice([0, 1, 7, 480, 4096]))
                source = audio if turn == 0 else interleaved
                parts.append(processor.process(source[:, start : start + size]))
                assert parts[-1].shape[1] == min(size, audio.shape[1] - start)
                start += size
            assert np.array_equal(np.concatenate([*parts, processor.flush()], axis=1), wanted)


def test_controls_follow_names_and_places() -> None:
    processor = zevrant.Processor(model, 2, 48000)
    assert list(processor.gains) == processor.busses == ["Harmonic", "Percussive"]
    processor.gains["Harmonic"], processor.gains[1] = 0.0, 0.0
    processor.sensitivities["Percussive"] = 30
    processor.mask_extrapolation = False
    assert dict(processor.gains) == {"Harmonic": 0.0, "Percussive": 0.0}
    assert processor.sensitivities[1] == 30.0 and not processor.mask_extrapolation
    out = np.concatenate([processor.process(make_noise(2, 30000)), processor.flush()], axis=1)
    assert not out.any()
    stems = zevrant.separate(make_noise(2, 9000), 48000, model, gains={"Harmonic": 0.0})
    assert not stems["Harmonic"].any() and stems["Percussive"].any()


def test_separating_a_file_is_separating_its_samples(tmp_path: Path) -> None:
    soundfile = pytest.importorskip("soundfile")
    audio, rate = soundfile.read(root / "demo/mixture.flac", dtype="float32", always_2d=True)
    calls: list[tuple[int, int | None]] = []
    paths = zevrant.separate_file(
        root / "demo/mixture.flac",
        model,
        tmp_path / "deep" / "stems",
        format="wav",
        sample_format="float",
        progress=lambda done, total: calls.append((done, total)),
    )
    stems = zevrant.separate(np.asarray(audio.T), rate, model)
    assert list(paths) == list(stems) and calls[-1] == (len(audio), len(audio))
    for bus, path in paths.items():
        assert np.array_equal(soundfile.read(path, dtype="float32", always_2d=True)[0].T, stems[bus])
    summed = sum(zevrant.separate(np.asarray(audio.T), 44100, model, resample=True).values())
    assert np.abs(summed - audio.T).max() < 1e-5


def test_a_model_that_is_read_and_written_again_is_the_same() -> None:
    for name in zevrant.shipped_models():
        original = zevrant.Model(name)
        info = original.info
        kinds = {1: zl.Magnitudes(info.bins), 4: zl.ComplexBins(info.bins)}
        writer = zevrant.ModelWriter(info.name).set_info_text(info.info_text)
        writer.set_sample_rate(info.sample_rate).set_channels(info.input_channels, info.output_channels)
        writer.set_frames(info.fft_size, info.window_size, info.hop_size)
        writer.set_packing(info.packing, kinds[info.output_packing])
        writer.set_busses(info.busses).set_processing_mode(info.processing_mode)
        for layer_name, layer in original.layers.items():
            writer.add_layer(layer_name, layer.sources, layer.record)
        copy = zevrant.Model(writer.set_output(original.output).to_bytes())
        assert copy.info == info and copy.layers.keys() == original.layers.keys()
        tensor = np.abs(make_noise(12, info.rows, info.columns))
        first, second = original.push(tensor), copy.push(tensor)
        assert first is not None and second is not None and np.array_equal(first, second)
        # Listening to layers changes nothing, and the stream of push goes on.
        outputs = original.layer_outputs(tensor)
        everything = original.layer_outputs(tensor, ["output", "input"])
        assert np.array_equal(everything["input"], tensor) and np.array_equal(everything["output"], first)
        assert np.array_equal(outputs[original.output], first)
        original.reset()
        slices = [original.push(tensor[t : t + 1]) for t in range(len(tensor))]
        assert np.array_equal(np.concatenate([s for s in slices if s is not None]), first)
        assert set(original.layer_times(tensor)) == set(original.layers)


def test_every_record_goes_through_the_writer() -> None:
    ones = np.ones
    rows: list[tuple[zl.Layer, tuple[int, int]]] = [
        (zl.Conv(ones((2, 3, 1, 2)), ones(2), frequency_stride=2), (4, 2)),
        (zl.TransposedConv(ones((1, 2, 3, 2)), ones(3), frequency_stride=2), (8, 3)),
        (zl.Norm(ones(3), ones(3)), (8, 3)),
        (zl.Norm(ones(3), mode=1), (8, 3)),
        (zl.PreNorm(ones(3)), (8, 3)),
        (zl.ARPreNorm(0.5, 0.9, 1e-3), (8, 3)),
        (zl.Dense(ones((8, 8, 3)), ones((8, 3))), (8, 3)),
        (zl.SeparableChannelConv(ones(2), ones(3)), (8, 3)),
        (zl.SelfAttention(np.eye(3), ones((8, 3)), 0, ones((2, 3))), (8, 3)),
        (zl.FrequencyRescale([(0, [1.0, 2.0]), (6, [1, 1])]), (2, 3)),
        *((kind(), (2, 3)) for kind in (zl.ReLU, zl.ELU, zl.Sigmoid, zl.HardSigmoid, zl.Softplus)),
        (zl.LeakyReLU(0.2), (2, 3)),
    ]
    for half in (False, True):
        writer = zevrant.ModelWriter("all").set_frames(64, 64, 32).set_packing(zl.Magnitudes(8))
        writer.set_half_precision(half)
        source, names = "input", []
        for number, (record, _) in enumerate(rows):
            names.append(f"layer {number}")
            writer.add_layer(names[-1], source, record)
            source = names[-1]
        writer.add_layer("sum", [source, names[-2]], zl.Arithmetic(2))
        writer.add_layer("both", ["sum", source], zl.Concat()).set_output("both")
        loaded = zevrant.Model(writer.to_bytes())
        outputs = loaded.layer_outputs(ones((5, 8, 1), np.float32))
        for name, (record, shape) in zip(names, rows):
            assert outputs[name] is not None and outputs[name].shape[1:] == shape, record
            for field, value in vars(record).items():
                read = getattr(loaded.layers[name].record, field)
                if isinstance(value, np.ndarray):
                    assert np.array_equal(read, value)
                elif isinstance(value, (int, float)):
                    assert read == pytest.approx(value)
        assert outputs["both"] is not None and outputs["both"].shape[1:] == (2, 6)


def test_what_came_and_what_is_wanted_is_told(tmp_path: Path) -> None:
    processor = zevrant.Processor(model, 2, 48000)
    tensors = zevrant.Model(model)
    writer = zevrant.ModelWriter("bad")
    audio = make_noise(2, 5000)
    broken = tmp_path / "broken.zevrant"
    content = (root / "models/center-sides.zevrant").read_bytes()
    broken.write_bytes(content[: len(content) // 2])

    def stop(done: int, total: int | None) -> None:
        raise KeyboardInterrupt

    cases: list[tuple[type[BaseException], str, Callable[[], object]]] = [
        (TypeError, "float32 array .*got a float64", lambda: processor.process(audio.astype(float))),
        (TypeError, "got an object of type list", lambda: processor.process([1.0])),
        (ValueError, r"shape \(5000,\)", lambda: processor.process(audio[0])),
        (ValueError, r"\[2, samples\].*\(1, 5000\)", lambda: processor.process(audio[:1])),
        (KeyError, "Harmonic, Percussive", lambda: processor.gains["Bass"]),
        (KeyError, "no bus 2", lambda: processor.gains[2]),
        (ValueError, "got -1", lambda: processor.gains.update(Harmonic=-1.0)),
        (ValueError, "got nan", lambda: processor.sensitivities.update(Harmonic=float("nan"))),
        (ValueError, "got 0", lambda: zevrant.Processor(model, 0, 48000)),
        (ValueError, "sample rate", lambda: zevrant.Processor(model, 1, float("nan"))),
        (ValueError, "sample rate", lambda: zevrant.Processor(model, 1, 1e300)),
        (ValueError, "hertz", lambda: zevrant.separate(audio, 44100.5, model)),
        (ValueError, "channels", lambda: zevrant.separate(audio[:0], 44100, model)),
        (KeyboardInterrupt, "", lambda: zevrant.separate(audio, 48000, model, progress=stop)),
        (FileNotFoundError, "center-sides", lambda: zevrant.separate(audio, 48000, "nothing")),
        (zevrant.model.ModelError, "broken", lambda: zevrant.Model(broken)),
        (zevrant.model.ModelError, "no model", lambda: zevrant.Model(b"RIFF")),
        (OSError, "nothing.wav", lambda: zevrant.separate_file(tmp_path / "nothing.wav", model, tmp_path)),
        (
            ValueError,
            "pcm12",
            lambda: zevrant.separate_file(
                root / "demo/mixture.flac", model, tmp_path / "x", sample_format="pcm12"
            ),
        ),
        (ValueError, r"\[time, 2049, 2\]", lambda: tensors.push(audio)),
        (KeyError, "nowhere", lambda: tensors.layer_outputs(np.zeros((1, 2049, 2), np.float32), ["nowhere"])),
        (ValueError, '"a".*"b"', lambda: writer.add_layer("a", "b", zl.ReLU())),
        (
            ValueError,
            "timeStride is 300",
            lambda: writer.add_layer("a", "input", zl.Conv([[[[1]]]], time_stride=300)),
        ),
        (
            TypeError,
            "time_stride",
            lambda: writer.add_layer("a", "input", zl.Conv([[[[1]]]], time_stride=1.5)),
        ),
        (TypeError, "weights", lambda: writer.add_layer("a", "input", zl.Conv("text"))),
        (TypeError, "bands", lambda: writer.add_layer("a", "input", zl.FrequencyRescale([3]))),
        (ValueError, "one source", lambda: writer.add_layer("a", ["input", "input"], zl.ReLU())),
        (RuntimeError, "output", writer.to_bytes),
    ]
    for kind, text, call in cases:
        with pytest.raises(kind, match=text):
            call()
    assert not (tmp_path / "x").exists()
    # A model whose numbers make a step impossible stops with an error, and the interpreter goes on.
    writer.set_frames(64, 64, 32).set_packing(zl.Magnitudes(8))
    writer.add_layer("a", "input", zl.Conv(np.ones((1, 1, 1, 1)), frequency_stride=0)).set_output("a")
    odd = zevrant.Model(writer.to_bytes())
    for _ in range(3):
        with pytest.raises(zevrant.model.ModelError):
            odd.push(np.zeros((1, 8, 1), np.float32))


def test_threads_share_one_processor_and_one_model_in_turn() -> None:
    processor, tensors = zevrant.Processor(model, 2, 48000), zevrant.Model(model)
    audio, slices = make_noise(2, 2000), make_noise(2, 2049, 2)

    def work() -> None:
        for _ in range(10):
            processor.process(audio)
            processor.gains[0] = 0.5
            tensors.push(slices)
            tensors.reset()

    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert np.isfinite(processor.flush()).all()
