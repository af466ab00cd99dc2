#!/usr/bin/env bash
# Draws the example images again, byte for byte: examples/make_examples.sh [FOLDER], beside this script by default.
set -euo pipefail
output=$(realpath -m "${1:-$(dirname "${BASH_SOURCE[0]}")}")
cd "$(dirname "${BASH_SOURCE[0]}")/.."

missing=()
for package in g++ pkg-config libtiff-dev libfreetype-dev fonts-dejavu-core; do
  # shellcheck disable=SC2016 # the format is dpkg-query's
  dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
done
if ((${#missing[@]})); then
  echo "Please install these Debian packages: ${missing[*]}" >&2
  exit 1
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
read -ra libraries <<<"$(pkg-config --cflags --libs libtiff-4 freetype2)"
g++ -O2 -std=c++20 -ffp-contract=off examples/make_examples.cpp -o "$scratch/make_examples" "${libraries[@]}"
mkdir -p "$output"
"$scratch/make_examples" /usr/share/fonts/truetype/dejavu "$output"
ls -l "$output"/{sticker,badge_rgba,gang_tiled}.tif
