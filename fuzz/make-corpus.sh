#!/usr/bin/env bash
# Regenerates the seed corpora under fuzz/corpus/<target>/: small .kq surveys from the
# simulator (repacked without compression, so mutations reach the data rather than break a
# deflate stream), waveform rows cut from them, and hand-written settings files and argument
# lists. Usage: fuzz/make-corpus.sh [path/to/quillo]   (needs h5repack, h5dump, python3)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
quillo=${1:-$here/../build/app/quillo}
corpus=$here/corpus
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# --- kq_run: tiny simulated surveys ------------------------------------------------------
kq_seed() {  # name shots shots-per-fragment [simulate options...]
  local name=$1 shots=$2 perFragment=$3
  shift 3
  "$quillo" simulate "$scratch/${name}_210315_093000.kq" --shots "$shots" \
    --fragment-shots "$perFragment" "$@" >/dev/null
  h5repack -L -f NONE -l CONTI "$scratch/${name}_210315_093000.kq" "$corpus/kq_run/$name.kq"
}
rm -rf "$corpus/kq_run" && mkdir -p "$corpus/kq_run"
kq_seed linewise-4 4 2
kq_seed linewise-40 40 20
kq_seed radial-60 60 30 --scanner radial --seed 3
printf '\211HDF\r\n\032\n' >"$corpus/kq_run/signature-only.kq"

# --- peak_detection: header, FWFLength values, samples (see FuzzPeakDetection.cpp) --------
rm -rf "$corpus/peak_detection" && mkdir -p "$corpus/peak_detection"
waves=/slices/0/grids/Waveforms/charts/ScannerCoordinateSystem/fields/Waveforms/values
h5dump -d "$waves" -b LE -o "$scratch/rows.bin" \
  "$corpus/kq_run/linewise-40.kq" >/dev/null
python3 "$here/peak_rows.py" "$scratch/rows.bin" "$corpus/peak_detection"

# --- peak_settings: every key, comments, limits ------------------------------------------
rm -rf "$corpus/peak_settings" && mkdir -p "$corpus/peak_settings"
cat >"$corpus/peak_settings/all-keys.txt" <<'SETTINGS'
# every key at its default
threshold = 4
minimum_threshold = 3
max_echoes = 8
reference_pulse_width = 3e-9
min_pulse_width = 1e-9
max_pulse_width = 30e-9
fit_max_iterations = 30
saturation_level = 0
min_separation = 0
SETTINGS
printf 'max_echoes = 64\nfit_max_iterations = 1000\nthreshold = 0.5\nminimum_threshold = 0\n' \
  >"$corpus/peak_settings/limits-high.txt"
printf 'min_pulse_width = 1e-12\nmax_pulse_width = 1e-11\nreference_pulse_width = 1e-11\nmin_separation = 1e-6\n' \
  >"$corpus/peak_settings/widths-narrow.txt"
printf 'saturation_level = 1\nfit_max_iterations = 0\nmax_echoes = 1  # one echo\n\r\n' \
  >"$corpus/peak_settings/saturated.txt"
printf 'threshold = 4\nthreshold = 5\nbogus\n' >"$corpus/peak_settings/bad-lines.txt"

# --- las_terrain: run results exported as LAS 1.4, and hand-made LAS 1.2-1.4 files -------
rm -rf "$corpus/las_terrain" && mkdir -p "$corpus/las_terrain"
"$quillo" run "$corpus/kq_run/linewise-40.kq" --date 210315_093000 --out-dir "$scratch" --quiet \
  >/dev/null
"$quillo" export "$scratch/linewise-40_1.kq" "$corpus/las_terrain/exported-format6.las" >/dev/null
python3 "$here/las_files.py" "$corpus/las_terrain"

# --- cli_args: one argument per line -----------------------------------------------------
rm -rf "$corpus/cli_args" && mkdir -p "$corpus/cli_args"
args() { printf '%s\n' "${@:2}" >"$corpus/cli_args/$1.txt"; }
args run run survey_210315_093000.kq --out-dir results --report run.json --jobs 2
args run-module run survey.kq --date 210315_093000 --mta 3 --mode fast --fragments 1:4 \
  --segment 0 --noise-level 12.5 --export-fwf --skip-online --hist --quiet
args simulate simulate tiny_210315_093000.kq --preset tiny --seed 7 --shots 100 \
  --fragment-shots 50 --prr 1e6 --altitude 500 --scanner radial --date 210315_093000
args score score a_1.kq a_0.kq --truth a.kq --json s.json
args info info out.kq --json
args verify verify out.kq --compare-fragments
args hist hist survey_210315_093000.kq --fragment 3 --mta auto --mode nowidth
args export export out.kq out.las
args quicklook quicklook out.kq look.png
args demo demo --dir demo-out --preset tiny
args help --help
args version --version
echo "seeds written to $corpus"
