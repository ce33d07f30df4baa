#!/usr/bin/env bash
# Usage: scripts/bench.sh [--quick] [--no-micro] [--rounds N] [-- BENCHMARK_OPTIONS]   (times the service against its peers; writes bench/RESULTS.md)
#
# Installs the peer tools from Debian (djpeg, vips, ImageMagick, GraphicsMagick, and hyperfine
# and gnuplot for the measuring), builds a Release tree in build-bench, runs the resampler and parser
# micro-benchmarks (Google Benchmark; options after -- go to it), makes a deterministic corpus
# with varnelo-sample-photo and then runs every contender in interleaved rounds: each round runs
# each command once, in an order that rotates from round to round, so that a machine whose speed
# drifts slows all of them alike. Times are medians; a ratio is the median of the per-round
# ratios; peak memory is the largest resident set of any one process of a run. Writes
# bench/RESULTS.md and the chart bench/results.svg.
# --quick runs fewer rounds (about two minutes); --no-micro skips the micro-benchmarks.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
case "$root" in *[[:space:]]*) echo "bench: run it from a path without blanks" >&2; exit 2 ;; esac
jobs=$(nproc 2>/dev/null || echo 2)

quick=0
micro=1
rounds=""
while [ $# -gt 0 ]; do
    case "$1" in
        --quick) quick=1 ;;
        --no-micro) micro=0 ;;
        --rounds) rounds=$2; shift ;;
        --) shift; break ;;
        *) echo "usage: scripts/bench.sh [--quick] [--no-micro] [--rounds N] [-- BENCHMARK_OPTIONS]" >&2
           exit 2 ;;
    esac
    shift
done
if [ "$quick" -eq 1 ]; then
    single_rounds=${rounds:-3} batch_rounds=${rounds:-2} thumb_rounds=${rounds:-5}
else
    single_rounds=${rounds:-7} batch_rounds=${rounds:-5} thumb_rounds=${rounds:-11}
fi

# The peers, and the tools this script itself needs. Debian's ImageMagick and GraphicsMagick
# are called by their full paths, whatever else is first on PATH.
djpeg=/usr/bin/djpeg vips=/usr/bin/vips vipsthumbnail=/usr/bin/vipsthumbnail
magick=/usr/bin/convert gm=/usr/bin/gm gnuplot=/usr/bin/gnuplot timer=/usr/bin/time
hyperfine=/usr/bin/hyperfine
peers=(libjpeg-turbo-progs libvips-tools imagemagick graphicsmagick gnuplot-nox time hyperfine)

echo "== dependencies"
scripts/install-deps.sh
missing=()
for p in "${peers[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -ne 0 ]; then
    sudo=()
    [ "$(id -u)" -ne 0 ] && sudo=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

echo "== Release build in build-bench"
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVARNELO_BENCH=ON >/dev/null
cmake --build build-bench -j "$jobs" --target varnelo varnelo-sample-photo >/dev/null
service="$root/build-bench/varnelo"

