#!/usr/bin/env bash
# Usage: scripts/demo.sh [PHOTO...]   (builds; prepares the photos with varnelo-batch, then shows the raw protocol)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build="$root/build"
out="$root/demo-out"

echo "== installing dependencies and building"
scripts/install-deps.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" \
    --target varnelo varnelo-batch varnelo-sample-photo >/dev/null

rm -rf "$out"
mkdir -p "$out"
photos=()
if [ $# -eq 0 ]; then
    mkdir -p "$out/samples"
    "$build/varnelo-sample-photo" "$out/samples/sample.jpg"
    "$build/varnelo-sample-photo" "$out/samples/portrait.jpg" 2000 3000
    "$build/varnelo-sample-photo" "$out/samples/small.jpg" 400 300
    echo "== no photo given: made sample photos in $out/samples (EXIF with embedded thumbnails)"
    photos=("$out/samples/sample.jpg")
    batch_inputs=("$out/samples")
else
    for photo in "$@"; do
        if [ -f "$photo" ]; then
            photos+=("$(cd "$(dirname "$photo")" && pwd)/$(basename "$photo")")
        fi
    done
    batch_inputs=("$@")
fi

echo "== varnelo-batch: 480-pixel copies and thumbnails into $out/upload"
echo "   \$ build/varnelo-batch --size 480 --thumbnails --report $out/report.csv ${batch_inputs[*]} -o $out/upload"
batch_status=0
"$build/varnelo-batch" --size 480 --thumbnails --report "$out/report.csv" "${batch_inputs[@]}" \
    -o "$out/upload" || batch_status=$?
echo "== varnelo-batch ended with status $batch_status (1: some photo failed); its report:"
sed 's/^/    /' "$out/report.csv"

echo "== the same work by hand: the protocol exchange for each photo"

# Paths travel inside XML text.
xml_escape() {
    local s=$1
    s=${s//&/&amp;}
    s=${s//</&lt;}
    s=${s//>/&gt;}
    printf '%s' "$s"
}

member() { # name type text
    printf '<member><name>%s</name><value><%s>%s</%s></value></member>' "$1" "$2" "$3" "$2"
}

coproc SERVICE { "$build/varnelo" -l 16; }
service_in=${SERVICE[1]}
service_out=${SERVICE[0]}

# Sends one request and prints its response (everything up to the line "*").
ask() {
    printf '%s\n*\n' "$1" >&"$service_in"
    local line
    while IFS= read -r line <&"$service_out"; do
        [ "$line" = "*" ] && break
        printf '    %s\n' "$line"
    done
}

echo "== upload.connect"
ask "<?xml version=\"1.0\"?>
<methodCall><methodName>upload.connect</methodName>
<params><param><value><struct/></value></param></params></methodCall>"

id=0
for photo in "${photos[@]}"; do
    id=$((id + 1))
    stem=$(basename "${photo%.*}")
    src=$(xml_escape "$photo")
    small=$(xml_escape "$out/${stem}_small.jpg")
    thumb=$(xml_escape "$out/${stem}_thumb.jpg")

    echo "== upload.downsampleRequest: $photo -> $out/${stem}_small.jpg (longer side 480)"
    ask "<?xml version=\"1.0\"?>
<methodCall><methodName>upload.downsampleRequest</methodName>
<params><param><value><struct>$(member imageId i4 "$id")$(member sourcePath string "$src")$(
        member destPath string "$small")$(member resolution i4 480)$(member quality i4 85)$(
        member hashMethod string CRC32)</struct></value></param></params></methodCall>"

    echo "== upload.thumbnailRequest: $photo -> $out/${stem}_thumb.jpg"
    ask "<?xml version=\"1.0\"?>
<methodCall><methodName>upload.thumbnailRequest</methodName>
<params><param><value><struct>$(member imageId i4 "$id")$(member sourcePath string "$src")$(
        member destPath string "$thumb")</struct></value></param></params></methodCall>"
done

echo "== upload.close"
ask "<?xml version=\"1.0\"?>
<methodCall><methodName>upload.close</methodName></methodCall>"
exec {service_in}>&-
status=0
wait "$SERVICE_PID" || status=$?
echo "== the service ended with status $status"
echo "Results are in $out:"
ls -l "$out"
echo "The service's full trace (switch -l 16) is in $build/log."
echo "Prepare your own folder with: $build/varnelo-batch -r ~/Pictures/trip -o upload/"
