#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Non-blank lines of the tests (tests/, fuzz/ without its corpus) against the
# non-blank source, script, page and CMake lines of everything else, over the files
# git tracks.
set -euo pipefail
cd "$(dirname "$0")/.."
code_files='\.(c|cpp|h|py|sh|cmake|js|html|css)$|(^|/)CMakeLists\.txt$'
count() { xargs -r cat | grep -c '[^[:space:]]' || true; }
tests=$(git ls-files tests fuzz | grep -v '^fuzz/corpus/' | count)
code=$(git ls-files | grep -Ev '^(tests|fuzz)/' | grep -E "$code_files" | count)
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests %d lines, code %d lines, share %.1f %%\n", t, c, 100 * t / c }'