if [ "$micro" -eq 1 ]; then
    echo "== micro-benchmarks (resamplers, request parser)"
    cmake --build build-bench -j "$jobs" --target varnelo_bench >/dev/null
    if [ "$quick" -eq 1 ] && [ $# -eq 0 ]; then set -- --benchmark_min_time=0.2; fi
    build-bench/bench/varnelo_bench "$@"
fi

work="$root/build-bench/compare"
corpus="$work/corpus"
out="$work/out"
raw="$work/raw.txt"
memfile="$work/memory.txt"
mkdir -p "$corpus"
rm -rf "$out" "$raw" "$memfile"
mkdir -p "$out"

# Photographs of 24, 12 and 8 megapixels at 3:2, and 16 names for the 24-megapixel one.
sizes=(24 12 8)
declare -A width=([24]=6000 [12]=4240 [8]=3456) height=([24]=4000 [12]=2832 [8]=2304)
echo "== corpus in $corpus"
for mp in "${sizes[@]}"; do
    photo="$corpus/p$mp.jpg"
    [ -s "$photo" ] || build-bench/varnelo-sample-photo --seed "$mp" "$photo" "${width[$mp]}" \
        "${height[$mp]}"
done
rm -f "$corpus"/batch-*.jpg
for i in $(seq -w 1 16); do ln "$corpus/p24.jpg" "$corpus/batch-$i.jpg"; done
ls "$corpus"/batch-*.jpg >"$work/batch.list"

# The other shapes of photo people have, each of 24 megapixels, against djpeg alone.
shapes=(hd c422 c444 prog)
declare -A shape_args=([hd]="--quality 95" [c422]="--chroma 422" [c444]="--chroma 444"
                       [prog]="--progressive")
declare -A shape_name=([hd]="4:2:0, quality 95" [c422]="4:2:2, quality 92"
                       [c444]="4:4:4, quality 92" [prog]="progressive 4:2:0, quality 92")
for sh in "${shapes[@]}"; do
    photo="$corpus/$sh.jpg"
    # shellcheck disable=SC2086 # the options are words
    [ -s "$photo" ] || build-bench/varnelo-sample-photo --seed 24 ${shape_args[$sh]} "$photo" 6000 4000
    rm -f "$corpus/$sh"-batch-*.jpg
    for i in $(seq -w 1 16); do ln "$photo" "$corpus/$sh-batch-$i.jpg"; done
    ls "$corpus/$sh"-batch-*.jpg >"$work/$sh.list"
done

# Requests, each ended by the separator line; "exit" then ends the service once they are done.
member() { # name type text
    printf '<member><name>%s</name><value><%s>%s</%s></value></member>' "$1" "$2" "$3" "$2"
}
request() { # method id source destination [resolution quality]
    printf '<?xml version="1.0"?>\n<methodCall><methodName>%s</methodName><params><param>' "$1"
    printf '<value><struct>%s%s%s' "$(member imageId i4 "$2")" "$(member sourcePath string "$3")" \
        "$(member destPath string "$4")"
    if [ $# -ge 6 ]; then
        printf '%s%s' "$(member resolution i4 "$5")" "$(member quality i4 "$6")"
    fi
    printf '</struct></value></param></params></methodCall>\n*\n'
}
for mp in "${sizes[@]}"; do
    { request upload.downsampleRequest 1 "$corpus/p$mp.jpg" "$out/varnelo-$mp.jpg" 1600 85
      echo exit; } >"$work/one-$mp.req"
done
{ for i in $(seq -w 1 16); do
      request upload.downsampleRequest "$i" "$corpus/batch-$i.jpg" "$out/batch-$i.jpg" 1600 85
  done
  echo exit; } >"$work/batch.req"
# The same 16 photos as one request, a param per line.
{ printf '<?xml version="1.0"?>\n<methodCall><methodName>upload.downsampleRequest</methodName><params>\n'
  for i in $(seq -w 1 16); do
      printf '<param><value><struct>%s%s%s%s%s</struct></value></param>\n' \
          "$(member imageId i4 "$i")" "$(member sourcePath string "$corpus/batch-$i.jpg")" \
          "$(member destPath string "$out/request-$i.jpg")" "$(member resolution i4 1600)" \
          "$(member quality i4 85)"
  done
  printf '</params></methodCall>\n*\nexit\n'; } >"$work/request16.req"
for sh in "${shapes[@]}"; do
    { request upload.downsampleRequest 1 "$corpus/$sh.jpg" "$out/varnelo-$sh.jpg" 1600 85
      echo exit; } >"$work/one-$sh.req"
    { for i in $(seq -w 1 16); do
          request upload.downsampleRequest "$i" "$corpus/$sh-batch-$i.jpg" "$out/$sh-batch-$i.jpg" \
              1600 85
      done
      echo exit; } >"$work/$sh-batch.req"
done
{ request upload.thumbnailRequest 1 "$corpus/p24.jpg" "$out/thumb.jpg"; echo exit; } \
    >"$work/thumb.req"

# Each job is a label and a shell command. The "two at a time" runs use xargs -P 2, one photo
# per process.
declare -A job
list="$work/batch.list"
two() { echo "xargs -P 2 -n 1 $* <$list"; }
for mp in "${sizes[@]}"; do
    photo="$corpus/p$mp.jpg"
    scale=$(awk -v w="${width[$mp]}" 'BEGIN { printf "%.9f", 1600 / w }')
    job[djpeg-$mp]="$djpeg -rgb -outfile /dev/null $photo"
    job[varnelo-$mp]="$service <$work/one-$mp.req"
    job[vips-$mp]="$vips resize $photo $out/vips-$mp.jpg[Q=85] $scale --kernel linear"
    job[vipsthumbnail-$mp]="$vipsthumbnail $photo -s 1600 -o $out/vipsthumbnail-$mp.jpg[Q=85]"
    job[imagemagick-$mp]="$magick $photo -filter box -resize 1600x1600 -quality 85 $out/im-$mp.jpg"
    job[graphicsmagick-$mp]="$gm convert $photo -filter box -resize 1600x1600 -quality 85 $out/gm-$mp.jpg"
done
scale24=$(awk 'BEGIN { printf "%.9f", 1600 / 6000 }')
job[djpeg-batch]=$(two "$djpeg -rgb -outfile /dev/null")
job[varnelo-batch]="$service <$work/batch.req"
job[varnelo-request16]="$service <$work/request16.req"
job[vips-batch]=$(two sh -c "'exec $vips resize \"\$1\" \"$out/vb-\${1##*/}[Q=85]\" $scale24 --kernel linear'" -)
job[vipsthumbnail-batch]=$(two sh -c "'exec $vipsthumbnail \"\$1\" -s 1600 -o \"$out/tb-%s.jpg[Q=85]\"'" -)
job[imagemagick-batch]=$(two sh -c "'exec $magick \"\$1\" -filter box -resize 1600x1600 -quality 85 \"$out/ib-\${1##*/}\"'" -)
job[graphicsmagick-batch]=$(two sh -c "'exec $gm convert \"\$1\" -filter box -resize 1600x1600 -quality 85 \"$out/gb-\${1##*/}\"'" -)
for sh in "${shapes[@]}"; do
    job[djpeg-$sh]="$djpeg -rgb -outfile /dev/null $corpus/$sh.jpg"
    job[varnelo-$sh]="$service <$work/one-$sh.req"
    list="$work/$sh.list"
    job[djpeg-$sh-batch]=$(two "$djpeg -rgb -outfile /dev/null")
    job[varnelo-$sh-batch]="$service <$work/$sh-batch.req"
done
job[varnelo-thumb]="$service <$work/thumb.req"
job[vipsthumbnail-thumb]="$vipsthumbnail $corpus/p24.jpg -s 160 -o $out/vipsthumbnail-thumb.jpg"

# Runs one job once and appends "label seconds" to the raw results, timed by hyperfine (which
# deducts the time of starting the shell); with `memory`, runs it under /usr/bin/time instead and
# appends "label peak-KiB" to the memory results.
run_once() { # label [memory]
    local label=$1 line=${job[$1]}
    if [ $# -gt 1 ]; then
        if ! "$timer" -f '%M %U %S' -o "$work/rss" sh -c "$line" >/dev/null 2>"$work/stderr"; then
            echo "bench: $label failed:" >&2
            cat "$work/stderr" >&2
            exit 1
        fi
        echo "$label $(tail -n 1 "$work/rss")" >>"$memfile"
        return
    fi
    if ! "$hyperfine" --runs 1 --style none --export-csv "$work/run.csv" "$line" \
        >/dev/null 2>"$work/stderr"; then
        echo "bench: $label failed:" >&2
        cat "$work/stderr" >&2
        exit 1
    fi
    # command,mean,stddev,median,user,system,min,max; the command itself may hold commas.
    echo "$label $(tail -n 1 "$work/run.csv" | awk -F, '{ print $(NF - 6) }')" >>"$raw"
}

# Runs the labels in `rounds` interleaved rounds, the order rotating by one each round.
run_rounds() { # rounds label...
    local n=$1 r i count
    shift
    count=$#
    local labels=("$@")
    for ((r = 0; r < n; r++)); do
        printf '   round %d/%d\n' $((r + 1)) "$n"
        for ((i = 0; i < count; i++)); do run_once "${labels[$(((i + r) % count))]}"; done
    done
}

tools=(djpeg varnelo vips vipsthumbnail imagemagick graphicsmagick)
single=()
for mp in "${sizes[@]}"; do for t in "${tools[@]}"; do single+=("$t-$mp"); done; done
batch=()
for t in "${tools[@]}"; do batch+=("$t-batch"); done
shaped=() shaped_batch=()
for sh in "${shapes[@]}"; do
    shaped+=("djpeg-$sh" "varnelo-$sh")
    shaped_batch+=("djpeg-$sh-batch" "varnelo-$sh-batch")
done

echo "== peak memory, one run of each (also warms the page cache)"
for t in "${single[@]}" "${batch[@]}" varnelo-request16 "${shaped[@]}" varnelo-thumb \
    vipsthumbnail-thumb; do
    run_once "$t" memory
done
echo "== one photo at a time ($single_rounds rounds)"
run_rounds "$single_rounds" "${single[@]}"
echo "== 16 photos at once, two at a time for the peers ($batch_rounds rounds)"
run_rounds "$batch_rounds" "${batch[@]}" varnelo-request16
echo "== other shapes of photo, one at a time ($single_rounds rounds) and 16 at once ($batch_rounds)"
run_rounds "$single_rounds" "${shaped[@]}"
run_rounds "$batch_rounds" "${shaped_batch[@]}"
echo "== thumbnails ($thumb_rounds rounds)"
run_rounds "$thumb_rounds" varnelo-thumb vipsthumbnail-thumb
[ -s "$out/thumb.jpg" ] || { echo "bench: the service wrote no thumbnail" >&2; exit 1; }

# Statistics. median LABEL: the median seconds; peak LABEL: the peak KiB.
median() {
    awk -v l="$1" '$1 == l { print $2 }' "$raw" | sort -g |
        awk '{ v[NR] = $1 } END { if (NR == 0) exit 1; m = int((NR + 1) / 2);
              print (NR % 2) ? v[m] : (v[m] + v[m + 1]) / 2 }'
}
peak() { awk -v l="$1" '$1 == l { print $2; exit }' "$memfile"; }
# cpu LABEL: the processor seconds (user and system) of its memory run.
cpu() { awk -v l="$1" '$1 == l { print $3 + $4; exit }' "$memfile"; }
# ratio A B: the median over rounds of A's time divided by B's in the same round.
ratio() {
    awk -v a="$1" -v b="$2" '$1 == a { x[++na] = $2 } $1 == b { y[++nb] = $2 }
        END { for (i = 1; i <= na && i <= nb; i++) print x[i] / y[i] }' "$raw" | sort -g |
        awk '{ v[NR] = $1 } END { m = int((NR + 1) / 2);
              printf "%.3f\n", (NR % 2) ? v[m] : (v[m] + v[m + 1]) / 2 }'
}
ms() { awk -v s="$1" 'BEGIN { printf "%.0f", s * 1000 }'; }
mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
inverse() { awk -v r="$1" 'BEGIN { printf "%.2f", 1 / r }'; }
check() { # value op limit -> "met" or "missed"
    awk -v v="$1" -v l="$3" -v op="$2" 'BEGIN { ok = op == "<=" ? v <= l : v >= l;
        print ok ? "met" : "missed" }'
}

