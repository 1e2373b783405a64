#!/usr/bin/env bash
# Whole conversions side by side: pxf convert against vips copy, oiiotool and
# ImageMagick's convert, on the same pictures, in one run.  For each picture,
# conversion and tool it prints the wall time (median of --runs), the
# processor time of that run (user + system: on a shared machine the steadier
# figure; above the wall time when a tool uses several threads), the peak
# resident memory and the output's size, with ratios to the best.
#
#   bench/compare.sh [--quick] [--big] [--size N]... [--runs N] [--dir DIR]
#
#   --quick    one 2048 x 2048 picture of each kind (8-bit), one run
#   --size N   pictures of N x N (repeatable; default 4096 and 8192)
#   --big      also 16384 x 16384 (slow: minutes per conversion)
#   --runs N   timed runs per measurement (default 3)
#   --dir DIR  scratch directory (default build-rel/compare)
#
# Pictures: "render" (shaded spheres over a checkered floor, a transparent
# sky, a little grain) and "noise" (uniform noise), RGBA, 8 and 16-bit,
# written by bench/compare_pictures as RLA; their TIFF (LZW) and PNG forms
# are made from those by pxf.  pxf is built in Release into build-rel.
# Missing peers are installed from Debian when run as root, else named and
# left out.  A peer that cannot do a conversion (RLA) shows n/a.
# Run it on a quiet machine: the load average is printed before and after.
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
build=$top/build-rel
sizes=()
quick=0
big=0
runs=3
dir=
while [ $# -gt 0 ]; do
  case $1 in
  --quick) quick=1 ;;
  --big) big=1 ;;
  --size) sizes+=("$2"); shift ;;
  --runs) runs=$2; shift ;;
  --dir) dir=$2; shift ;;
  -h | --help) sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "compare.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
  shift
done
if [ $quick = 1 ]; then
  sizes=(2048); runs=1
