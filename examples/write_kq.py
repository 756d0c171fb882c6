#!/usr/bin/env python3
"""Writes a quillo input (.kq) from numpy arrays with h5py.

Adapt it to your own export: replace `synthetic_fragment` by code that reads your scanner's
shots, waveform rows and echo records into the same arrays, and set `SCANNER` to your
scanner's values. docs/kq-format.md describes every item; `quillo check FILE` tells what is
missing or wrong before you run.

    python3 examples/write_kq.py flight_210315_093000.kq
    quillo check flight_210315_093000.kq
    quillo run flight_210315_093000.kq --out-dir results

The name must carry the acquisition date as NAME_YYMMDD_HHMMSS (or give `quillo run --date`).
"""
import sys

import h5py
import numpy as np

LIGHT_SPEED = 299702547.0  # m/s in air

# Scanner attributes of the "Shots" grid. Plain Python numbers and strings are fine: the
# reader takes any integer or float width and fixed- or variable-length strings.
SCANNER = {
    "PulseRepetitionRate": 1000000,  # Hz, nominal
    "LightSpeed": LIGHT_SPEED,
    "ScanPattern": "line-wise",  # or "radial"; decides which output a point goes to
    "BlockSize": 200,  # waves per block of the zone scoring
    "ScannerModel": "example scanner",
}
SAMPLE_INTERVAL = 1.0e-9  # s between two waveform samples ("Waveforms" grid attribute)
SAMPLES_PER_ROW = 64
PRE_TRIGGER = 8  # samples recorded before the echo


def synthetic_survey(rng, shot_times):
    """Shots over flat ground from 500 m, one echo each: stands in for your export."""
    n = len(shot_times)
    angle = np.radians(30.0) * np.sin(2 * np.pi * np.arange(n) / 1000.0)  # line-wise sweep
    shots = {
        "GPSTime": shot_times,  # emission time, GPS seconds of week, strictly increasing
        "Positions": np.stack([np.zeros(n), 60.0 * (shot_times - shot_times[0]),
                               np.full(n, 500.0)], axis=1),  # beam origin, m
        "Waveforms.DirectionDelta": np.stack([np.sin(angle), np.zeros(n), -np.cos(angle)],
                                             axis=1),  # unit beam direction
    }
    ranges = 500.0 / np.cos(angle)  # m, to flat ground at height 0
    return shots, ranges, rng.uniform(150.0, 400.0, n)


def records(all_times, emit_times, ranges, amplitudes, samples_rng):
    """Waveform rows and echo records, each timed by the shot after which it was recorded."""
    arrival = emit_times + 2.0 * ranges / LIGHT_SPEED
    recorder = np.searchsorted(all_times, arrival, side="right") - 1
    after = arrival - all_times[recorder]  # time of the echo after its recording shot, s
    # time of the row's first sample after the recording shot, s (never before the shot)
    sbl = np.maximum(after - PRE_TRIGGER * SAMPLE_INTERVAL, 0.0)
    t = np.arange(SAMPLES_PER_ROW) * SAMPLE_INTERVAL
    sigma = 3.0e-9 / 2.3548  # a 3 ns wide pulse
    pulse = amplitudes[:, None] * np.exp(-0.5 * ((t[None, :] - (after - sbl)[:, None]) / sigma) ** 2)
    samples = 20.0 + pulse + samples_rng.normal(0.0, 2.0, pulse.shape)  # 20 counts baseline
    rows = {
        "GPSTime": all_times[recorder],  # the recording shot's time, exactly
        "Waveforms": np.clip(np.rint(samples), 0, 65535).astype(np.uint16),  # (rows, samples)
        "FWFLength": np.full(len(sbl), SAMPLES_PER_ROW, np.uint16),  # valid samples per row
        "Channel": np.zeros(len(sbl), np.uint8),  # 0: high gain (rows above 1800 are dropped)
        "SBL_Time": sbl,
    }
    online = {
        "GPSTime": all_times[recorder],
        "Range": LIGHT_SPEED * after / 2.0,  # m, as if the echo were of zone 0
        "Amplitude": amplitudes.astype(np.float32),  # counts above the baseline
        "Channel": np.zeros(len(sbl), np.uint8),
        "Reflectance": (10.0 * np.log10(amplitudes)).astype(np.float32),  # dB
    }
    return recorder, rows, online


# The element type each field is read as; store the values with exactly that type.
ELEMENT_TYPES = {
    ("Shots", "GPSTime"): "float64", ("Shots", "Positions"): "point3",
    ("Shots", "Waveforms.DirectionDelta"): "vector3",
    ("Waveforms", "GPSTime"): "float64", ("Waveforms", "Waveforms"): "uint16",
    ("Waveforms", "FWFLength"): "uint16", ("Waveforms", "Channel"): "uint8",
    ("Waveforms", "SBL_Time"): "float64",
    ("OPP", "GPSTime"): "float64", ("OPP", "Range"): "float64", ("OPP", "Amplitude"): "float32",
    ("OPP", "Channel"): "uint8", ("OPP", "Reflectance"): "float32",
}
NUMPY_TYPES = {"float64": np.float64, "float32": np.float32, "uint16": np.uint16,
               "uint8": np.uint8, "point3": np.float64, "vector3": np.float64}


def write_fragment(slice_group, grid, field, fragment, values):
    element_type = ELEMENT_TYPES[(grid, field)]
    path = f"grids/{grid}/charts/ScannerCoordinateSystem/fields/{field}/fragments/{fragment}"
    data = np.asarray(values, dtype=NUMPY_TYPES[element_type])
    dataset = slice_group.create_dataset(path, data=data)
    dataset.attrs["element_type"] = element_type
    dataset.attrs["rank"] = 2 if field == "Waveforms" else 1  # rows of samples: rank 2


def main(path, fragments=2, shots_per_fragment=5000):
    rng = np.random.default_rng(7)
    # Pulse-position modulation: shot intervals vary by a few percent around 1 / rate.
    steps = (1.0 + rng.uniform(-0.05, 0.05, fragments * shots_per_fragment)) / 1.0e6
    all_times = 200000.0 + np.cumsum(steps)
    with h5py.File(path, "w") as f:
        f.attrs["kq_format"] = "kq"
        f.attrs["kq_version"] = 1
        slice_group = f.create_group("slices/0")
        slice_group.attrs["time"] = 0.0  # the module reads the slice at time 0
        for name, value in SCANNER.items():
            slice_group.require_group("grids/Shots/attributes").attrs[name] = value
        slice_group.require_group("grids/Waveforms/attributes").attrs["SampleInterval"] = \
            SAMPLE_INTERVAL
        shots, ranges, amplitudes = synthetic_survey(rng, all_times)
        recorder, rows, online = records(all_times, all_times, ranges, amplitudes, rng)
        for k in range(fragments):
            first, end = k * shots_per_fragment, (k + 1) * shots_per_fragment
            # A record belongs to the fragment of the shot after which it was recorded.
            keep = (recorder >= first) & (recorder < end)
            name = f"Fragment_{k}"  # numbered from 0 without gaps or padding
            for field, values in shots.items():
                write_fragment(slice_group, "Shots", field, name, values[first:end])
            for grid, arrays in (("Waveforms", rows), ("OPP", online)):
                for field, values in arrays.items():
                    write_fragment(slice_group, grid, field, name, values[keep])

if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: write_kq.py OUTPUT_YYMMDD_HHMMSS.kq")
    main(sys.argv[1])