cpu=$(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)
memory=$(awk '/^MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)
system="$(. /etc/os-release && echo "$PRETTY_NAME"), Linux $(uname -r)"
versions="$($djpeg -version 2>&1 | head -n 1 | sed 's/^ *//'); $($vips --version); \
$($magick -version | head -n 1 | sed 's/^Version: //; s/ https.*//'); $($gm version | head -n 1)"

one24=$(ratio varnelo-24 djpeg-24)
batch_djpeg=$(inverse "$(ratio varnelo-batch djpeg-batch)")
batch_vips=$(inverse "$(ratio varnelo-batch vips-batch)")
peak24=$(mib "$(peak varnelo-24)")
thumbs=$(inverse "$(ratio varnelo-thumb vipsthumbnail-thumb)")
request_vs_requests=$(ratio varnelo-request16 varnelo-batch)
request_djpeg=$(inverse "$(ratio varnelo-request16 djpeg-batch)")
# The model's inputs: processor seconds per photo in a request of 16, and one photo alone.
cpu_photo=$(awk -v c="$(cpu varnelo-request16)" 'BEGIN { printf "%.3f", c / 16 }')
alone=$(median varnelo-24)

results="$root/bench/RESULTS.md"
{
    echo "# Benchmark results"
    echo
    echo "Written by \`scripts/bench.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC')."
    echo
    echo "- Machine: $cpu, $(nproc) processors, $memory; $system."
    echo "- Tools: $versions."
    echo "- Corpus: made by \`varnelo-sample-photo\` (baseline 4:2:0 JPEG, quality 92, EXIF with an"
    echo "  embedded 160-pixel thumbnail): 6000x4000 ($(du -k "$corpus/p24.jpg" | cut -f1) KiB),"
    echo "  4240x2832 ($(du -k "$corpus/p12.jpg" | cut -f1) KiB), 3456x2304 ($(du -k "$corpus/p8.jpg" | cut -f1) KiB)."
    echo "- Every conversion makes a copy whose longer side is 1600 pixels, at JPEG quality 85."
    echo "  The floor is \`djpeg -rgb\` decoding the photo to nothing: every contender must decode it."
    echo "- Rounds: $single_rounds (one photo), $batch_rounds (16 photos), $thumb_rounds (thumbnails);"
    echo "  each round runs every command once, interleaved. Times are medians; a ratio is the"
    echo "  median of the per-round ratios. Each run is timed by hyperfine, which deducts the"
    echo "  time of starting its shell; peak memory, from a separate run under /usr/bin/time, is"
    echo "  that of the largest process of the run."
    echo
    echo "## One photo at a time"
    echo
    echo "| command | 24 MP | 12 MP | 8 MP | 24 MP vs floor | peak memory (24 MP) |"
    echo "|---|---:|---:|---:|---:|---:|"
    for t in "${tools[@]}"; do
        printf '| %s | %s ms | %s ms | %s ms | %sx | %s MiB |\n' "$t" \
            "$(ms "$(median "$t-24")")" "$(ms "$(median "$t-12")")" "$(ms "$(median "$t-8")")" \
            "$(ratio "$t-24" djpeg-24)" "$(mib "$(peak "$t-24")")"
    done
    echo
    echo "djpeg is the floor; varnelo is timed from outside through its protocol (start, one"
    echo "upload.downsampleRequest, exit); vips resize uses the linear kernel; vipsthumbnail"
    echo "shrinks while it decodes; ImageMagick and GraphicsMagick use a box filter."
    echo
    echo "## 16 photos of 24 MP at once"
    echo
    echo "| command | wall time | photos per second | throughput vs djpeg | peak memory |"
    echo "|---|---:|---:|---:|---:|"
    for t in "${tools[@]}"; do
        s=$(median "$t-batch")
        printf '| %s | %s ms | %s | %sx | %s MiB |\n' "$t" "$(ms "$s")" \
            "$(awk -v s="$s" 'BEGIN { printf "%.1f", 16 / s }')" \
            "$(inverse "$(ratio "$t-batch" djpeg-batch)")" "$(mib "$(peak "$t-batch")")"
    done
    echo
    echo "varnelo gets all 16 requests at once and runs them on its worker threads; every other"
    echo "command runs two at a time (\`xargs -P 2\`, one photo per process)."
    echo
    echo "## 16 photos as 16 requests or as one request"
    echo
    echo "| varnelo gets | wall time | throughput vs djpeg two at a time | peak memory |"
    echo "|---|---:|---:|---:|"
    echo "| 16 requests of one photo | $(ms "$(median varnelo-batch)") ms | ${batch_djpeg}x | $(mib "$(peak varnelo-batch)") MiB |"
    echo "| one request of 16 photos | $(ms "$(median varnelo-request16)") ms | ${request_djpeg}x | $(mib "$(peak varnelo-request16)") MiB |"
    echo
    echo "One request of 16 takes ${request_vs_requests}x the time of 16 requests: the worker that"
    echo "executes it starts the request's next photos on helper threads while a processor is idle,"
    echo "each answered, written and traced as one photo after another would be."
    echo
    echo "### What more processors would give (a model)"
    echo
    echo "Measured here: $cpu_photo processor seconds per photo in the request of 16, and"
    echo "$(ms "$alone") ms for one photo alone. The model assumes that a request of N photos on P"
    echo "processors runs one conversion per processor (the pool's rule) with nothing else to do,"
    echo "that a conversion's processor time does not grow with P (no memory bandwidth, disk or"
    echo "turbo limit), and that the last photos take at least the time of one photo alone. Then it"
    echo "takes about max(N x $cpu_photo s / P, $(ms "$alone") ms), where photos run one after another"
    echo "it took N x $(ms "$alone") ms whatever P."
    echo
    echo "| processors | one request of 16, side by side | one photo after another | gain |"
    echo "|---:|---:|---:|---:|"
    for p in 2 4 8 16; do
        awk -v p="$p" -v c="$cpu_photo" -v a="$alone" 'BEGIN {
            t = 16 * c / p; if (t < a) t = a; s = 16 * a;
            printf "| %d | %.0f ms | %.0f ms | %.1fx |\n", p, t * 1000, s * 1000, s / t }'
    done
    echo
    echo "## Other shapes of 24 MP photo, against djpeg"
    echo
    echo "| photo | size | djpeg | varnelo | one photo vs floor | 16 at once: throughput vs djpeg | peak memory |"
    echo "|---|---:|---:|---:|---:|---:|---:|"
    printf '| %s | %s KiB | %s ms | %s ms | %sx | %sx | %s MiB |\n' "4:2:0, quality 92 (above)" \
        "$(du -k "$corpus/p24.jpg" | cut -f1)" "$(ms "$(median djpeg-24)")" \
        "$(ms "$(median varnelo-24)")" "$one24" "$batch_djpeg" "$peak24"
    for sh in "${shapes[@]}"; do
        printf '| %s | %s KiB | %s ms | %s ms | %sx | %sx | %s MiB |\n' "${shape_name[$sh]}" \
            "$(du -k "$corpus/$sh.jpg" | cut -f1)" "$(ms "$(median "djpeg-$sh")")" \
            "$(ms "$(median "varnelo-$sh")")" "$(ratio "varnelo-$sh" "djpeg-$sh")" \
            "$(inverse "$(ratio "varnelo-$sh-batch" "djpeg-$sh-batch")")" \
            "$(mib "$(peak "varnelo-$sh")")"
    done
    echo
    echo "A lone baseline photo is decoded in two stages: one thread entropy-decodes it while a"
    echo "second reconstructs, scales and encodes its lines; a progressive one converts on one"
    echo "thread."
    echo
    echo "## Thumbnails"
    echo
    echo "| command | time | peak memory |"
    echo "|---|---:|---:|"
    echo "| varnelo upload.thumbnailRequest (embedded EXIF thumbnail) | $(ms "$(median varnelo-thumb)") ms | $(mib "$(peak varnelo-thumb)") MiB |"
    echo "| vipsthumbnail -s 160 | $(ms "$(median vipsthumbnail-thumb)") ms | $(mib "$(peak vipsthumbnail-thumb)") MiB |"
    echo
    echo "## Targets"
    echo
    echo "| target | measured | |"
    echo "|---|---:|---|"
    echo "| one 24 MP photo: at most 0.80x the floor | ${one24}x | $(check "$one24" "<=" 0.80) |"
    echo "| 16 photos: at least 0.92x the throughput of djpeg two at a time | ${batch_djpeg}x | $(check "$batch_djpeg" ">=" 0.92) |"
    echo "| 16 photos: at least 2.5x the throughput of vips resize two at a time | ${batch_vips}x | $(check "$batch_vips" ">=" 2.5) |"
    echo "| peak memory converting one 24 MP photo: at most 8 MiB | $peak24 MiB | $(check "$peak24" "<=" 8) |"
    echo "| thumbnails: at least 20x faster than vipsthumbnail | ${thumbs}x | $(check "$thumbs" ">=" 20) |"
    echo "| one request of 16 photos: at most 1.05x the time of 16 requests | ${request_vs_requests}x | $(check "$request_vs_requests" "<=" 1.05) |"
    echo "| one request of 16 photos: at least 0.92x the throughput of djpeg two at a time | ${request_djpeg}x | $(check "$request_djpeg" ">=" 0.92) |"
    echo
    echo "![Time per photo relative to the djpeg floor](results.svg)"
} >"$results"

