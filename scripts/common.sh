# Sourced by the scripts beside it; leaves the shell at the repository root.
# shellcheck shell=bash
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit

# quietly COMMAND...: shows the command's output only if it fails, and passes its exit code on.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 || status=$?
  if ((status != 0)); then
    cat "$log" >&2
    echo "Failed ($status): $*" >&2
  fi
  rm -f "$log"
  return "$status"
}

# configure PRESET [CMAKE_OPTION...]: into build/PRESET, through ccache where it is installed.
configure() {
  local fresh=()
  # In a folder where another compiler was at work CMake would begin anew without the rest of the preset.
  if [[ "$1" == asan ]] && ! grep -qs '^CMAKE_CXX_COMPILER:.*clang' build/asan/CMakeCache.txt; then fresh=(--fresh); fi
  quietly cmake --preset "$1" "${fresh[@]}" -DCMAKE_CXX_COMPILER_LAUNCHER="$(command -v ccache || true)" "${@:2}"
}

# Debian ships PDFium as a part of LibreOffice.
debian_pdfium=/usr/lib/libreoffice/program/libpdfiumlo.so
has_debian_pdfium() {
  [[ -e "$debian_pdfium" ]]
}

# link_pdfium FOLDER: lets the programs in FOLDER find Debian's PDFium. A library that already stands there stays.
link_pdfium() {
  if has_debian_pdfium && [[ ! -e "$1/libpdfium.so" ]]; then
    ln -sfn "$debian_pdfium" "$1/libpdfium.so"
  fi
}
