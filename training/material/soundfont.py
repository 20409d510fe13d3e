"""Plays notes on the presets of a sound font, in this process, through the fluidsynth library."""

from __future__ import annotations

import ctypes
import ctypes.util
from functools import lru_cache
from typing import Any

import numpy as np
import numpy.typing as npt

from material.scores import Note

Audio = npt.NDArray[np.float32]  # [samples, 2]
DRUM_BANK = 128


@lru_cache(maxsize=1)
def library() -> Any:
    name = ctypes.util.find_library("fluidsynth")
    if name is None:
        raise RuntimeError("the fluidsynth library is missing: scripts/bootstrap training")
    lib = ctypes.CDLL(name)
    pointer, text = ctypes.c_void_p, ctypes.c_char_p
    for function in (
        "new_fluid_settings",
        "new_fluid_synth",
        "fluid_synth_get_sfont_by_id",
        "fluid_sfont_get_preset",
    ):
        getattr(lib, function).restype = pointer
    lib.new_fluid_synth.argtypes = [pointer]
    lib.fluid_settings_setnum.argtypes = [pointer, text, ctypes.c_double]
    lib.fluid_settings_setint.argtypes = [pointer, text, ctypes.c_int]
    lib.fluid_synth_sfload.argtypes = [pointer, text, ctypes.c_int]
    lib.fluid_synth_get_sfont_by_id.argtypes = [pointer, ctypes.c_int]
    lib.fluid_sfont_get_preset.argtypes = [pointer, ctypes.c_int, ctypes.c_int]
    lib.fluid_synth_program_select.argtypes = [pointer] + 4 * [ctypes.c_int]
    lib.fluid_synth_noteon.argtypes = [pointer] + 3 * [ctypes.c_int]
    lib.fluid_synth_noteoff.argtypes = [pointer] + 2 * [ctypes.c_int]
    lib.fluid_synth_add_sfont.argtypes = [pointer, pointer]
    lib.fluid_synth_remove_sfont.argtypes = [pointer, pointer]
    lib.delete_fluid_synth.argtypes = [pointer]
    lib.delete_fluid_synth.restype = None
    lib.fluid_synth_write_float.argtypes = [
        pointer,
        ctypes.c_int,
        pointer,
        ctypes.c_int,
        ctypes.c_int,
        pointer,
        ctypes.c_int,
        ctypes.c_int,
    ]
    lib.fluid_set_log_function.argtypes = [ctypes.c_int, pointer, pointer]
    for level in range(5):  # the library is chatty on the terminal
        lib.fluid_set_log_function(level, None, None)
    return lib


class SoundFont:
    """One loaded font; presets are read from disk when they are played.

    Voices keep traces of what they played before, so every piece is given a synthesizer of its own.
    """

    def __init__(self, path: str, rate: int = 48000) -> None:
        lib = library()
        settings = lib.new_fluid_settings()
        lib.fluid_settings_setnum(settings, b"synth.sample-rate", float(rate))
        lib.fluid_settings_setnum(settings, b"synth.gain", 0.5)
        for name in (b"synth.reverb.active", b"synth.chorus.active"):
            lib.fluid_settings_setint(settings, name, 0)
        lib.fluid_settings_setint(settings, b"synth.dynamic-sample-loading", 1)
        lib.fluid_settings_setint(settings, b"synth.polyphony", 128)
        self.rate = rate
        self.settings = settings
        self.keeper = lib.new_fluid_synth(settings)
        number = lib.fluid_synth_sfload(self.keeper, path.encode(), 0)
        if number < 0:
            raise RuntimeError(f"{path}: no sound font that fluidsynth reads")
        self.font = lib.fluid_synth_get_sfont_by_id(self.keeper, number)

    def has(self, bank: int, program: int) -> bool:
        return bool(library().fluid_sfont_get_preset(self.font, bank, program))

    def drum_kits(self) -> list[int]:
        return [program for program in range(128) if self.has(DRUM_BANK, program)]

    def play(self, notes: list[Note], bank: int, program: int, seconds: float) -> Audio:
        """Stereo samples of the notes, dry, cut after so many seconds."""
        lib = library()
        channel = 9 if bank == DRUM_BANK else 0
        synth = lib.new_fluid_synth(self.settings)
        number = lib.fluid_synth_add_sfont(synth, self.font)
        lib.fluid_synth_program_select(synth, channel, number, bank, program)
        end = round(seconds * self.rate)
        events = []  # (sample, 0 for an end and 1 for a beginning, key, velocity)
        for note in notes:
            begin = round(note.start * self.rate)
            events += [
                (begin, 1, note.key, note.velocity),
                (begin + round(note.length * self.rate), 0, note.key, 0),
            ]
        out = np.zeros((end, 2), np.float32)
        now = 0
        for at, begins, key, velocity in sorted(events):
            at = min(at, end)
            write(synth, out, now, at)
            now = at
            if begins:
                lib.fluid_synth_noteon(synth, channel, key, velocity)
            else:
                lib.fluid_synth_noteoff(synth, channel, key)
        write(synth, out, now, end)
        lib.fluid_synth_remove_sfont(synth, self.font)
        lib.delete_fluid_synth(synth)
        return out


def write(synth: int, out: Audio, begin: int, end: int) -> None:
    if end > begin:
        data = out.ctypes.data + begin * out.strides[0]
        library().fluid_synth_write_float(synth, end - begin, data, 0, 2, data, 1, 2)