elif [ ${#sizes[@]} = 0 ]; then
  sizes=(4096 8192)
fi
[ $big = 1 ] && sizes+=(16384)
dir=${dir:-$build/compare}

# ---- Tools ----
need=()
command -v /usr/bin/time >/dev/null || need+=(time)
command -v vips >/dev/null || need+=(libvips-tools)
command -v oiiotool >/dev/null || need+=(openimageio-tools)
[ -x /usr/bin/convert ] || command -v magick >/dev/null || need+=(imagemagick)
if [ ${#need[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    echo "installing ${need[*]}"
    for attempt in 1 2 3 4 5; do  # the package database may be locked by another install
      DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null && break
      sleep 10
    done
  else
    echo "not root: missing ${need[*]}; those peers are left out" >&2
  fi
fi
[ -x /usr/bin/time ] || { echo "compare.sh: /usr/bin/time (Debian package time) is needed" >&2; exit 1; }
# ImageMagick 7 is magick; 6 is convert (/usr/bin, not a wrapper earlier in PATH).
magick=
if command -v magick >/dev/null; then magick=$(command -v magick)
elif [ -x /usr/bin/convert ]; then magick=/usr/bin/convert
fi

echo "building pxf (Release) in $build"
mkdir -p "$build"
log=$build/compare-build.log
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPXF_BUILD_BENCH=ON >"$log" 2>&1 ||
  { cat "$log" >&2; exit 1; }
cmake --build "$build" --target pxf compare_pictures pxf_plugin_png pxf_plugin_tiff >>"$log" 2>&1 ||
  { tail -30 "$log" >&2; exit 1; }
pxf=$build/bin/pxf
make_picture=$build/bench/compare_pictures

mkdir -p "$dir"
cd "$dir"

# ---- One measurement ----
# measure TOOL OUT command...: median wall time of $runs runs, peak memory of
# that run, output size; "n/a" when the command fails or writes nothing.
results=$dir/results.txt
: >"$results"
measure() {
  local tool=$1 out=$2; shift 2
  local times=() mems=() cpus=() i ok=1
  for ((i = 0; i < runs; i++)); do
    rm -f "$out"
    if ! /usr/bin/time -f '%e %M %U %S' -o time.txt "$@" >/dev/null 2>cmd_err.txt || [ ! -s "$out" ]; then
      ok=0
      break
    fi
    local t m u s
    read -r t m u s <time.txt
    times+=("$t")
    mems+=("$m")
    cpus+=("$(awk -v u="$u" -v s="$s" 'BEGIN { printf "%.2f", u + s }')")
  done
  if [ $ok = 0 ]; then
    echo "$case_name $tool n/a n/a n/a n/a" >>"$results"
    rm -f "$out"
    return
  fi
  local pick
  pick=$(for i in "${!times[@]}"; do echo "${times[$i]} ${mems[$i]} ${cpus[$i]}"; done | sort -n |
    awk -v n=${#times[@]} 'NR == int((n + 1) / 2)')
  # Fields: picture, conversion, tool, time, memory (KiB), size (bytes), processor time.
  local wall memory cpu
  read -r wall memory cpu <<<"$pick"
  echo "$case_name $tool $wall $memory $(stat -c %s "$out") $cpu" >>"$results"
  rm -f "$out"
}

have() { command -v "$1" >/dev/null; }
label() { case $1 in tif) echo TIFF ;; *) echo "${1^^}" ;; esac; }

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
for size in "${sizes[@]}"; do
  if [ $quick = 1 ]; then pictures=("render 8" "noise 8"); else pictures=("render 8" "render 16" "noise 8" "noise 16"); fi
  for picture in "${pictures[@]}"; do
    read -r kind bits <<<"$picture"
    name=$kind$bits-$size
    echo "picture $name"
    [ -s "$name.rla" ] || "$make_picture" "$kind" "$bits" "$size" "$name.rla"
    [ -s "$name.tif" ] || "$pxf" convert -q "$name.rla" "$name.tif"
    [ -s "$name.png" ] || "$pxf" convert -q "$name.rla" "$name.png"

    case_name="$name TIFF->PNG"
    measure pxf out.png "$pxf" convert -q "$name.tif" out.png
    have vips && measure vips out.png vips copy "$name.tif" out.png
    have oiiotool && measure oiiotool out.png oiiotool "$name.tif" -o out.png
    [ -n "$magick" ] && measure convert out.png "$magick" "$name.tif" out.png

    for c in lzw deflate; do
      case_name="$name PNG->TIFF-$c"
      zip=$c; [ $c = deflate ] && zip=zip
      measure pxf out.tif "$pxf" convert -q "$name.png" out.tif --compression $c
      have vips && measure vips out.tif vips copy "$name.png" "out.tif[compression=$c]"
      have oiiotool && measure oiiotool out.tif oiiotool "$name.png" --compression $zip -o out.tif
      [ -n "$magick" ] && measure convert out.tif "$magick" "$name.png" -compress $zip out.tif
    done

    for pair in "rla tif" "tif rla" "rla png" "png rla"; do
      read -r from to <<<"$pair"
      case_name="$name $(label "$from")->$(label "$to")"
      [ "$to" = tif ] && case_name+=-lzw
      extra=(); [ "$to" = tif ] && extra=(--compression lzw)
      measure pxf "out.$to" "$pxf" convert -q "$name.$from" "out.$to" "${extra[@]}"
      peer_extra=(); magick_extra=()
      [ "$to" = tif ] && peer_extra=(--compression lzw) && magick_extra=(-compress lzw)
      if have vips; then
        target=out.$to; [ "$to" = tif ] && target="out.tif[compression=lzw]"
        measure vips "out.$to" vips copy "$name.$from" "$target"
      fi
      have oiiotool && measure oiiotool "out.$to" oiiotool "$name.$from" "${peer_extra[@]}" -o "out.$to"
      # ImageMagick reads RLA but writes none (it falls back to another format).
      if [ -n "$magick" ] && [ "$to" != rla ]; then
        measure convert "out.$to" "$magick" "$name.$from" "${magick_extra[@]}" "out.$to"
      elif [ -n "$magick" ]; then
        echo "$case_name convert n/a n/a n/a n/a" >>"$results"
      fi
    done
  done
done
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"

# ---- The table ----
# Ratios are to the best (smallest) of the tools that did the conversion.
echo
awk '
function ratio(v, best) { return v == "n/a" ? "" : best > 0 ? sprintf("(%.2f)", v / best) : "" }
{
  key = $1 " " $2
  if (!(key in seen)) { seen[key] = 1; order[++n] = key }
  row[key, ++count[key]] = $0
  if ($4 != "n/a") {
    if (!(key in bt) || $4 + 0 < bt[key]) bt[key] = $4 + 0
    if (!(key in bm) || $5 + 0 < bm[key]) bm[key] = $5 + 0
    if (!(key in bs) || $6 + 0 < bs[key]) bs[key] = $6 + 0
    if (!(key in bc) || $7 + 0 < bc[key]) bc[key] = $7 + 0
  }
}
END {
  printf "%-13s %-18s %-9s %8s %-7s %7s %-7s %9s %-7s %11s %-7s\n", "picture", "conversion", "tool", "time s", "", "cpu s", "", "peak MiB", "", "size MB", ""
  for (i = 1; i <= n; i++) {
    key = order[i]
    split(key, part, " ")
    for (j = 1; j <= count[key]; j++) {
      split(row[key, j], f, " ")
      if (f[4] == "n/a") {
        printf "%-13s %-18s %-9s %8s %-7s %7s %-7s %9s %-7s %11s %-7s\n", part[1], part[2], f[3], "n/a", "", "n/a", "", "n/a", "", "n/a", ""
        continue
      }
      printf "%-13s %-18s %-9s %8.2f %-7s %7.2f %-7s %9.1f %-7s %11.2f %-7s\n", part[1], part[2], f[3], f[4], ratio(f[4], bt[key]),
             f[7], ratio(f[7], bc[key]), f[5] / 1024, ratio(f[5], bm[key]), f[6] / 1e6, ratio(f[6], bs[key])
    }
  }
}' "$results"