# The chart: time per photo relative to the floor, one photo at a time and in the batch.
data="$work/chart.dat"
declare -A name=([djpeg]="djpeg (floor)" [varnelo]=varnelo [vips]="vips resize"
                 [vipsthumbnail]=vipsthumbnail [imagemagick]=ImageMagick
                 [graphicsmagick]=GraphicsMagick)
{ for t in "${tools[@]}"; do
      echo "\"${name[$t]}\" $(ratio "$t-24" djpeg-24) $(ratio "$t-batch" djpeg-batch)"
  done
  echo "\"varnelo, 1 request\" NaN $(ratio varnelo-request16 djpeg-batch)"; } >"$data"
"$gnuplot" <<EOF
set terminal svg size 1100,450 dynamic font "sans,13" background rgb "white"
set output "$root/bench/results.svg"
set title "24-megapixel JPEG to 1600 pixels: time per photo relative to djpeg decoding it"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set logscale y 2
set yrange [0.5:32]
set ytics ("0.5" 0.5, "1" 1, "2" 2, "4" 4, "8" 8, "16" 16, "32" 32)
set grid ytics
set key top left reverse Left
set xtics nomirror scale 0
set ylabel "time / djpeg time (lower is better)"
plot "$data" using 2:xtic(1) title "one photo at a time" lc rgb "#4477aa", \\
     "" using 3 title "16 photos, two at a time (varnelo: 16 requests at once, or one request)" lc rgb "#ee7733"
EOF

echo "== wrote $results and bench/results.svg"
sed -n '/^## Targets/,/^!/p' "$results"
